// Configuration file parser, hex conversion and file size query: exact
// console text and exact record bytes.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "ZirnImgProtCfgFileProc.h"
#include "testutil.h"

using namespace std::string_literals;

// The test program is linked with --wrap=fclose so that a close failure can
// be forced: when set, the next fclose still closes the stream but reports
// failure.
extern "C" int __real_fclose(FILE *fp);
static bool g_fail_next_fclose = false;
extern "C" int __wrap_fclose(FILE *fp)
{
    const int r = __real_fclose(fp);
    if (g_fail_next_fclose) {
        g_fail_next_fclose = false;
        return EOF;
    }
    return r;
}

namespace {

// Record offsets written out from the layout table, not taken from the code.
constexpr size_t OFF_IMG_VER = 15, OFF_DEC = 28, OFF_N = 60, OFF_IV = 576, OFF_D = 608,
                 OFF_SEEN = 864;

// Deterministic hex value of n bytes, distinct per seed; upper case when asked.
std::string hex_value(size_t n, unsigned seed, bool upper = false)
{
    zt::Bytes b(n);
    for (size_t i = 0; i < n; i++) b[i] = uint8_t(seed * 73 + i * 29 + (i >> 3));
    std::string s = zt::to_hex(b);
    if (upper) {
        for (char &c : s) c = char(toupper(static_cast<unsigned char>(c)));
    }
    return s;
}

struct Field {
    size_t off;
    std::string hex;  // bytes expected at off
};

struct Result {
    int32_t rc;
    std::string out;
    zt::Bytes rec;
};

Result parse_file(const std::string &path)
{
    ImgProtParam p;
    memset(&p, 0, sizeof p);
    Result r{};
    r.out = zt::capture_stdout([&] { r.rc = iProcZIRNImgProtCfgFileV10(path.c_str(), &p); });
    const uint8_t *b = reinterpret_cast<const uint8_t *>(&p);
    r.rec.assign(b, b + sizeof p);
    return r;
}

Result parse_text(const std::string &content)
{
    const std::string path = zt::temp_dir() + "/prot.cfg";
    zt::write_file(path, content);
    return parse_file(path);
}

zt::Bytes expected_record(const std::vector<Field> &fields, uint32_t seen)
{
    zt::Bytes rec(868, 0);
    for (const Field &f : fields) {
        const zt::Bytes v = zt::from_hex(f.hex);
        std::copy(v.begin(), v.end(), rec.begin() + ptrdiff_t(f.off));
    }
    rec[OFF_SEEN] = uint8_t(seen);
    rec[OFF_SEEN + 1] = uint8_t(seen >> 8);
    rec[OFF_SEEN + 2] = uint8_t(seen >> 16);
    rec[OFF_SEEN + 3] = uint8_t(seen >> 24);
    return rec;
}

struct KeyInfo {
    std::string key;
    size_t bytes;
    size_t off;
    uint32_t seen;
    std::string err;  // message prefix before the value text
    int32_t rc;
};

const std::vector<KeyInfo> &keys()
{
    static const std::vector<KeyInfo> k = {
        {"IMG_VER", 2, OFF_IMG_VER, 0x01, "Error: parsing image version: ", -4},
        {"ENC_PARAM", 32, OFF_IV, 0x04, "Error: parsing enc param: ", -5},
        {"DEC_PARAM", 32, OFF_DEC, 0x02, "Error: parsing dec param: ", -6},
        {"AUTH_PARAM_N", 256, OFF_N, 0x08, "Error: parsing auth param n: ", -7},
        {"AUTH_PARAM_D", 256, OFF_D, 0x10, "Error: parsing auth param d: ", -8},
    };
    return k;
}

const std::string REPORT = "Parsing Line Below =>\n";
const std::string SKIP = "Skip ";
const std::string BAD_PARAM =
    "Error: incorrect input parameter for converting hex string to value buffer\n";

std::string wrong_char(char c) { return "Error: wrong characters ("s + c + ") in hex string\n"; }
std::string bad_prefix(char c) { return "Error: hex string should start by 0x or 0X ("s + c + ")\n"; }

struct CfgCase {
    std::string name;
    std::string content;
    int32_t rc;
    std::string out;
    std::vector<Field> fields;
    uint32_t seen;
};

void run_cases(const std::vector<CfgCase> &cases)
{
    for (const CfgCase &c : cases) {
        SCOPED_TRACE(c.name);
        const Result r = parse_text(c.content);
        EXPECT_EQ(r.rc, c.rc);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(zt::to_hex(r.rec), zt::to_hex(expected_record(c.fields, c.seen)));
    }
}

}  // namespace

