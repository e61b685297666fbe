// Where the companion's signing key comes from: the configuration's own (n, d), a key file, a
// PKCS#11 token through p11-kit, or an external signing helper program.  Every source signs with
// RSASSA-PSS, SHA-256, MGF1-SHA-256 and a 32-byte salt over RSA-2048 keys with e = 65537.
// Nothing here verifies a signature: the caller checks each one through the project's own route.
// No function prints; failures come back as a KeyError whose message never holds a secret.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace zk {

enum class KeyErr {
    ok = 0,
    io,               // a key, PIN or passphrase file cannot be read (or is not a regular file)
    usage,            // malformed URI, helper command or --pass form; no PIN/passphrase and no terminal
    module,           // the PKCS#11 module cannot be loaded, or none is configured
    token,            // no token matches the URI, or more than one does
    pin,              // the token refused the PIN (never retried: its lockout counter matters), or a
                      // wrong passphrase for an encrypted key file
    not_found,        // no key object matches (or several do), or the helper cannot be started
    unsupported_key,  // not RSA-2048 with e = 65537, not a key at all, or no private part where one
                      // is needed
    mechanism,        // the token has neither CKM_RSA_PKCS_PSS nor CKM_SHA256_RSA_PKCS_PSS for signing
    sign_failed,      // the signer failed, or returned a wrong length or a nonzero status
    unavailable,      // this build has no support for that key source (p11-kit or libcrypto missing)
};

struct KeyError {
    KeyErr kind = KeyErr::ok;
    std::string message;  // one line, no secrets; empty when kind is ok
    // true when it failed: `if (KeyError err = ...) return err;`
    explicit operator bool() const { return kind != KeyErr::ok; }
};

struct KeyOptions {
    // The passphrase of an encrypted key file, and the token PIN when the URI gives none:
    // "env:VAR" or "file:PATH" (first line of the file).  Empty: asked for without echo on the
    // terminal when standard input is one, else the open fails (KeyErr::usage).
    std::string pass;
    // false: only the modulus is needed (a public key file or token object will do, and a token
    // is logged in only if its key is not visible without).
    bool need_private = true;
};

// One open key.  The destructor closes sessions, releases modules and wipes private parts.
class Key {
public:
    Key(const Key &) = delete;
    Key &operator=(const Key &) = delete;
    virtual ~Key() = default;

    const uint8_t *modulus() const { return n_; }  // 256 bytes, big-endian, top bit set
    virtual bool can_sign() const = 0;
    // RSASSA-PSS signature of the message whose SHA-256 is digest.  message holds the pieces of
    // the whole message, in order, for tokens that can only hash it themselves; other sources
    // sign the digest alone.  sig: 256 bytes, big-endian.
    virtual KeyError sign(const uint8_t digest[32], const std::vector<std::span<const uint8_t>> &message,
                          uint8_t sig[256]) = 0;
    virtual std::string describe() const = 0;  // e.g. "PKCS#11 key k1 on token zirn"
    // Copies the private exponent (big-endian, 256 bytes) to d, for writing a configuration from a
    // key file; false where it never leaves its holder (token, helper) or there is none.
    virtual bool export_private_exponent(uint8_t d[256]) const
    {
        (void)d;
        return false;
    }

protected:
    Key() = default;
    uint8_t n_[256] = {};
};

// source: a PKCS#11 URI (starting with "pkcs11:") or the path of a key file (PEM or DER; PKCS#1,
// PKCS#8 (also encrypted) or a public key).  On failure *out is left empty.
KeyError open_key(const std::string &source, const KeyOptions &opt, std::unique_ptr<Key> *out);

// A signing helper: cmd is split on blanks into the program and its arguments (no shell; a
// program without '/' is looked up in PATH) and the key's fingerprint (lower-case hex SHA-256 of
// n) is appended as the last argument.  Per signature the helper reads exactly the 32-byte digest
// on standard input, writes exactly the 256-byte signature on standard output and exits with
// status 0; its standard error is ours.  n: the modulus the helper's key must have.
KeyError open_helper_key(const std::string &cmd, const uint8_t n[256], std::unique_ptr<Key> *out);

// The configuration's own key (AUTH_PARAM_N / AUTH_PARAM_D): both copied, wiped on destruction.
KeyError open_raw_key(const uint8_t n[256], const uint8_t d[256], std::unique_ptr<Key> *out);

// The key sources this build has, for --version and the build summary.
bool pkcs11_available();
bool keyfile_available();

}  // namespace zk
