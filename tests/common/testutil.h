// Small helpers shared by the test programs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zt {

using Bytes = std::vector<uint8_t>;

// Runs fn with file descriptor 1 redirected to a temporary file and returns
// everything written to standard output meanwhile (printf and friends).
std::string capture_stdout(const std::function<void()> &fn);

Bytes from_hex(const std::string &hex);
std::string to_hex(const uint8_t *p, size_t n);
inline std::string to_hex(const Bytes &b) { return to_hex(b.data(), b.size()); }

// Parsed JSON vector file from the shared vectors folder.
nlohmann::json load_vectors(const std::string &file_name);

// A fresh empty directory under the system temp folder, removed at exit.
std::string temp_dir();
void write_file(const std::string &path, const std::string &content);
void write_file(const std::string &path, const Bytes &content);
Bytes read_file(const std::string &path);
bool file_exists(const std::string &path);

}  // namespace zt
