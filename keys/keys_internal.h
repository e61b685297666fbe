// Module-internal pieces shared by the key sources: error making, file and secret reading, the
// raw-key signer that key files reuse.  Not part of the contract (keysource.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "keysource.h"

namespace zk::detail {

inline KeyError fail(KeyErr kind, std::string message) { return {kind, std::move(message)}; }

// n has exactly 2048 bits (its first byte has the top bit set).
inline bool is_2048(const uint8_t n[256]) { return (n[0] & 0x80) != 0; }

// A secret of at most 1023 characters in fixed storage, so that no copy is left in freed heap
// blocks; wiped on destruction.
struct Secret {
    char text[1024] = {};
    size_t len = 0;
    Secret() = default;
    Secret(const Secret &) = delete;
    Secret &operator=(const Secret &) = delete;
    ~Secret();
    bool append(char c);  // false when full
};

// A descriptor closed when it goes out of scope, on every way out.
struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd();
};

// Reads a regular file once, at most max bytes (else io); the caller wipes *out when secret.
KeyError read_file_once(const std::string &path, size_t max, std::vector<uint8_t> *out);
// The first line of "file:PATH", the variable of "env:VAR", or (pass empty) a line typed without
// echo on the terminal after prompt when standard input is a terminal.  what names the secret in
// messages ("passphrase of KEY", "PIN of token T").
KeyError get_secret(const std::string &pass, const std::string &what, Secret *out);
// Reads a line from the terminal without echo.
KeyError prompt_secret(const std::string &what, Secret *out);

// The raw-key signer, described as desc (key files end up here once decoded); d null: a public
// key that cannot sign.
std::unique_ptr<Key> make_raw_key(const uint8_t n[256], const uint8_t *d, std::string desc);

KeyError open_pkcs11(const std::string &uri, const KeyOptions &opt, std::unique_ptr<Key> *out);
KeyError open_keyfile(const std::string &path, const KeyOptions &opt, std::unique_ptr<Key> *out);

}  // namespace zk::detail