TEST(CfgParse, CompleteFileFillsEveryField)
{
    const std::string ver = "0102", enc = hex_value(32, 1), dec = hex_value(32, 2),
                      n = hex_value(256, 3), d = hex_value(256, 4);
    const std::string l1 = "IMG_VER = 0x" + ver, l2 = "ENC_PARAM = 0x" + enc,
                      l3 = "DEC_PARAM = 0x" + dec, l4 = "AUTH_PARAM_N = 0x" + n,
                      l5 = "AUTH_PARAM_D = 0x" + d;
    const std::vector<Field> all = {{OFF_IMG_VER, ver}, {OFF_IV, enc}, {OFF_DEC, dec},
                                    {OFF_N, n},         {OFF_D, d}};
    const std::string report = REPORT + l1 + "\n" + REPORT + l2 + "\n" + REPORT + l3 + "\n" +
                               REPORT + l4 + "\n" + REPORT + l5 + "\n";
    // The same keys in another order give the same record.
    const std::string report_rev = REPORT + l5 + "\n" + REPORT + l4 + "\n" + REPORT + l3 + "\n" +
                                   REPORT + l2 + "\n" + REPORT + l1 + "\n";
    // With CRLF line ends the carriage return stays on the value token (and
    // in the report) but lies after the digits, so it is ignored.
    const std::string crlf_report = REPORT + l1 + "\r\n" + REPORT + l2 + "\r\n" + REPORT + l3 +
                                    "\r\n" + REPORT + l4 + "\r\n" + REPORT + l5 + "\r\n";
    // Upper-case digits and the "0X" prefix.
    const std::string L2 = "ENC_PARAM = 0X" + hex_value(32, 1, true);

    run_cases({
        {"lf", "# zirn image protection configuration\n" + l1 + "\n" + l2 + "\n" + l3 + "\n" +
                   l4 + "\n" + l5 + "\n",
         0, report, all, 0x1f},
        {"reverse order", l5 + "\n" + l4 + "\n" + l3 + "\n" + l2 + "\n" + l1 + "\n", 0,
         report_rev, all, 0x1f},
        {"crlf", "# comment\r\n" + l1 + "\r\n" + l2 + "\r\n" + l3 + "\r\n" + l4 + "\r\n" + l5 +
                     "\r\n",
         0, crlf_report, all, 0x1f},
        {"upper case", L2 + "\n", 0, REPORT + L2 + "\n", {{OFF_IV, enc}}, 0x04},
        {"no line feed at the end", l1 + "\n" + l3, 0, REPORT + l1 + "\n" + REPORT + l3 + "\n",
         {{OFF_IMG_VER, ver}, {OFF_DEC, dec}}, 0x03},
        {"partial file", l3 + "\n", 0, REPORT + l3 + "\n", {{OFF_DEC, dec}}, 0x02},
        {"empty file", "", 0, "", {}, 0},
    });
}

