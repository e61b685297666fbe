// zirnimg as its tests run it, and the checks every row of their tables gets.
#pragma once

#include <functional>

#include "testutil.h"

namespace zt {

// The AES key of every configuration these tests make: no output may hold it.
inline const Bytes kAesKey(16, 0x5C);
// Writes the configuration of test key k to path, without AUTH_PARAM_D when public; gives its text.
std::string write_cfg(const std::string &path, int k = 0, bool public_only = false);

Run z(const std::vector<std::string> &args);
inline bool has(const std::string &s, const std::string &piece) { return s.find(piece) != s.npos; }
// text holds the start of secret, in hex of either case.
bool holds(const std::string &text, const Bytes &secret);

// Runs zirnimg with args, then with args and --json, each in a fresh folder holding only kept.cfg:
// the status; message on standard error (nothing there on a plain success); no secret in any
// output; a failure leaves the folder as it was; a success's outputs owner-only exactly where
// they hold secrets (umask 022), check judging the rest.  --json: one document on one line, with
// the documented members on success (key_hash when given), else the error's kind and standard
// error's message, and a diagnosis exactly when the signature does not verify.
void expect_run(const std::vector<std::string> &args, int status, const std::string &message,
                const std::string &key_hash = "",
                const std::function<void(const Run &)> &check = {});

}  // namespace zt
