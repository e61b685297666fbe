#include "testutil.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <unistd.h>

namespace zt {

std::string capture_stdout(const std::function<void()> &fn)
{
    std::fflush(stdout);
    FILE *tmp = std::tmpfile();
    if (tmp == nullptr) throw std::runtime_error("tmpfile");
    int saved = dup(1);
    dup2(fileno(tmp), 1);
    fn();
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::string out;
    std::rewind(tmp);
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, tmp)) > 0) out.append(buf, n);
    std::fclose(tmp);
    return out;
}

Bytes from_hex(const std::string &hex)
{
    auto nib = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        throw std::invalid_argument("bad hex digit");
    };
    if (hex.size() % 2 != 0) throw std::invalid_argument("odd hex length");
    Bytes out(hex.size() / 2);
    for (size_t i = 0; i < out.size(); i++) out[i] = uint8_t(nib(hex[2 * i]) << 4 | nib(hex[2 * i + 1]));
    return out;
}

std::string to_hex(const uint8_t *p, size_t n)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(2 * n);
    for (size_t i = 0; i < n; i++) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

nlohmann::json load_vectors(const std::string &file_name)
{
    std::ifstream in(std::string(ZIRN_VECTORS_DIR) + "/" + file_name);
    if (!in) throw std::runtime_error("cannot open vector file " + file_name);
    return nlohmann::json::parse(in);
}

namespace {
struct TempDirs {
    std::vector<std::string> dirs;
    ~TempDirs()
    {
        std::error_code ec;
        for (auto &d : dirs) std::filesystem::remove_all(d, ec);
    }
};
TempDirs g_temp_dirs;
}  // namespace

std::string temp_dir()
{
    std::string templ = (std::filesystem::temp_directory_path() / "zirn-test-XXXXXX").string();
    if (mkdtemp(templ.data()) == nullptr) throw std::runtime_error("mkdtemp");
    g_temp_dirs.dirs.push_back(templ);
    return templ;
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), std::streamsize(content.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
}

void write_file(const std::string &path, const Bytes &content)
{
    write_file(path, std::string(content.begin(), content.end()));
}

Bytes read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool file_exists(const std::string &path) { return std::filesystem::exists(path); }

}  // namespace zt