TEST(CfgParse, EveryKeyReportsItsOwnFailure)
{
    std::vector<CfgCase> cases;
    for (const KeyInfo &k : keys()) {
        const std::string digits = hex_value(k.bytes, 7);
        // No separator: the value token is missing and reaches the converter as null.
        cases.push_back({k.key + " missing value", k.key + " 0x" + digits + "\n", k.rc,
                         BAD_PARAM + k.err + "(null)\n", {}, 0});
        // One byte short: the terminator is the wrong character, and the bytes
        // completed before it stay in the record.
        const std::string shortv = "0x" + digits.substr(0, digits.size() - 2);
        cases.push_back({k.key + " too short", k.key + " = " + shortv + "\n", k.rc,
                         wrong_char('\0') + k.err + shortv + "\n",
                         {{k.off, digits.substr(0, digits.size() - 2)}}, 0});
        // Odd digit count: the last lone high nibble is not stored.
        const std::string oddv = "0x" + digits.substr(0, digits.size() - 1);
        cases.push_back({k.key + " odd digits", k.key + " = " + oddv + "\n", k.rc,
                         wrong_char('\0') + k.err + oddv + "\n",
                         {{k.off, digits.substr(0, digits.size() - 2)}}, 0});
        cases.push_back({k.key + " bad first char", k.key + " = 1x" + digits + "\n", k.rc,
                         bad_prefix('1') + k.err + "1x" + digits + "\n", {}, 0});
        cases.push_back({k.key + " bad second char", k.key + " = 0y" + digits + "\n", k.rc,
                         bad_prefix('y') + k.err + "0y" + digits + "\n", {}, 0});
        // A blank inside the value splits it: the value token ends early.
        const std::string head = "0x" + digits.substr(0, 2);
        cases.push_back({k.key + " split value", k.key + " = " + head + " " + digits.substr(2) + "\n",
                         k.rc, wrong_char('\0') + k.err + head + "\n", {{k.off, digits.substr(0, 2)}},
                         0});
        // A CR right after too few digits is the reported character.
        cases.push_back({k.key + " cr after short value", k.key + " = 0x12\r\n", k.rc,
                         wrong_char('\r') + k.err + "0x12\r\n", {{k.off, "12"}}, 0});
        // Trailing characters after the full value are ignored silently.
        const std::string longv = "0x" + digits + "zz-trailing";
        cases.push_back({k.key + " trailing", k.key + " = " + longv + "\n", 0,
                         REPORT + k.key + " = " + longv + "\n", {{k.off, digits}}, k.seen});
    }
    run_cases(cases);
}

TEST(CfgParse, KeysMatchAsPrefixesInTableOrder)
{
    const std::string n = hex_value(256, 5), d = hex_value(256, 6), e = hex_value(32, 8);
    run_cases({
        {"IMG_VERSION", "IMG_VERSION = 0x0a0b\n", 0, REPORT + "IMG_VERSION = 0x0a0b\n",
         {{OFF_IMG_VER, "0a0b"}}, 0x01},
        {"AUTH_PARAM_NX", "AUTH_PARAM_NX = 0x" + n + "\n", 0,
         REPORT + "AUTH_PARAM_NX = 0x" + n + "\n", {{OFF_N, n}}, 0x08},
        {"AUTH_PARAM_DD", "AUTH_PARAM_DD = 0x" + d + "\n", 0,
         REPORT + "AUTH_PARAM_DD = 0x" + d + "\n", {{OFF_D, d}}, 0x10},
        {"ENC_PARAMS", "ENC_PARAMS = 0x" + e + "\n", 0, REPORT + "ENC_PARAMS = 0x" + e + "\n",
         {{OFF_IV, e}}, 0x04},
        {"DEC_PARAM_X", "DEC_PARAM_X = 0x" + e + "\n", 0, REPORT + "DEC_PARAM_X = 0x" + e + "\n",
         {{OFF_DEC, e}}, 0x02},
        // Key glued to the value: still IMG_VER, but no value token.
        {"glued", "IMG_VER=0x0102\n", -4, BAD_PARAM + "Error: parsing image version: (null)\n",
         {}, 0},
        // The key alone on its line: the token carries the line feed.
        {"key alone", "IMG_VER\n", -4, BAD_PARAM + "Error: parsing image version: (null)\n", {},
         0},
        // The separator is never examined, and repeated blanks are one delimiter.
        {"other separator", "IMG_VER : 0x0102\n", 0, REPORT + "IMG_VER : 0x0102\n",
         {{OFF_IMG_VER, "0102"}}, 0x01},
        {"many blanks", "IMG_VER    =    0x0102   \n", 0, REPORT + "IMG_VER = 0x0102\n",
         {{OFF_IMG_VER, "0102"}}, 0x01},
        {"tab separator", "IMG_VER =\t0x0102\n", -4,
         BAD_PARAM + "Error: parsing image version: (null)\n", {}, 0},
        {"fourth token ignored", "IMG_VER = 0x0102 0x0304\n", 0, REPORT + "IMG_VER = 0x0102\n",
         {{OFF_IMG_VER, "0102"}}, 0x01},
        // Not keys: shorter, lower case, shifted, tab-indented.
        {"IMG_VE", "IMG_VE = 0x0102\n", 0, SKIP + REPORT + "IMG_VE = 0x0102\n", {}, 0},
        {"lower case", "img_ver = 0x0102\n", 0, SKIP + REPORT + "img_ver = 0x0102\n", {}, 0},
        {"XIMG_VER", "XIMG_VER = 0x0102\n", 0, SKIP + REPORT + "XIMG_VER = 0x0102\n", {}, 0},
        {"tab indent", "\tIMG_VER = 0x0102\n", 0, SKIP + REPORT + "\tIMG_VER = 0x0102\n", {}, 0},
        {"unknown key alone", "FOO\n", 0, SKIP + REPORT + "FOO\n (null) (null)\n", {}, 0},
        {"unknown key two tokens", "FOO =\n", 0, SKIP + REPORT + "FOO =\n (null)\n", {}, 0},
        {"blank-indented key", "   IMG_VER = 0x0102\n", 0, REPORT + "IMG_VER = 0x0102\n",
         {{OFF_IMG_VER, "0102"}}, 0x01},
    });
}

