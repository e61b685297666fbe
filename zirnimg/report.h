// What zirnimg tells its caller: the exit status, messages on standard error, and with --json one
// JSON document on standard output whatever the outcome.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace zi {

// Exit statuses: one per kind of failure, the same in every command.  An interrupted command exits
// with 128 + the signal's number.
enum Exit : int {
    EXIT_OK = 0,
    EXIT_BAD_SIGNATURE = 1,  // the signature does not verify
    EXIT_USAGE = 2,          // wrong command line
    EXIT_KEY_MISMATCH = 3,   // the key is not the pinned one, or not the configuration's
    EXIT_BAD_IMAGE = 4,      // not a protected image, truncated, inconsistent; bad signature file
    EXIT_IO = 5,             // a file cannot be read or written, or is not a regular file
    EXIT_BAD_CONFIG = 6,     // the configuration is malformed or lacks a key the command needs
    EXIT_BAD_INPUT = 7,      // the plain image is empty, 4 GiB or larger, or does not fit the memory size
    EXIT_KEY_MODULE = 8,     // the PKCS#11 module cannot be loaded
    EXIT_KEY_TOKEN = 9,      // no token matches the key's URI
    EXIT_KEY_PIN = 10,       // the token refused the PIN, or the key file's passphrase is wrong
    EXIT_KEY_NOT_FOUND = 11, // no such key on the token, or the signing helper cannot be run
    EXIT_KEY_UNSUPPORTED = 12,  // the key is not RSA-2048 with exponent 65537, or has no private part
    EXIT_KEY_MECHANISM = 13,    // the token cannot sign RSA-PSS with SHA-256
    EXIT_SIGN_FAILED = 14,      // the token, helper or key failed to sign
    EXIT_UNAVAILABLE = 15,      // this build has no support for that key source
};

// The stable machine-readable name of an exit status ("bad_signature", ...).
const char *pcExitKind(int code);

// Prints "zirnimg: MESSAGE" on standard error, keeps the message for the JSON document, and
// returns code.
int iFail(int code, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// A warning: on standard error, and in the document's "warnings" list.
void vWarn(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// JSON values, as text.
std::string sJsonStr(const std::string &s);  // a string literal; bytes that are not UTF-8 become U+FFFD
std::string sHex(const uint8_t *p, size_t n);
std::string sJsonHex(const uint8_t *p, size_t n);
inline std::string sJsonBool(bool b) { return b ? "true" : "false"; }

// The document of this run: the command, then fields in the order added.
void vSetJson(bool on, const char *command);
bool bJson();
void vField(const char *key, const std::string &json_value);
// Extra members of the "error" object (e.g. a diagnosis).
void vErrorField(const char *key, const std::string &json_value);
// Writes the document for exit status rc to out (only in JSON mode).
void vPrintDocument(FILE *out, int rc);

// The real standard output, for results.  The library code's own reports on stdout go nowhere.
extern FILE *g_out;

}  // namespace zi
