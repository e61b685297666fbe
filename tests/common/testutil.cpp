#include "testutil.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace zt {

namespace {

std::string slurp(FILE *f)  // and close
{
    std::string out;
    std::rewind(f);
    char buf[65536];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
    std::fclose(f);
    return out;
}

struct TempDirs {
    std::vector<std::string> dirs;
    ~TempDirs()
    {
        for (auto &d : dirs) std::filesystem::remove_all(d);
    }
} g_temp_dirs;

}  // namespace

std::string capture_stdout(const std::function<void()> &fn)
{
    std::fflush(stdout);
    FILE *tmp = std::tmpfile();
    const int saved = dup(1);
    dup2(fileno(tmp), 1);
    fn();
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
    return slurp(tmp);
}

Bytes from_hex(const std::string &hex)
{
    Bytes out(hex.size() / 2);
    for (size_t i = 0; i < out.size(); i++)
        out[i] = uint8_t(std::stoul(hex.substr(2 * i, 2), nullptr, 16));
    return out;
}

std::string to_hex(const uint8_t *p, size_t n)
{
    std::string s;
    const char *digits = "0123456789abcdef";
    for (size_t i = 0; i < n; i++) s += {digits[p[i] >> 4], digits[p[i] & 15]};
    return s;
}

Bytes random_bytes(std::mt19937_64 &rng, size_t n)
{
    Bytes b(n);
    b.reserve(n + 1);
    for (auto &x : b) x = uint8_t(rng());
    return b;
}

nlohmann::json load_vectors(const std::string &name)
{
    std::ifstream in(std::string(ZIRN_VECTORS_DIR) + "/" + name);
    return nlohmann::json::parse(in);
}

std::vector<Words> load_rows(const std::string &name, const Vars &vars)
{
    std::ifstream in(std::string(ZIRN_VECTORS_DIR) + "/" + name);
    std::vector<Words> rows;
    bool text = false;  // the row's last word is its text
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        for (const auto &[var, value] : vars)
            for (size_t at; (at = line.find(var)) != line.npos;)
                line.replace(at, var.size(), value);
        if (line[0] == '|') {
            if (!std::exchange(text, true)) rows.back().emplace_back();
            rows.back().back() += line.substr(std::min<size_t>(2, line.size())) + "\n";
            continue;
        }
        text = false;
        std::istringstream words(line);
        Words &row = rows.emplace_back();
        for (std::string w; words >> std::quoted(w);) row.push_back(w);
    }
    return rows;
}

std::string temp_dir()
{
    std::string templ = (std::filesystem::temp_directory_path() / "zirn-test-XXXXXX").string();
    if (mkdtemp(templ.data()) == nullptr) throw std::runtime_error("mkdtemp");
    return g_temp_dirs.dirs.emplace_back(templ);
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary);
    if (!out.write(content.data(), std::streamsize(content.size())))
        throw std::runtime_error("cannot write " + path);
}

Bytes read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool file_exists(const std::string &path) { return std::filesystem::exists(path); }

Run run(const std::string &exe, const std::vector<std::string> &args,
        const std::function<void(pid_t)> &meanwhile)
{
    FILE *out = std::tmpfile(), *err = std::tmpfile();
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fileno(out), 1);
        dup2(fileno(err), 2);
        // ZIRN_TEST_RUNNER, e.g. "qemu-x86_64 -cpu qemu64" or "valgrind ...", runs the project's
        // executables (not the system's, such as openssl).
        std::vector<std::string> words;
        const char *runs = getenv("ZIRN_TEST_RUNNER");
        std::istringstream runner(runs && exe.rfind("/usr/", 0) != 0 ? runs : "");
        for (std::string w; runner >> w;) words.push_back(w);
        words.push_back(exe);
        words.insert(words.end(), args.begin(), args.end());
        std::vector<char *> argv;
        for (auto &w : words) argv.push_back(w.data());
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    if (meanwhile) meanwhile(pid);
    int st = 0;
    waitpid(pid, &st, 0);
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, slurp(out), slurp(err)};
}

}  // namespace zt