TEST(CfgParse, CommentsAndEmptyLines)
{
    run_cases({
        {"column-1 comment", "# IMG_VER = 0x0102\n", 0, "", {}, 0},
        {"column-1 comment glued", "#IMG_VER = 0x0102\n", 0, "", {}, 0},
        {"empty line", "\n", 0, "", {}, 0},
        {"indented comment", "   # note\n", 0, "Skip Comment/Empty line (#)\n", {}, 0},
        {"indented comment glued", "  #IMG_VER = 0x0102\n", 0,
         "Skip Comment/Empty line (#IMG_VER)\n", {}, 0},
        {"indented bare hash", " #\n", 0, "Skip Comment/Empty line (#\n)\n", {}, 0},
        {"line of blanks", "     \n", 0, "Skip Comment/Empty line (\n)\n", {}, 0},
        {"blanks without line end", "IMG_VER = 0x0102\n    ", 0, REPORT + "IMG_VER = 0x0102\n",
         {{OFF_IMG_VER, "0102"}}, 0x01},
        {"comment without line end", "# last", 0, "", {}, 0},
        // Only the line feed counts as empty: a CRLF empty line is an unknown key.
        {"crlf empty line", "\r\n", 0, SKIP + REPORT + "\r\n (null) (null)\n", {}, 0},
        {"tab-only line", "\t\n", 0, SKIP + REPORT + "\t\n (null) (null)\n", {}, 0},
        {"mixed", "# head\n\n  # c\n   \nIMG_VER = 0x0304\n", 0,
         "Skip Comment/Empty line (#)\nSkip Comment/Empty line (\n)\n" + REPORT +
             "IMG_VER = 0x0304\n",
         {{OFF_IMG_VER, "0304"}}, 0x01},
    });
}

