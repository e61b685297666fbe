#include "token.h"

#include <glob.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <dlfcn.h>

#include <cstdio>
#include <tuple>

#include "keysource.h"
#include "oracle.h"
#if __has_include(<p11-kit-1/p11-kit/pkcs11.h>)
#include <p11-kit-1/p11-kit/pkcs11.h>
#endif

namespace zt {

namespace {

std::string first_match(const std::string &pattern)
{
    glob_t g{};
    std::string r = glob(pattern.c_str(), 0, nullptr, &g) == 0 ? g.gl_pathv[0] : "";
    globfree(&g);
    return r;
}

// Adds "padded": the development key's public half with a zero byte before its modulus and its
// exponent, as some tokens give them.
void add_padded_key([[maybe_unused]] const std::string &module)
{
#ifdef CKA_MODULUS
    CK_FUNCTION_LIST *f = nullptr;
    const auto get = (CK_C_GetFunctionList)dlsym(dlopen(module.c_str(), RTLD_NOW),
                                                 "C_GetFunctionList");
    CK_SLOT_ID slot[8];  // the token first, then the free slot
    CK_ULONG count = 8, cls = CKO_PUBLIC_KEY, type = CKK_RSA, s = 0;
    CK_BBOOL yes = CK_TRUE;
    Bytes n = test_key(0).n, e = {0, 1, 0, 1}, label = {'p', 'a', 'd', 'd', 'e', 'd'};
    n.insert(n.begin(), 0);
    CK_ATTRIBUTE a[] = {{CKA_CLASS, &cls, sizeof cls}, {CKA_KEY_TYPE, &type, sizeof type},
                        {CKA_TOKEN, &yes, 1}, {CKA_LABEL, label.data(), 6},
                        {CKA_MODULUS, n.data(), n.size()}, {CKA_PUBLIC_EXPONENT, e.data(), 4}};
    ASSERT_TRUE(get && get(&f) == CKR_OK && f->C_Initialize(nullptr) == CKR_OK);
    EXPECT_TRUE(f->C_GetSlotList(CK_TRUE, slot, &count) == CKR_OK &&
                f->C_OpenSession(slot[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr,
                                 &s) == CKR_OK && f->C_CreateObject(s, a, 6, &count) == CKR_OK);
    f->C_Finalize(nullptr);
#endif
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
    add_padded_key(module);
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
