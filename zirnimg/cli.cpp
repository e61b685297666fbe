// zirnimg: the signer's companion.  Shows and checks protected images, verifies their signature
// against a pinned key, decrypts them, and splits signing in two (prepare, stitch) so that the
// private key can stay in the hardware that holds it.  Results (and --json) go to standard
// output, messages to standard error; the exit status says which kind of failure occurred.
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <string>

#include "commands.h"
#include "config.h"
#include "keysource.h"
#include "report.h"
#include "zirn_revision.h"

namespace zi {

namespace {

const char *const USAGE =
    "usage: zirnimg [--help] [--version] <command> [<args>]\n"
    "\n"
    "commands:\n"
    "  info IMAGE [--json]                          show and check the header of a protected image\n"
    "  verify IMAGE (--key-hash HEX | --cfg CFG | --key KEY | --no-pin) [--json]\n"
    "                                               check the signature, pinned to a key\n"
    "  decrypt IMAGE --cfg CFG -o PLAIN [--json]    verify against CFG's key, then write the plain image\n"
    "  pubhash (--cfg CFG | --key KEY) [--json]     print the fingerprint of a key, to pin it\n"
    "  sign CFG IN OUT SZ [--key KEY | --signing-helper CMD] [--json]\n"
    "                                               protect and sign IN with any key source\n"
    "  keycfg --key KEY -o CFG [--public-only] [--json]\n"
    "                                               write a configuration for a key\n"
    "  prepare CFG IN OUT SZ [--digest-out FILE] [--json]\n"
    "                                               protect IN without signing; print the digest to sign\n"
    "  stitch UNSIGNED SIG -o OUT [--json]          insert a signature made elsewhere, verify, write\n"
    "\n"
    "KEY: a PKCS#11 URI (pkcs11:token=...;object=...) or a key file (PEM or DER).\n"
    "\n"
    "exit status: 0 success, 1 bad signature, 2 wrong usage, 3 key does not match the pin or the\n"
    "configuration, 4 malformed image or signature file, 5 file not readable or writable, 6 bad\n"
    "configuration, 7 plain image empty, too large or larger than the memory size, 8 PKCS#11 module\n"
    "not loaded, 9 token not found, 10 wrong PIN or passphrase, 11 key or signing helper not found,\n"
    "12 key not RSA-2048 with exponent 65537, 13 token lacks RSA-PSS, 14 signing failed, 15 key\n"
    "source not in this build, 128+N interrupted by signal N\n";

// Options that take a value, and where each command's goes.
struct ValueOption {
    const char *name;
    const char *Args::*field;
};
constexpr ValueOption VALUE_OPTIONS[] = {
    {"--cfg", &Args::cfg}, {"--key-hash", &Args::key_hash}, {"-o", &Args::out}, {"--key", &Args::key},
    {"--signing-helper", &Args::helper}, {"--pass", &Args::pass}, {"--digest-out", &Args::digest_out},
    {"--img-ver", &Args::img_ver}, {"--dec-param", &Args::dec_param}, {"--enc-param", &Args::enc_param}};
struct FlagOption {
    const char *name;
    bool Args::*field;
};
constexpr FlagOption FLAG_OPTIONS[] = {{"--json", &Args::json}, {"--help", &Args::help}, {"-h", &Args::help},
                                       {"--no-pin", &Args::no_pin}, {"--public-only", &Args::public_only},
                                       {"--force", &Args::force}};

struct Command {
    const char *name, *synopsis, *help;
    size_t positional;
    const char *operands;  // what the positional arguments are, for the usage error
    const char *options;   // the options it takes, blank-separated (--json and --help always)
    int (*run)(const Args &);
};
const Command COMMANDS[] = {
    {"info", "info IMAGE [--json]",
     "Shows every header field of IMAGE by name (the modulus as its SHA-256 fingerprint) and checks\n"
     "the file: magic, header size 576, encrypted size a multiple of 16 and at least the plain size,\n"
     "file size 576 + encrypted size.  Exit status 4 when a check fails.\n",
     1, "one file", "", iInfo},
    {"verify", "verify IMAGE (--key-hash HEX | --cfg CFG | --key KEY | --no-pin) [--pass SRC] [--json]",
     "Recomputes the SHA-256 of the header (signature field zeroed) and the ciphertext, and checks\n"
     "the RSA-PSS signature with the image's modulus through the signer's own verification route.\n"
     "A modulus carried by the image proves nothing on its own, so the key must be pinned: with\n"
     "--key-hash (the fingerprint that info and pubhash print), --cfg (the modulus of a\n"
     "configuration file) or --key (a key file or PKCS#11 URI; the public part is enough).\n"
     "--no-pin checks against whatever key the image carries, with a warning.\n"
     "A signature that is not smaller than the modulus is refused.\n",
     1, "one file", "--key-hash --cfg --key --pass --no-pin", iVerify},
    {"decrypt", "decrypt IMAGE --cfg CFG -o PLAIN [--json]",
     "Verifies IMAGE pinned to CFG's modulus while decrypting it with CFG's AES key and IV, in one\n"
     "read of the file, and writes exactly the plain size to PLAIN (owner-only, mode 0600) only\n"
     "when the signature holds.  CFG needs no private exponent.\n",
     1, "one file", "--cfg -o", iDecrypt},
    {"pubhash", "pubhash (--cfg CFG | --key KEY) [--pass SRC] [--json]",
     "Prints the fingerprint of a modulus (SHA-256 of its 256 bytes) to pin with --key-hash: CFG's,\n"
     "or that of KEY, a key file (public or private, PEM or DER) or a PKCS#11 URI.\n",
     0, "no file", "--cfg --key --pass", iPubhash},
    {"sign", "sign CFG IN OUT SZ [--key KEY | --signing-helper CMD] [--pass SRC] [--json]",
     "Makes the signer's protected image from the same inputs, in one step, and prints nothing\n"
     "secret.  The salt comes from the system's random generator.  The key is CFG's own\n"
     "AUTH_PARAM_D, or KEY: a PKCS#11 URI (RFC 7512; module from module-path or module-name or\n"
     "p11-kit's configured modules, PIN from pin-source or pin-value, --pass, or a prompt) or a key\n"
     "file (PEM or DER; an encrypted one takes its passphrase from --pass env:VAR or file:PATH, or\n"
     "a prompt).  --signing-helper CMD runs CMD (split on blanks, no shell) with the key's\n"
     "fingerprint as its last argument; it reads the 32-byte digest on standard input and writes\n"
     "the 256-byte signature on standard output.  The key must be CFG's (AUTH_PARAM_N) before\n"
     "anything is signed, and the signature is verified before OUT is written.\n",
     4, "CFG IN OUT SZ", "--key --signing-helper --pass", iSign},
    {"keycfg", "keycfg --key KEY -o CFG [--public-only] [--img-ver HEX] [--dec-param HEX] [--enc-param HEX] [--pass SRC] "
               "[--force] [--json]",
     "Writes a configuration for KEY (a key file or a PKCS#11 URI, whose modulus is read from the\n"
     "token) to CFG, owner-only, and never over an existing file without --force.  The AES IV and\n"
     "key (--enc-param, 64 hex digits) are fresh random bytes unless given; --img-ver (4 hex\n"
     "digits) and --dec-param (64) default to zeros.  AUTH_PARAM_D is written only for a private\n"
     "key file without --public-only; a token's key never leaves it.  Only RSA-2048 keys with\n"
     "exponent 65537 are taken.\n",
     0, "no file", "-o --key --pass --public-only --img-ver --dec-param --enc-param --force", iKeycfg},
    {"prepare", "prepare CFG IN OUT SZ [--digest-out FILE] [--json]",
     "Does what the signer does up to the hash, with the same checks of IN and SZ: pads and\n"
     "encrypts IN and builds the header, with the signature field zero.  Writes that unsigned image\n"
     "to OUT and prints the SHA-256 digest to sign (RSA-PSS, SHA-256, MGF1-SHA-256, salt length 32);\n"
     "the unsigned image itself is the message that digest covers.  --digest-out writes the raw\n"
     "32-byte digest to FILE as well.  SZ is decimal or 0x and hex digits.  CFG needs no private\n"
     "exponent.\n",
     4, "CFG IN OUT SZ", "--digest-out", iPrepare},
    {"stitch", "stitch UNSIGNED SIG -o OUT [--json]",
     "Puts the 256-byte signature in SIG into the header of UNSIGNED, verifies it through the\n"
     "signer's verification route and only then writes the protected image to OUT.\n",
     2, "two files", "-o", iStitch},
};

bool bTakes(const Command &c, const char *option)
{
    const std::string list = std::string(" ") + c.options + " --json --help -h ";
    return list.find(std::string(" ") + option + " ") != std::string::npos;
}

int iUsage(const Command &c, const std::string &what)
{
    iFail(EXIT_USAGE, "%s: %s", c.name, what.c_str());
    fprintf(stderr, "usage: zirnimg %s\n", c.synopsis);
    return EXIT_USAGE;
}

int iParseArgs(const Command &c, int argc, char **argv, Args *a)
{
    bool options = true;
    for (int i = 0; i < argc; i++) {
        const std::string arg = argv[i];
        if (!options || arg == "-" || arg[0] != '-') {
            a->positional.push_back(argv[i]);
            continue;
        }
        if (arg == "--") {
            options = false;
            continue;
        }
        if (!bTakes(c, argv[i])) return iUsage(c, "unknown option " + arg);
        bool known = false;
        for (const FlagOption &f : FLAG_OPTIONS) {
            if (arg == f.name) a->*f.field = known = true;
        }
        for (const ValueOption &v : VALUE_OPTIONS) {
            if (arg != v.name) continue;
            if (i + 1 == argc) return iUsage(c, arg + " needs a value");
            a->*v.field = argv[++i];
            known = true;
        }
        if (!known) return iUsage(c, "unknown option " + arg);
    }
    return EXIT_OK;
}

int iRun(int argc, char **argv)
{
    const std::string first = argc > 1 ? argv[1] : "";
    if (first == "--help" || first == "-h") {
        fputs(USAGE, g_out);
        return EXIT_OK;
    }
    if (first == "--version") {
        fprintf(g_out, "zirnimg %s (revision %s)\nkey sources: configuration, signing helper, key files %s, PKCS#11 tokens %s\n",
                ZIRN_VERSION, ZIRN_REVISION, zk::keyfile_available() ? "on" : "off (built without libcrypto)",
                zk::pkcs11_available() ? "on" : "off (built without p11-kit)");
        return EXIT_OK;
    }
    const Command *c = nullptr;
    for (const Command &cmd : COMMANDS) {
        if (first == cmd.name) c = &cmd;
    }
    bool json = false;
    for (int i = 1; i < argc && c == nullptr; i++) json = json || strcmp(argv[i], "--json") == 0;
    if (c == nullptr) {
        vSetJson(json, nullptr);
        const int rc = iFail(EXIT_USAGE, first.empty() ? "no command given%s" : "unknown command \"%s\"", first.c_str());
        fputs(USAGE, stderr);
        return rc;
    }
    Args a;
    for (int i = 2; i < argc; i++) a.json = a.json || strcmp(argv[i], "--json") == 0;
    vSetJson(a.json, c->name);
    int rc = iParseArgs(*c, argc - 2, argv + 2, &a);
    if (rc != EXIT_OK) return rc;
    if (a.help) {
        vSetJson(false, c->name);
        fprintf(g_out, "usage: zirnimg %s\n\n%s", c->synopsis, c->help);
        return EXIT_OK;
    }
    if (a.positional.size() != c->positional) return iUsage(*c, std::string("expects ") + c->operands);
    return c->run(a);
}

}  // namespace

}  // namespace zi

int main(int argc, char **argv)
{
    using namespace zi;
    // Keys pass through this process's memory: no core file may keep them.
    const struct rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    vInstallSignalCleanup();
    // Results go to the real standard output; the library code's reports go nowhere.
    const int out_fd = dup(1);
    g_out = out_fd >= 0 ? fdopen(out_fd, "w") : nullptr;
    if (g_out == nullptr || !bSilenceLibraryOutput()) {
        fprintf(stderr, "zirnimg: cannot set up standard output\n");
        return EXIT_IO;
    }
    int rc;
    try {
        rc = iRun(argc, argv);
    } catch (const std::exception &e) {
        rc = iFail(EXIT_IO, "out of resources: %s", e.what());
    }
    vPrintDocument(g_out, rc);
    if (fclose(g_out) != 0 && rc == EXIT_OK) {
        fprintf(stderr, "zirnimg: cannot write to standard output\n");
        return EXIT_IO;
    }
    return rc;
}