TEST(CfgParse, DuplicatesAndStopAtFirstFailure)
{
    const std::string n1 = hex_value(256, 10), n2 = hex_value(256, 11);
    run_cases({
        {"last occurrence wins", "IMG_VER = 0x0102\nIMG_VER = 0xa0b0\n", 0,
         REPORT + "IMG_VER = 0x0102\n" + REPORT + "IMG_VER = 0xa0b0\n", {{OFF_IMG_VER, "a0b0"}},
         0x01},
        {"last wins over prefix key", "AUTH_PARAM_N = 0x" + n1 + "\nAUTH_PARAM_NEW = 0x" + n2 + "\n",
         0, REPORT + "AUTH_PARAM_N = 0x" + n1 + "\n" + REPORT + "AUTH_PARAM_NEW = 0x" + n2 + "\n",
         {{OFF_N, n2}}, 0x08},
        // A failed second occurrence overwrites what it converted before the
        // bad digit and keeps the first occurrence's bit.
        {"failed duplicate", "IMG_VER = 0x0102\nIMG_VER = 0xa0zz\n", -4,
         REPORT + "IMG_VER = 0x0102\n" + wrong_char('z') +
             "Error: parsing image version: 0xa0zz\n",
         {{OFF_IMG_VER, "a002"}}, 0x01},
        // The parse stops at the failure; later lines are not read.
        {"stop", "IMG_VER = 0x0102\nDEC_PARAM = 0x12zz\nAUTH_PARAM_N = 0x" + n1 + "\nFOO\n", -6,
         REPORT + "IMG_VER = 0x0102\n" + wrong_char('z') + "Error: parsing dec param: 0x12zz\n",
         {{OFF_IMG_VER, "0102"}, {OFF_DEC, "12"}}, 0x01},
    });
}

TEST(CfgParse, LongLinesAreSplitAt4095Characters)
{
    // 4095 characters then the remainder, which is parsed as a line of its own.
    const std::string filler(4095 - 6, 'x');
    const std::string split_line = "FOO = " + filler + "IMG_VER = 0x0304\n";
    // Exactly 4095 characters before the line feed: the line feed is read
    // alone next and counts as an empty line in column 1.
    const std::string exact = "IMG_VER = 0x0102" + std::string(4095 - 16, ' ') + "\n";
    // 4096 blanks: the first piece has no token at all and is passed over.
    const std::string blanks = std::string(4096, ' ') + "IMG_VER = 0x0506\n";
    run_cases({
        {"split", split_line, 0,
         SKIP + REPORT + "FOO = " + filler + "\n" + REPORT + "IMG_VER = 0x0304\n",
         {{OFF_IMG_VER, "0304"}}, 0x01},
        {"exactly 4095", exact, 0, REPORT + "IMG_VER = 0x0102\n", {{OFF_IMG_VER, "0102"}}, 0x01},
        {"4096 blanks", blanks, 0, REPORT + "IMG_VER = 0x0506\n", {{OFF_IMG_VER, "0506"}}, 0x01},
    });

    // A value cut by the split: the first piece ends without a line feed, so
    // its value is the digits up to the cut; the bytes before it stay.
    const std::string n = hex_value(256, 12);
    const std::string pad(4095 - 17 - 100, ' ');
    const std::string first = "0x" + n.substr(0, 100);
    run_cases({
        {"value cut", pad + "AUTH_PARAM_N = 0x" + n + "\n", -7,
         wrong_char('\0') + "Error: parsing auth param n: " + first + "\n",
         {{OFF_N, n.substr(0, 100)}}, 0},
    });
}

TEST(CfgParse, NulBytesInsideLines)
{
    // The text of a line ends at its first NUL byte; the rest of that line
    // up to its line feed is gone.
    run_cases({
        {"nul inside value", "IMG_VER = 0x01\0"s + "02\n", -4,
         wrong_char('\0') + "Error: parsing image version: 0x01\n", {{OFF_IMG_VER, "01"}}, 0},
        {"nul in column 1", "\0IMG_VER = 0x0102\nIMG_VER = 0x0304\n"s, 0,
         REPORT + "IMG_VER = 0x0304\n", {{OFF_IMG_VER, "0304"}}, 0x01},
        {"nul after blanks", "   \0IMG_VER = 0x0102\n"s, 0, "", {}, 0},
        {"nul after key", "DEC_PARAM\0 = 0x11\n"s, -6,
         BAD_PARAM + "Error: parsing dec param: (null)\n", {}, 0},
        {"nul after value", "IMG_VER = 0x0102\0 junk\n"s, 0, REPORT + "IMG_VER = 0x0102\n",
         {{OFF_IMG_VER, "0102"}}, 0x01},
        {"nul in unknown line", "FOO = bar\0baz\n"s, 0, SKIP + REPORT + "FOO = bar\n", {}, 0},
        {"nul in comment", "  # c\0omment\n#\0\nIMG_VER = 0x0708"s, 0,
         "Skip Comment/Empty line (#)\n" + REPORT + "IMG_VER = 0x0708\n",
         {{OFF_IMG_VER, "0708"}}, 0x01},
    });
}

