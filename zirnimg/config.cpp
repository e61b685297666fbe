#include "config.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "files.h"
#include "report.h"
#include "workbuf.h"

namespace zi {

namespace {

// The signer reads lines into a buffer of 4096 bytes: at most 4095 characters with the line end.
constexpr size_t MAX_LINE = 4095;
// Far more than five keys need; a larger file is not a configuration.
constexpr size_t MAX_CONFIG = 64 * 1024;

struct Key {
    std::string_view name;
    size_t offset;
    uint32_t bytes, seen;
};
constexpr Key KEYS[] = {
    {"IMG_VER", offsetof(ImgProtParam, hdr) + offsetof(ImgProtHdr, img_ver), 2, IMG_VER_SEEN},
    {"ENC_PARAM", offsetof(ImgProtParam, enc_iv), 32, ENC_PARAM_SEEN},
    {"DEC_PARAM", offsetof(ImgProtParam, hdr) + offsetof(ImgProtHdr, dec_param), 32, DEC_PARAM_SEEN},
    {"AUTH_PARAM_N", offsetof(ImgProtParam, hdr) + offsetof(ImgProtHdr, auth_n), 256, AUTH_PARAM_N_SEEN},
    {"AUTH_PARAM_D", offsetof(ImgProtParam, auth_d), 256, AUTH_PARAM_D_SEEN},
};
static_assert(offsetof(ImgProtParam, enc_key) == offsetof(ImgProtParam, enc_iv) + 16);

int iHexVal(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// "0x" and exactly 2 * bytes hex digits; the value itself is never echoed.
bool bDecodeHex(std::string_view v, uint8_t *dst, uint32_t bytes)
{
    if (v.size() != 2 + 2 * size_t(bytes) || v[0] != '0' || (v[1] != 'x' && v[1] != 'X')) return false;
    for (uint32_t i = 0; i < bytes; i++) {
        const int hi = iHexVal(v[2 + 2 * i]), lo = iHexVal(v[3 + 2 * i]);
        if (hi < 0 || lo < 0) return false;
        dst[i] = uint8_t(hi << 4 | lo);
    }
    return true;
}

// The words of a line, blank-separated as the signer splits them; a '#' word ends the line.
size_t lzWords(std::string_view line, std::string_view words[4])
{
    size_t n = 0;
    for (size_t i = 0; i < line.size() && n < 4;) {
        if (line[i] == ' ') {
            i++;
            continue;
        }
        const size_t end = std::min(line.find(' ', i), line.size());
        if (line[i] == '#') break;
        words[n++] = line.substr(i, end - i);
        i = end;
    }
    return n;
}

int iParseLine(const char *path, unsigned no, std::string_view line, ImgProtParam *param, unsigned first_line[])
{
    std::string_view w[4];
    const size_t n = lzWords(line, w);
    if (n == 0) return EXIT_OK;
    const Key *key = nullptr;
    for (const Key &k : KEYS) {
        if (w[0].substr(0, k.name.size()) == k.name) key = &k;
    }
    if (key == nullptr) return EXIT_OK;  // unknown keys are ignored, as the signer does
    const size_t idx = size_t(key - KEYS);
    const std::string word(key->name);
    if (w[0] != key->name) {
        // The word is shown only when it cannot hold a value: a name, no "0X", not overly long.
        const bool name = w[0].size() <= 40 && w[0].find("0X") == std::string_view::npos &&
                          w[0].find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_") == std::string_view::npos;
        return iFail(EXIT_BAD_CONFIG, "%s: line %u: %s%s%s is not a key, but the signer would read it as %s", path, no,
                     name ? "\"" : "a word that begins with ", name ? std::string(w[0]).c_str() : word.c_str(), name ? "\"" : "",
                     word.c_str());
    }
    if (first_line[idx] != 0)
        return iFail(EXIT_BAD_CONFIG, "%s: line %u: %s again (first on line %u)", path, no, word.c_str(), first_line[idx]);
    if (n != 3 || w[1] != "=" || !bDecodeHex(w[2], reinterpret_cast<uint8_t *>(param) + key->offset, key->bytes))
        return iFail(EXIT_BAD_CONFIG, "%s: line %u: %s takes \"= 0x\" and %u hex digits", path, no, word.c_str(), 2 * key->bytes);
    first_line[idx] = no;
    vPutLE32(param->keys_seen, ui4GetLE32(param->keys_seen) | key->seen);
    return EXIT_OK;
}

}  // namespace

int iLoadConfig(const char *path, ImgProtParam *param, uint32_t need)
{
    vInitImgProtParamV10(param);
    SecretText file;
    int rc = iReadSecretText(path, MAX_CONFIG, EXIT_BAD_CONFIG, &file);
    if (rc != EXIT_OK) return rc;
    if (memchr(file.text, '\0', file.len) != nullptr) return iFail(EXIT_BAD_CONFIG, "%s: not a text file", path);
    unsigned first_line[std::size(KEYS)] = {};
    const std::string_view text(file.text, file.len);
    unsigned no = 1;
    for (size_t start = 0; start < text.size() && rc == EXIT_OK; start = std::min(text.find('\n', start), text.size()) + 1, no++) {
        std::string_view line = text.substr(start, text.find('\n', start) - start);
        if (line.size() + 1 > MAX_LINE)
            return iFail(EXIT_BAD_CONFIG, "%s: line %u: longer than %zu characters (the signer would read its tail as a line of its own)",
                         path, no, MAX_LINE - 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        rc = iParseLine(path, no, line, param, first_line);
    }
    if (rc != EXIT_OK) return rc;
    for (const Key &k : KEYS) {
        if ((need & k.seen) && !(ui4GetLE32(param->keys_seen) & k.seen))
            return iFail(EXIT_BAD_CONFIG, "%s: no %.*s", path, int(k.name.size()), k.name.data());
    }
    return EXIT_OK;
}

namespace {

char g_library_buf[16384];

ssize_t lzDiscard(void *, const char *, size_t n) { return ssize_t(n); }

}  // namespace

bool bSilenceLibraryOutput()
{
    FILE *sink = fopencookie(nullptr, "w", cookie_io_functions_t{nullptr, lzDiscard, nullptr, nullptr});
    if (sink == nullptr) return false;
    setvbuf(sink, g_library_buf, _IOFBF, sizeof g_library_buf);
    stdout = sink;
    atexit(vWipeLibraryOutput);
    return true;
}

void vWipeLibraryOutput()
{
    fflush(stdout);
    vWipeBuf(g_library_buf, sizeof g_library_buf);
}

}  // namespace zi
