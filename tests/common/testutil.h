// Helpers shared by every test program.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zt {

using Bytes = std::vector<uint8_t>;

// Everything fn writes to standard output (printf and friends).
std::string capture_stdout(const std::function<void()> &fn);
// fn's result and what it printed.
template <class F>
auto printed(F fn)
{
    std::invoke_result_t<F> r{};
    std::string out = capture_stdout([&] { r = fn(); });
    return std::pair(r, out);
}

Bytes from_hex(const std::string &hex);
std::string to_hex(const uint8_t *p, size_t n);
inline std::string to_hex(const Bytes &b) { return to_hex(b.data(), b.size()); }
// n random bytes; the data pointer is never null (null means "absent" to the code under test).
Bytes random_bytes(std::mt19937_64 &rng, size_t n);
inline Bytes slice(const Bytes &b, size_t off, size_t n)
{
    return Bytes(b.begin() + long(off), b.begin() + long(off + n));
}

// A JSON file of tests/vectors.
nlohmann::json load_vectors(const std::string &name);
// The rows of a text file of tests/vectors: one a line, words as in a shell ("..." quotes one),
// '#' and blank lines skipped, each name of vars (such as "$D") replaced by its value first; the
// lines after a row that start with "| " are its text, one more word (each line's rest and a LF).
using Words = std::vector<std::string>;
using Vars = std::map<std::string, std::string>;
std::vector<Words> load_rows(const std::string &name, const Vars &vars);

// A fresh empty directory, removed when the program ends.
std::string temp_dir();
void write_file(const std::string &path, const std::string &content);
inline void write_file(const std::string &path, const Bytes &b)
{
    write_file(path, std::string(b.begin(), b.end()));
}
Bytes read_file(const std::string &path);
bool file_exists(const std::string &path);

// The allocator of programs linked with common/alloc_hooks.cpp and -Wl,--wrap=malloc,--wrap=calloc,
// --wrap=free: allocation number fail_at fails (0: none), held() blocks are not released yet, and
// dirty counts the blocks released without having been overwritten with zeros.
struct AllocHooks {
    uint64_t calls = 0, fail_at = 0, dirty = 0;
    void fail_nth(uint64_t n) { fail_at = n ? calls + n : 0; }
    size_t held() const;
};
extern AllocHooks g_alloc;

// Runs an executable (through the command in ZIRN_TEST_RUNNER when set), calling meanwhile with
// its process id before waiting for it; status is the exit status, or -1 if it did not exit
// normally.
struct Run {
    int status;
    std::string out, err;
};
Run run(const std::string &exe, const std::vector<std::string> &args,
        const std::function<void(pid_t)> &meanwhile = {});

}  // namespace zt