TEST(CfgParse, HostileFiles)
{
    // A directory opens but cannot be read: nothing parsed, success.
    {
        const std::string dir = zt::temp_dir();
        const Result r = parse_file(dir);
        EXPECT_EQ(r.rc, 0);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.rec, zt::Bytes(868, 0));
    }
    // A 10 MB single line without a line end: 2560 pieces of 4095 bytes and
    // one of 2560, each an unknown key with no further tokens.
    {
        const size_t total = 10u << 20, piece = 4095;
        const Result r = parse_text(std::string(total, 'Z'));
        EXPECT_EQ(r.rc, 0);
        std::string expected;
        for (size_t at = 0; at < total; at += piece) {
            expected += SKIP + REPORT + std::string(std::min(piece, total - at), 'Z') +
                        " (null) (null)\n";
        }
        EXPECT_TRUE(r.out == expected) << "output of " << r.out.size() << " bytes differs";
        EXPECT_EQ(r.rec, zt::Bytes(868, 0));
    }
    // Binary junk, biased towards the characters the parser reacts to.
    // Nothing must crash or read out of bounds; whatever the parse returns
    // is one of its own codes, and keys_seen holds only known bits.
    std::mt19937 rng(20261122);
    const std::string pieces[] = {"IMG_VER", "ENC_PARAM", "DEC_PARAM", "AUTH_PARAM_N",
                                  "AUTH_PARAM_D", " = ", "0x", "0X", "#", " ", "\n", "\r\n",
                                  "\t", "0123456789abcdef", std::string(1, '\0')};
    const std::string dir = zt::temp_dir();
    for (int iter = 0; iter < 300; iter++) {
        std::string content;
        const size_t len = rng() % 12000;
        while (content.size() < len) {
            if (rng() % 3 == 0) {
                content += pieces[rng() % std::size(pieces)];
            } else {
                content += char(rng() & 0xff);
            }
        }
        const std::string path = dir + "/junk" + std::to_string(iter);
        zt::write_file(path, content);
        const Result r = parse_file(path);
        EXPECT_TRUE(r.rc == 0 || (r.rc <= -4 && r.rc >= -8)) << iter << ": " << r.rc;
        EXPECT_EQ(r.rec[OFF_SEEN] & ~0x1f, 0) << iter;
        EXPECT_EQ(r.rec[OFF_SEEN + 1] | r.rec[OFF_SEEN + 2] | r.rec[OFF_SEEN + 3], 0) << iter;
    }
}

TEST(CfgParse, ArgumentsAndFileErrors)
{
    ImgProtParam p;
    memset(&p, 0, sizeof p);
    const std::string path = zt::temp_dir() + "/ok.cfg";
    zt::write_file(path, "IMG_VER = 0x0102\n");
    const std::string missing = zt::temp_dir() + "/none.cfg";
    struct Case {
        const char *path;
        ImgProtParam *param;
        int32_t rc;
        std::string out;
    } cases[] = {
        {nullptr, &p, -1,
         "Error: Input file name (zirn image protection configuration file) is NULL\n"},
        {nullptr, nullptr, -1,
         "Error: Input file name (zirn image protection configuration file) is NULL\n"},
        {path.c_str(), nullptr, -1, "Error: Parameter structure is NULL\n"},
        {missing.c_str(), &p, -2, "Error: fail to open file (" + missing + ")\n"},
    };
    for (const Case &c : cases) {
        int32_t rc = 0;
        EXPECT_EQ(zt::capture_stdout([&] { rc = iProcZIRNImgProtCfgFileV10(c.path, c.param); }),
                  c.out);
        EXPECT_EQ(rc, c.rc);
    }
    EXPECT_EQ(zt::to_hex(reinterpret_cast<const uint8_t *>(&p), sizeof p),
              zt::to_hex(zt::Bytes(868, 0)));
}

