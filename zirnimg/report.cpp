#include "report.h"

#include <cstdarg>
#include <utility>
#include <vector>

namespace zi {

FILE *g_out = nullptr;

namespace {

// JSON format version: bumped when a member changes meaning or goes away.
constexpr int FORMAT_VERSION = 1;

struct Document {
    bool json = false;
    std::string command;
    std::vector<std::pair<std::string, std::string>> fields, error_fields;
    std::vector<std::string> warnings;
    std::string error;
} g_doc;

constexpr const char *KINDS[] = {"ok", "bad_signature", "usage", "key_mismatch", "bad_image", "io", "bad_config",
                                 "bad_input", "key_module", "key_token", "key_pin", "key_not_found",
                                 "key_unsupported", "key_mechanism", "sign_failed", "unavailable"};
static_assert(std::size(KINDS) == EXIT_UNAVAILABLE + 1);

std::string sFormat(const char *fmt, va_list ap)
{
    char buf[2048];
    vsnprintf(buf, sizeof buf, fmt, ap);
    return buf;
}

// Length of the UTF-8 sequence at s[i], or 0 when it is not well formed.
size_t lzUtf8Len(const std::string &s, size_t i)
{
    const unsigned char c = s[i];
    const size_t n = c < 0x80 ? 1 : c >= 0xC2 && c < 0xE0 ? 2 : c >= 0xE0 && c < 0xF0 ? 3 : c >= 0xF0 && c < 0xF5 ? 4 : 0;
    if (n == 0 || i + n > s.size()) return 0;
    for (size_t k = 1; k < n; k++) {
        if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return 0;
    }
    const unsigned char c1 = s[i + 1];
    if ((c == 0xE0 && c1 < 0xA0) || (c == 0xED && c1 >= 0xA0) || (c == 0xF0 && c1 < 0x90) || (c == 0xF4 && c1 >= 0x90))
        return 0;  // overlong, surrogate or beyond U+10FFFF
    return n;
}

std::string sMembers(const std::vector<std::pair<std::string, std::string>> &fields)
{
    std::string r;
    for (const auto &[key, value] : fields) r += ", " + sJsonStr(key) + ": " + value;
    return r;
}

}  // namespace

const char *pcExitKind(int code)
{
    if (code >= 0 && code < int(std::size(KINDS))) return KINDS[code];
    return code > 128 ? "interrupted" : "unknown";
}

int iFail(int code, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const std::string msg = sFormat(fmt, ap);
    va_end(ap);
    fprintf(stderr, "zirnimg: %s\n", msg.c_str());
    if (code != EXIT_OK) g_doc.error = msg;
    return code;
}

void vWarn(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const std::string msg = sFormat(fmt, ap);
    va_end(ap);
    fprintf(stderr, "zirnimg: warning: %s\n", msg.c_str());
    g_doc.warnings.push_back(msg);
}

std::string sJsonStr(const std::string &s)
{
    std::string r = "\"";
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = s[i];
        const size_t n = lzUtf8Len(s, i);
        if (c == '"' || c == '\\') {
            r += {'\\', char(c)};
        } else if (c < 0x20 || c == 0x7f) {
            char esc[8];
            snprintf(esc, sizeof esc, "\\u%04x", c);
            r += esc;
        } else if (n == 0) {
            r += "\\ufffd";
        } else {
            r.append(s, i, n);
        }
        i += n == 0 ? 1 : n;
    }
    return r + "\"";
}

std::string sHex(const uint8_t *p, size_t n)
{
    std::string s;
    for (size_t i = 0; i < n; i++) s += {"0123456789abcdef"[p[i] >> 4], "0123456789abcdef"[p[i] & 15]};
    return s;
}

std::string sJsonHex(const uint8_t *p, size_t n)
{
    std::string r(1, '"');
    return r.append(sHex(p, n)).append(1, '"');
}

void vSetJson(bool on, const char *command)
{
    g_doc.json = on;
    g_doc.command = command != nullptr ? command : "";
}

bool bJson() { return g_doc.json; }

void vField(const char *key, const std::string &json_value) { g_doc.fields.emplace_back(key, json_value); }

void vErrorField(const char *key, const std::string &json_value) { g_doc.error_fields.emplace_back(key, json_value); }

void vPrintDocument(FILE *out, int rc)
{
    if (!g_doc.json) return;
    std::string doc = "{\"format_version\": " + std::to_string(FORMAT_VERSION) + ", \"command\": " +
                      (g_doc.command.empty() ? "null" : sJsonStr(g_doc.command)) + ", \"exit_code\": " + std::to_string(rc);
    doc += sMembers(g_doc.fields);
    std::string warnings;
    for (const std::string &w : g_doc.warnings) warnings += (warnings.empty() ? "" : ", ") + sJsonStr(w);
    doc += ", \"warnings\": [" + warnings + "]";
    if (rc != EXIT_OK) {
        doc += ", \"error\": {\"exit_code\": " + std::to_string(rc) + ", \"kind\": " + sJsonStr(pcExitKind(rc)) +
               ", \"message\": " + sJsonStr(g_doc.error) + sMembers(g_doc.error_fields) + "}";
    }
    fprintf(out, "%s}\n", doc.c_str());
}

}  // namespace zi
