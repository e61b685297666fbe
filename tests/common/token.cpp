#include "token.h"

#include <glob.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <tuple>

#include "keysource.h"

namespace zt {

namespace {

std::string first_match(const std::string &pattern)
{
    glob_t g{};
    std::string r = glob(pattern.c_str(), 0, nullptr, &g) == 0 ? g.gl_pathv[0] : "";
    globfree(&g);
    return r;
}

}  // namespace

void sh(const std::string &exe, const std::vector<std::string> &args)
{
    const Run r = run(exe, args);
    ASSERT_EQ(r.status, 0) << exe << ": " << r.err;
}

Token::Token() : dir(temp_dir())
{
    module = first_match("/usr/lib/*/softhsm/libsofthsm2.so");
    client = first_match("/usr/lib/*/pkcs11/p11-kit-client.so");
    const std::string server_exe = "/usr/libexec/p11-kit/p11-kit-server";
    if (!zk::pkcs11_available() || module.empty() || client.empty() ||
        access(server_exe.c_str(), X_OK) != 0 || access("/usr/bin/softhsm2-util", X_OK) != 0 ||
        access("/usr/bin/pkcs11-tool", X_OK) != 0) {
        skip = "needs p11-kit, SoftHSM2 and OpenSC's pkcs11-tool (scripts/install-deps.sh)";
        return;
    }
    conf = "directories.tokendir = " + dir + "\nobjectstore.backend = file\nlog.level = ERROR\n";
    write_file(dir + "/softhsm2.conf", conf);
    setenv("SOFTHSM2_CONF", (dir + "/softhsm2.conf").c_str(), 1);
    sh("/usr/bin/softhsm2-util",
       {"--init-token", "--free", "--label", "zirn", "--so-pin", "87654321", "--pin", "123456"});
    for (auto [k, id, name] : {std::tuple{"rsa:2048", "01", "k1"}, {"rsa:1024", "02", "small"}})
        sh("/usr/bin/pkcs11-tool", {"--module", module, "--login", "--pin", "123456",
                                    "--keypairgen", "--key-type", k, "--id", id, "--label", name});
    // small keeps only its private half: commands that need the modulus alone log in to find it
    sh("/usr/bin/pkcs11-tool", {"--module", module, "--login", "--pin", "123456",
                                "--delete-object", "--type", "pubkey", "--label", "small"});
    server = fork();
    if (server == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);  // never outlives the test program
        if (freopen("/dev/null", "w", stdout) == nullptr) _exit(127);
        execl(server_exe.c_str(), "p11-kit-server", "-f", "--provider", module.c_str(), "-n",
              (dir + "/sock").c_str(), "pkcs11:token=zirn", nullptr);
        _exit(127);
    }
    for (int i = 0; i < 200 && !file_exists(dir + "/sock"); i++) usleep(50000);
    setenv("P11_KIT_SERVER_ADDRESS", ("unix:path=" + dir + "/sock").c_str(), 1);
}

Token::~Token()
{
    if (server <= 0) return;
    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
}

Token &token()
{
    static Token t;
    return t;
}

}  // namespace zt