TEST(CfgParse, CloseFailureOverridesTheResult)
{
    const std::string dir = zt::temp_dir();
    struct Case {
        std::string content;
        std::string out;
    } cases[] = {
        {"IMG_VER = 0x0102\n", REPORT + "IMG_VER = 0x0102\n"},
        {"IMG_VER = 0x01\n", wrong_char('\0') + "Error: parsing image version: 0x01\n"},
        {"", ""},
    };
    for (const Case &c : cases) {
        const std::string path = dir + "/c.cfg";
        zt::write_file(path, c.content);
        ImgProtParam p;
        memset(&p, 0, sizeof p);
        int32_t rc = 0;
        const std::string out = zt::capture_stdout([&] {
            g_fail_next_fclose = true;
            rc = iProcZIRNImgProtCfgFileV10(path.c_str(), &p);
            g_fail_next_fclose = false;
        });
        EXPECT_EQ(rc, -3);
        EXPECT_EQ(out, c.out + "Error: fail to close file (" + path + ")\n");
    }
}

TEST(HexConv, ResultCodesAndMessages)
{
    struct Case {
        const char *name;
        std::string str;  // "<null>" for a null pointer
        bool null_buf;
        int32_t len;
        int32_t rc;
        std::string out;
        std::string buf;  // hex of the 4-byte destination afterwards (starts eeeeeeee)
    } cases[] = {
        {"null text", "<null>", false, 1, -1, BAD_PARAM, "eeeeeeee"},
        {"null buffer", "0x00", true, 1, -1, BAD_PARAM, "eeeeeeee"},
        {"negative length", "0x00", false, -1, -1, BAD_PARAM, "eeeeeeee"},
        {"empty text", "", false, 1, -2, bad_prefix('\0'), "eeeeeeee"},
        {"no 0", "x0102", false, 1, -2, bad_prefix('x'), "eeeeeeee"},
        {"only 0", "0", false, 1, -3, bad_prefix('\0'), "eeeeeeee"},
        {"00", "00102", false, 1, -3, bad_prefix('0'), "eeeeeeee"},
        {"length 0", "0x", false, 0, 0, "", "eeeeeeee"},
        {"length 0 bad prefix", "1x", false, 0, -2, bad_prefix('1'), "eeeeeeee"},
        {"no digits", "0x", false, 1, -4, wrong_char('\0'), "eeeeeeee"},
        {"bad first digit", "0xg1", false, 1, -4, wrong_char('g'), "eeeeeeee"},
        {"bad low nibble", "0x1g", false, 1, -4, wrong_char('g'), "eeeeeeee"},
        {"partial", "0x1234g6", false, 3, -4, wrong_char('g'), "1234eeee"},
        {"lone high nibble", "0x123", false, 2, -4, wrong_char('\0'), "12eeeeee"},
        {"blank", "0x12 34", false, 2, -4, wrong_char(' '), "12eeeeee"},
        {"line feed", "0x12\n", false, 2, -4, wrong_char('\n'), "12eeeeee"},
        {"minus", "0x-1", false, 1, -4, wrong_char('-'), "eeeeeeee"},
        {"ok", "0x01ab", false, 2, 0, "", "01abeeee"},
        {"ok upper", "0XABCDEF01", false, 4, 0, "", "abcdef01"},
        {"mixed case", "0xaBcD", false, 2, 0, "", "abcdeeee"},
        {"trailing ignored", "0x0102abcd", false, 2, 0, "", "0102eeee"},
        {"trailing cr", "0x0102\r", false, 2, 0, "", "0102eeee"},
        {"digit boundaries", "0x09afAF", false, 3, 0, "", "09afafee"},
        {"just past digits", "0x/:@G`g", false, 1, -4, wrong_char('/'), "eeeeeeee"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        zt::Bytes buf(4, 0xee);
        int32_t rc = 99;
        const std::string out = zt::capture_stdout([&] {
            rc = iConvHexStrToValBuf(c.str == "<null>" ? nullptr : c.str.c_str(),
                                     c.null_buf ? nullptr : buf.data(), c.len);
        });
        EXPECT_EQ(rc, c.rc);
        EXPECT_EQ(out, c.out);
        EXPECT_EQ(zt::to_hex(buf), c.buf);
    }
    // Every character outside 0-9a-fA-F is refused as a digit.
    for (int ch = 1; ch < 256; ch++) {
        const bool hex = isxdigit(ch) != 0;
        const std::string s = "0x"s + char(ch) + "0";
        uint8_t b = 0xee;
        int32_t rc = 99;
        const std::string out = zt::capture_stdout([&] { rc = iConvHexStrToValBuf(s.c_str(), &b, 1); });
        EXPECT_EQ(rc, hex ? 0 : -4) << ch;
        EXPECT_EQ(out, hex ? "" : wrong_char(char(ch))) << ch;
    }
}

TEST(HexConv, RandomValuesRoundTrip)
{
    // Random bytes written as hex in random case with random trailing text
    // come back unchanged, and nothing beyond len bytes is touched.
    std::mt19937 rng(7);
    for (int iter = 0; iter < 2000; iter++) {
        const size_t n = rng() % 300;
        zt::Bytes want(n);
        for (auto &b : want) b = uint8_t(rng());
        std::string s = std::string("0") + (rng() & 1 ? 'x' : 'X') + zt::to_hex(want);
        for (size_t i = 2; i < s.size(); i++) {
            if (rng() & 1) s[i] = char(toupper(static_cast<unsigned char>(s[i])));
        }
        for (size_t t = rng() % 4; t > 0; t--) s += char(rng() % 255 + 1);
        zt::Bytes got(n + 1, 0x5a);
        int32_t rc = 99;
        const std::string out =
            zt::capture_stdout([&] { rc = iConvHexStrToValBuf(s.c_str(), got.data(), int32_t(n)); });
        ASSERT_EQ(rc, 0) << s;
        EXPECT_EQ(out, "");
        EXPECT_EQ(zt::Bytes(got.begin(), got.begin() + ptrdiff_t(n)), want);
        EXPECT_EQ(got[n], 0x5a);
    }
}

TEST(FileSize, ResultsAndMessages)
{
    const std::string dir = zt::temp_dir();
    const std::string empty = dir + "/empty.bin", normal = dir + "/normal.bin",
                      missing = dir + "/missing.bin";
    zt::write_file(empty, "");
    zt::write_file(normal, zt::Bytes(12345, 0x42));
    // A pipe cannot seek; reopening its read end by name does not block
    // because this process holds the write end.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const std::string pipe_path = "/proc/self/fd/" + std::to_string(fds[0]);
    struct Case {
        const char *path;
        uint32_t size;
        std::string out;
    } cases[] = {
        {nullptr, 0, "Error: No file name for getting file size\n"},
        {empty.c_str(), 0, ""},
        {normal.c_str(), 12345, ""},
        {missing.c_str(), 0, "Error: fail to open file (" + missing + ") for getting file size\n"},
        {pipe_path.c_str(), 0, "Error: fail to seek file (" + pipe_path + ") for getting file size\n"},
    };
    for (const Case &c : cases) {
        uint32_t size = 99;
        EXPECT_EQ(zt::capture_stdout([&] { size = ui4GetFileSz(c.path); }), c.out);
        EXPECT_EQ(size, c.size);
    }
    close(fds[0]);
    close(fds[1]);

    // A close failure discards the size already taken.
    uint32_t size = 99;
    const std::string out = zt::capture_stdout([&] {
        g_fail_next_fclose = true;
        size = ui4GetFileSz(normal.c_str());
        g_fail_next_fclose = false;
    });
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(out, "Error: fail to close file (" + normal + ") for getting file size\n");
}
