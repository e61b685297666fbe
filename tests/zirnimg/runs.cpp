#include "runs.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <map>

#include "oracle.h"

namespace fs = std::filesystem;

namespace zt {

Run z(const std::vector<std::string> &args) { return run(ZIRNIMG_EXE, args); }

std::string write_cfg(const std::string &path, int k, bool public_only)
{
    std::string text = cfg_text({1, 2}, Bytes(16, 0xA7), kAesKey, Bytes(32, 3), test_key(k));
    if (public_only) text.erase(text.find("AUTH_PARAM_D"));  // builds that never hold the key
    return write_file(path, text), text;
}

bool holds(const std::string &text, const Bytes &secret)
{
    std::string lower = text;
    for (auto &ch : lower) ch = char(tolower(ch));
    return has(lower, to_hex(secret).substr(0, 16));
}

void expect_run(const std::vector<std::string> &args, int status, const std::string &message,
                const std::string &key_hash, const std::function<void(const Run &)> &check)
{
    static const std::map<std::string, std::vector<const char *>> documented = {
        {"info", {"file", "magic", "key_hash", "signed", "consistent", "problems"}},
        {"verify", {"file", "pinned", "key_hash", "signature"}},
        {"decrypt", {"output", "plain_size"}}, {"pubhash", {"key_hash"}},
        {"prepare", {"unsigned_image", "digest"}}, {"stitch", {"output"}},
        {"sign", {"output", "key", "key_hash", "digest"}},
        {"keycfg", {"output", "key", "key_hash", "private_exponent"}}};
    static const char *const kinds[] = {"ok", "bad_signature", "usage", "key_mismatch",  // by code
        "bad_image", "io", "bad_config", "bad_input", "key_module", "key_token", "key_pin",
        "key_not_found", "key_unsupported", "key_mechanism", "sign_failed", "unavailable"};
    const fs::path home = fs::current_path();
    umask(022);
    const std::string row = testing::PrintToString(args);
    for (bool json : {false, true}) {
        fs::current_path(temp_dir());
        write_file("kept.cfg", "kept\n");
        std::vector<std::string> a = args;
        if (json) a.push_back("--json");
        const Run r = z(a);
        EXPECT_EQ(r.status, status) << row << "\n" << r.err;
        EXPECT_TRUE(json || has(r.err, message)) << row << "\n" << r.err;  // --json may be a value
        EXPECT_EQ(status == 0 && message.empty(), r.err.empty()) << row << "\n" << r.err;
        EXPECT_FALSE(holds(r.out + r.err, kAesKey) || holds(r.out + r.err, test_key(0).d)) << row;
        const bool alone = std::distance(fs::directory_iterator("."), {}) == 1;
        EXPECT_TRUE(r.status == 0 || (alone && read_file("kept.cfg").size() == 5)) << row << "left";
        // A success's outputs: owner-only where they hold secrets, readable by all otherwise.
        const bool secret = !args.empty() && (args[0] == "decrypt" || args[0] == "keycfg");
        const auto mode = secret ? fs::perms::owner_read | fs::perms::owner_write : fs::perms(0644);
        for (const auto &e : fs::directory_iterator(".")) {
            const bool untouched = e.path() == "./kept.cfg" && read_file("kept.cfg").size() == 5;
            if (r.status != 0 || untouched) continue;
            EXPECT_EQ(e.status().permissions(), mode) << row << e.path();
        }
        if (r.status == 0 && check) check(r);
        fs::current_path(home);
        const bool text = !args.empty() && (args.back() == "--help" || args[0][0] == '-');
        EXPECT_FALSE(text && has(r.out, "format_version")) << row;  // help and version: text only
        if (!json || text) continue;
        auto doc = nlohmann::json::parse(r.out);
        auto error = doc.value("error", nlohmann::json::object());
        const bool named = !args.empty() && args[0] != "bogus";
        EXPECT_EQ(std::tuple(doc["format_version"], doc["exit_code"], doc["warnings"].is_array()),
                  std::tuple(1, status, true)) << r.out;
        EXPECT_EQ(std::tuple(doc["command"], doc.contains("error"), error.contains("diagnosis")),
                  std::tuple(named ? nlohmann::json(args[0]) : nlohmann::json(), status != 0,
                             status == 1)) << r.out;
        EXPECT_EQ(r.out.find('\n'), r.out.size() - 1) << r.out;
        if (status == 0) {
            for (const char *key : documented.at(args[0])) EXPECT_TRUE(doc.contains(key)) << key;
            EXPECT_TRUE(key_hash.empty() || doc["key_hash"] == key_hash) << r.out;
            EXPECT_TRUE(args[0] != "info" || doc["consistent"] == doc["problems"].empty()) << r.out;
            continue;
        }
        // standard error's message, escaped (what is not UTF-8 replaced)
        const std::string msg = error.value("message", "");
        EXPECT_TRUE(error["exit_code"] == status && error["kind"] == kinds[status] &&
                    !msg.empty() && (has(r.err, msg) || has(msg, "\uFFFD"))) << r.err << r.out;
    }
}

}  // namespace zt
