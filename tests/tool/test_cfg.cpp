// Configuration file parser, hex conversion and file size query: exact console text and exact
// record bytes, with the record offsets taken from the layout table, not from the code.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>

#include "ZirnImgProtCfgFileProc.h"
#include "testutil.h"

using namespace std::string_literals;

// Linked with --wrap=fclose: when set, the next fclose closes the stream but reports failure.
// The read buffer of the first stream closed after g_closed_buf was reset is kept (glibc's FILE).
extern "C" int __real_fclose(FILE *fp);
static bool g_fail_next_fclose = false;
static const char *g_closed_buf = nullptr;
extern "C" int __wrap_fclose(FILE *fp)
{
    if (g_closed_buf == nullptr) g_closed_buf = fp->_IO_buf_base;
    return __real_fclose(fp) == 0 && !std::exchange(g_fail_next_fclose, false) ? 0 : EOF;
}

namespace {

const std::string R = "Parsing Line Below =>\n", SKIP = "Skip " + R, V = "IMG_VER = 0x0102",
                  E = "Error: parsing image version: ";
std::string wrong(char c) { return "Error: wrong characters ("s + c + ") in hex string\n"; }

// {result, printed, record in hex} of parsing content.
using Parsed = std::tuple<int32_t, std::string, std::string>;
Parsed parse(const std::string &content, const std::string &path = zt::temp_dir() + "/c")
{
    zt::write_file(path, content);
    ImgProtParam p;
    memset(&p, 0, sizeof p);
    const auto [rc, out] = zt::printed([&] { return iProcZIRNImgProtCfgFileV10(path.data(), &p); });
    return {rc, out, zt::to_hex(reinterpret_cast<uint8_t *>(&p), sizeof p)};
}

// The record with the given bytes (hex) at the given offsets and keys_seen.
std::string record(const std::vector<std::pair<size_t, std::string>> &fields, uint8_t seen)
{
    std::string r(2 * 868, '0');
    for (const auto &[off, hex] : fields) r.replace(2 * off, hex.size(), hex);
    return r.replace(2 * 864, 2, zt::to_hex(&seen, 1));
}

}  // namespace

// Each key: a short value (its message, its result, the bytes converted before the failure at its
// offset, no keys_seen bit) and a key written as a prefix, its value after "0X" and with a tail.
TEST(CfgParse, KeysValuesAndTheirFailures)
{
    const std::tuple<std::string, size_t, size_t, uint8_t, std::string, int32_t> keys[] = {
        // key, value bytes, offset in the record, keys_seen bit, message, result
        {"IMG_VER", 2, 15, 0x01, E, -4},
        {"ENC_PARAM", 32, 576, 0x04, "Error: parsing enc param: ", -5},
        {"DEC_PARAM", 32, 28, 0x02, "Error: parsing dec param: ", -6},
        {"AUTH_PARAM_N", 256, 60, 0x08, "Error: parsing auth param n: ", -7},
        {"AUTH_PARAM_D", 256, 608, 0x10, "Error: parsing auth param d: ", -8},
    };
    for (const auto &[name, bytes, off, seen, err, rc] : keys) {
        std::string v = zt::to_hex(zt::Bytes(bytes, uint8_t(off)));
        v[0] = 'a';
        const std::string cut = v.substr(0, v.size() - 2), prefixed = name + "S : 0X" + v + "zz\n";
        EXPECT_EQ(parse(name + " = 0x" + cut + "\n"),
                  std::tuple(rc, wrong('\0') + err + "0x" + cut + "\n", record({{off, cut}}, 0)));
        EXPECT_EQ(parse(prefixed), std::tuple(0, R + prefixed, record({{off, v}}, seen)));
    }
    // Lines arrive in pieces of at most 4095 characters; the rest of the rows are data.
    const std::string skip = "FOO = " + std::string(4089, 'x'), pad(4079, ' ');
    EXPECT_EQ(parse(skip + V + "\n" + V + pad + "\n" + std::string(4096, ' ') + V),
              Parsed(0, SKIP + skip + "\n" + R + V + "\n" + R + V + "\n" + R + V + "\n",
                     record({{15, "0102"}}, 1)));
    for (const auto v = zt::load_vectors("parser_cases.json"); const auto &c : v["cfg_parse"]) {
        std::vector<std::pair<size_t, std::string>> at;
        for (const auto &[off, hex] : c["fields"].items()) at.emplace_back(std::stoul(off), hex);
        EXPECT_EQ(parse(c["content"]), Parsed(c["result"], c["printed"], record(at, c["seen"])))
            << c["why"];
    }
}

// Null arguments, a folder (not a regular file: refused as unopenable), and a close that fails,
// which overrides the result.
TEST(CfgParse, FilesArgumentsAndClosing)
{
    const std::string dir = zt::temp_dir(), path = dir + "/ok.cfg";
    ImgProtParam p{};
    const std::tuple<const char *, ImgProtParam *, int32_t, std::string> rows[] = {
        {nullptr, &p, -1, "Error: Input file name (zirn image protection configuration file) is"
                          " NULL\n"},
        {path.c_str(), nullptr, -1, "Error: Parameter structure is NULL\n"},
        {dir.c_str(), &p, -2, "Error: fail to open file (" + dir + ")\n"},
    };
    for (const auto &[file, param, rc, out] : rows) {
        const auto proc = [f = file, q = param] { return iProcZIRNImgProtCfgFileV10(f, q); };
        EXPECT_EQ(zt::printed(proc), std::pair(rc, out));
    }
    g_fail_next_fclose = true;
    const std::string closing = "\nError: fail to close file (" + path + ")\n";
    EXPECT_EQ(parse(V + "\n", path), std::tuple(-3, R + V + closing, record({{15, "0102"}}, 1)));
}

// The AES key and the private exponent leave no copy of their text in the buffers the file was
// read through (the stream's own buffer among them), however the parse ends.
TEST(CfgParse, LeavesNoTextOfTheSecretsBehind)
{
    const std::string key(64, 'e'), d(512, 'd'), path = zt::temp_dir() + "/s",
                      cfg = "ENC_PARAM = 0x" + key + "\nAUTH_PARAM_D = 0x";
    const std::tuple<std::string, bool, int32_t> rows[] = {  // content, close fails, result
        {cfg + d + "\n", false, 0},
        {cfg + d + "\n", true, -3},
    };
    for (const auto &[content, close_fails, rc] : rows) {
        g_fail_next_fclose = close_fails, g_closed_buf = nullptr;
        EXPECT_EQ(std::get<0>(parse(content, path)), rc);
        const auto bufs = aspCfgTextBufsV10();
        EXPECT_EQ(g_closed_buf, bufs[1].data());
        for (const auto &b : bufs) {
            const std::string_view buf(b.data(), b.size());
            EXPECT_EQ(std::pair(buf.find(key.substr(0, 16)), buf.find(d.substr(0, 16))),
                      std::pair(buf.npos, buf.npos)) << rc;
        }
    }
}

// The rows are in tests/vectors/parser_cases.json.
TEST(HexConv, ResultCodesMessagesAndBytes)
{
    for (const auto v = zt::load_vectors("parser_cases.json"); const auto &c : v["hex_conv"]) {
        zt::Bytes buf(4, 0xee);
        const std::string text = c["text"].is_null() ? "" : c["text"];
        const char *t = c["text"].is_null() ? nullptr : text.c_str();
        uint8_t *b = c["buffer"] ? buf.data() : nullptr;
        const auto conv = [&] { return iConvHexStrToValBuf(t, b, c["len"]); };
        EXPECT_EQ(zt::printed(conv), std::pair(int32_t(c["result"]), std::string(c["printed"])))
            << c;
        EXPECT_EQ(zt::to_hex(buf), c["bytes"]) << c;
    }
}

TEST(FileSize, ResultsAndMessages)
{
    const std::string dir = zt::temp_dir(), empty = dir + "/empty", normal = dir + "/normal";
    zt::write_file(empty, "");
    zt::write_file(normal, zt::Bytes(12345, 0x42));
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);  // not a regular file: refused as unopenable (a missing file: Signer)
    const std::string pipe_path = "/proc/self/fd/" + std::to_string(fds[0]),
                      at = ") for getting file size\n";
    const std::tuple<const char *, uint32_t, std::string> rows[] = {
        {nullptr, 0, "Error: No file name for getting file size\n"},
        {empty.c_str(), 0, ""},
        {normal.c_str(), 12345, ""},
        {pipe_path.c_str(), 0, "Error: fail to open file (" + pipe_path + at},
    };
    for (const auto &[path, size, out] : rows)
        EXPECT_EQ(zt::printed([p = path] { return ui4GetFileSz(p); }), std::pair(size, out));
    close(fds[0]), close(fds[1]);
    g_fail_next_fclose = true;  // a close failure discards the size already taken
    const std::string closing = "Error: fail to close file (" + normal + at;
    EXPECT_EQ(zt::printed([&] { return ui4GetFileSz(normal.data()); }), std::pair(0u, closing));
}

// The memory size argument: absent and zero are refused with results of their own.
TEST(ExtMemSize, AbsentAndZeroAreRefusedApart)
{
    uint32_t size = 7;
    const int32_t absent = iParseExtMemSzV10(nullptr, &size);
    EXPECT_EQ(std::tuple(absent, size, iParseExtMemSzV10("0x0", &size)), std::tuple(-1, 0u, -3));
}
