// zirnimg: the signer's companion.  Shows and checks protected images, verifies their signature
// against a pinned key, decrypts them, and splits signing in two (prepare, stitch) so that the
// private key can stay in the hardware that holds it.  Results (and --json) go to standard
// output, messages to standard error; the exit status says which kind of failure occurred.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "ZirnImgProt.h"
#include "ZirnImgProtCfgFileProc.h"

namespace {

// Exit statuses: one per kind of failure, the same in every command.
constexpr int EXIT_OK = 0;
constexpr int EXIT_BAD_SIGNATURE = 1;  // the signature does not verify
constexpr int EXIT_USAGE = 2;          // wrong command line
constexpr int EXIT_KEY_MISMATCH = 3;   // the image's key is not the pinned one
constexpr int EXIT_BAD_IMAGE = 4;      // not a protected image, truncated, inconsistent sizes; bad signature file
constexpr int EXIT_IO = 5;             // a file cannot be read or written
constexpr int EXIT_BAD_CONFIG = 6;     // the configuration file is malformed or lacks a key the command needs
constexpr int EXIT_BAD_INPUT = 7;      // prepare: the plain image is empty or does not fit the memory size

const char *const USAGE =
    "usage: zirnimg [--help] [--version] <command> [<args>]\n"
    "\n"
    "commands:\n"
    "  info IMAGE [--json]                          show and check the header of a protected image\n"
    "  verify IMAGE [--key-hash HEX | --cfg CFG] [--json]\n"
    "                                               check the signature, pinned to a key\n"
    "  decrypt IMAGE --cfg CFG -o PLAIN             verify against CFG's key, then write the plain image\n"
    "  pubhash --cfg CFG [--json]                   print the fingerprint of CFG's key, to pin it\n"
    "  prepare CFG IN OUT SZ [--json]               protect IN without signing; print the digest to sign\n"
    "  stitch UNSIGNED SIG -o OUT                   insert a signature made elsewhere, verify, write\n"
    "\n"
    "exit status: 0 success, 1 bad signature, 2 wrong usage, 3 key does not match the pin,\n"
    "4 malformed image or signature file, 5 file not readable or writable, 6 bad configuration,\n"
    "7 plain image empty or larger than the memory size\n";

struct Command {
    const char *name, *synopsis, *help;
};
const Command COMMANDS[] = {
    {"info", "info IMAGE [--json]",
     "Shows every header field of IMAGE by name (the modulus as its SHA-256 fingerprint) and checks\n"
     "the file: magic, header size 576, encrypted size a multiple of 16 and at least the plain size,\n"
     "file size 576 + encrypted size.  Exit status 4 when a check fails.\n"},
    {"verify", "verify IMAGE [--key-hash HEX | --cfg CFG] [--json]",
     "Recomputes the SHA-256 of the header (signature field zeroed) and the ciphertext, and checks\n"
     "the RSA-PSS signature with the image's modulus through the signer's own verification route.\n"
     "A modulus carried by the image proves nothing on its own: pin it with --key-hash (the\n"
     "fingerprint that info and pubhash print) or --cfg (the modulus of a configuration file).\n"},
    {"decrypt", "decrypt IMAGE --cfg CFG -o PLAIN",
     "Verifies IMAGE pinned to CFG's modulus, then decrypts it with CFG's AES key and IV and writes\n"
     "exactly the plain size to PLAIN.  CFG needs no private exponent.\n"},
    {"pubhash", "pubhash --cfg CFG [--json]",
     "Prints the fingerprint of CFG's modulus (SHA-256 of its 256 bytes) to pin with --key-hash.\n"},
    {"prepare", "prepare CFG IN OUT SZ [--json]",
     "Does what the signer does up to the hash, with the same checks of IN and SZ: pads and\n"
     "encrypts IN and builds the header, with the signature field zero.  Writes that unsigned image\n"
     "to OUT and prints the SHA-256 digest to sign (RSA-PSS, SHA-256, MGF1-SHA-256, salt length 32);\n"
     "the unsigned image itself is the message that digest covers.  CFG needs no private exponent.\n"},
    {"stitch", "stitch UNSIGNED SIG -o OUT",
     "Puts the 256-byte signature in SIG into the header of UNSIGNED, verifies it through the\n"
     "signer's verification route and only then writes the protected image to OUT.\n"},
};

FILE *g_out = stdout;  // the real standard output: results only

int iFail(int code, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
int iFail(int code, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fputs("zirnimg: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    return code;
}

std::string sHex(const uint8_t *p, size_t n)
{
    std::string s;
    for (size_t i = 0; i < n; i++) s += {"0123456789abcdef"[p[i] >> 4], "0123456789abcdef"[p[i] & 15]};
    return s;
}

// A JSON string literal.
std::string sJson(const std::string &s)
{
    std::string r = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            r += {'\\', char(c)};
        } else if (c < 0x20 || c == 0x7f) {
            char esc[8];
            snprintf(esc, sizeof esc, "\\u%04x", c);
            r += esc;
        } else {
            r += char(c);
        }
    }
    return r + "\"";
}

// The library code of the signer reports on standard output; here its lines are collected and
// shown on standard error, indented, only when the step fails.
template <class F>
auto aQuietly(std::string *log, F fn)
{
    fflush(stdout);
    FILE *tmp = tmpfile();
    const int saved = dup(1);
    if (tmp != nullptr) dup2(fileno(tmp), 1);
    auto result = fn();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    if (tmp != nullptr) {
        rewind(tmp);
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, tmp)) > 0;) log->append(buf, n);
        fclose(tmp);
    }
    return result;
}

void vShowLog(const std::string &log)
{
    size_t start = 0;
    for (size_t end; (end = log.find('\n', start)) != std::string::npos; start = end + 1)
        fprintf(stderr, "  %s\n", log.substr(start, end - start).c_str());
}

// Reads a configuration, which must hold the keys in `need` (keys_seen bits).
int iLoadConfig(const char *path, ImgProtParam *param, uint32_t need)
{
    vInitImgProtParamV10(param);
    struct stat st;
    if (stat(path, &st) != 0) return iFail(EXIT_IO, "cannot read %s: %s", path, strerror(errno));
    if (S_ISDIR(st.st_mode)) return iFail(EXIT_IO, "cannot read %s: it is a directory", path);
    std::string log;
    const int32_t rc = aQuietly(&log, [&] { return iProcZIRNImgProtCfgFileV10(path, param); });
    if (rc == -2 || rc == -3) return iFail(EXIT_IO, "cannot read %s", path);
    if (rc != 0) {
        iFail(EXIT_BAD_CONFIG, "%s: malformed configuration:", path);
        vShowLog(log.substr(log.find("Error: ")));
        return EXIT_BAD_CONFIG;
    }
    const std::pair<uint32_t, const char *> keys[] = {{ENC_PARAM_SEEN, "ENC_PARAM"}, {AUTH_PARAM_N_SEEN, "AUTH_PARAM_N"}};
    for (const auto &[bit, name] : keys) {
        if ((need & bit) && !(ui4GetLE32(param->keys_seen) & bit)) return iFail(EXIT_BAD_CONFIG, "%s: no %s", path, name);
    }
    return EXIT_OK;
}

// An open protected image: its header, checked against the file's size.
struct Image {
    FILE *fp = nullptr;
    ImgProtHdr hdr;
    uint64_t size = 0;
    uint32_t problems = 0;
    ~Image()
    {
        if (fp != nullptr) fclose(fp);
    }
};

std::string sProblems(uint32_t problems)
{
    const std::pair<uint32_t, const char *> texts[] = {
        {ZIRN_HDR_BAD_MAGIC, "the magic is not \"EET XOQ \""},
        {ZIRN_HDR_BAD_HDR_SIZE, "the header size is not 576"},
        {ZIRN_HDR_BAD_ENC_SIZE, "the encrypted size is not a multiple of 16 at least the plain size"},
        {ZIRN_HDR_BAD_FILE_SIZE, "the file size is not 576 + the encrypted size"}};
    std::string r;
    for (const auto &[bit, text] : texts) {
        if (problems & bit) r += (r.empty() ? "" : "; ") + std::string(text);
    }
    return r;
}

// Opens IMAGE and reads its header; with strict, an inconsistent header is an error.
int iOpenImage(const char *path, Image *img, bool strict)
{
    img->fp = fopen(path, "rb");
    struct stat st;
    if (img->fp == nullptr || fstat(fileno(img->fp), &st) != 0) return iFail(EXIT_IO, "cannot read %s: %s", path, strerror(errno));
    if (!S_ISREG(st.st_mode)) return iFail(EXIT_IO, "cannot read %s: not a regular file", path);
    img->size = uint64_t(st.st_size);
    if (img->size < ZIRN_HDR_SIZE)
        return iFail(EXIT_BAD_IMAGE, "%s: truncated: %llu bytes, shorter than the 576-byte header", path, (unsigned long long)img->size);
    if (fread(&img->hdr, ZIRN_HDR_SIZE, 1, img->fp) != 1) return iFail(EXIT_IO, "cannot read %s", path);
    img->problems = uiCheckZIRNImgHdrV10(&img->hdr, img->size);
    if (strict && img->problems != 0) return iFail(EXIT_BAD_IMAGE, "%s: not a consistent protected image: %s", path, sProblems(img->problems).c_str());
    return EXIT_OK;
}

// Checks the signature of an opened image; the ciphertext is read (and copied to `copy`) once.
int iVerifyImage(const char *path, Image *img, FILE *copy)
{
    uint8_t hash[32];
    const int32_t rc = iHashZIRNImgFileV10(img->fp, &img->hdr, hash, copy);
    if (rc == -1) return iFail(EXIT_IO, "cannot read %s", path);
    if (rc != 0) return iFail(EXIT_IO, "cannot write the output");
    std::string log;
    if (aQuietly(&log, [&] { return iVerifyZIRNImgSigV10(&img->hdr, hash); }) != 0) {
        iFail(EXIT_BAD_SIGNATURE, "%s: the signature does not verify", path);
        vShowLog(log);
        return EXIT_BAD_SIGNATURE;
    }
    return EXIT_OK;
}

// An output file, written to a temporary file in its own folder and renamed into place only when
// complete, so that a failure never leaves a partial or a stale file behind.
struct Output {
    std::string path, tmp;
    FILE *fp = nullptr;
    ~Output()
    {
        if (fp == nullptr) return;
        fclose(fp);
        unlink(tmp.c_str());
    }
};

int iOpenOutput(const char *path, Output *o)
{
    o->path = path;
    const size_t slash = o->path.rfind('/');
    o->tmp = (slash == std::string::npos ? "" : o->path.substr(0, slash + 1)) + ".zirnimg.XXXXXX";
    const int fd = mkstemp(o->tmp.data());
    if (fd < 0) return iFail(EXIT_IO, "cannot write %s: %s", path, strerror(errno));
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);  // as if created directly, not the temporary file's 0600
    o->fp = fdopen(fd, "wb");
    return EXIT_OK;
}

int iCommitOutput(Output *o)
{
    const bool ok = fflush(o->fp) == 0 && fsync(fileno(o->fp)) == 0;
    if (fclose(std::exchange(o->fp, nullptr)) != 0 || !ok || rename(o->tmp.c_str(), o->path.c_str()) != 0) {
        const int err = errno;
        unlink(o->tmp.c_str());
        return iFail(EXIT_IO, "cannot write %s: %s", o->path.c_str(), strerror(err));
    }
    return EXIT_OK;
}

// The pin: --key-hash HEX or the modulus of --cfg CFG.
struct Pin {
    bool set = false;
    uint8_t key_hash[32];
    const char *from = "";
};

int iParseKeyHash(const char *hex, Pin *pin)
{
    if (strlen(hex) != 64) return iFail(EXIT_USAGE, "--key-hash takes 64 hex digits, not \"%s\"", hex);
    const std::string prefixed = std::string("0x") + hex;
    std::string log;
    if (aQuietly(&log, [&] { return iConvHexStrToValBuf(prefixed.c_str(), pin->key_hash, 32); }) != 0)
        return iFail(EXIT_USAGE, "--key-hash takes 64 hex digits, not \"%s\"", hex);
    pin->set = true;
    pin->from = "--key-hash";
    return EXIT_OK;
}

struct Args {
    std::vector<const char *> positional;
    const char *cfg = nullptr, *key_hash = nullptr, *out = nullptr;
    bool json = false, help = false;
};

int iUsage(const Command &c, const char *fmt, const char *arg)
{
    fprintf(stderr, "zirnimg %s: ", c.name);
    fprintf(stderr, fmt, arg);
    fprintf(stderr, "\nusage: zirnimg %s\n", c.synopsis);
    return EXIT_USAGE;
}

// Options may stand anywhere after the command; "--" ends them.
int iParseArgs(const Command &c, int argc, char **argv, Args *a)
{
    bool options = true;
    for (int i = 0; i < argc; i++) {
        const std::string arg = argv[i];
        const char **value = arg == "--cfg" ? &a->cfg : arg == "--key-hash" ? &a->key_hash : arg == "-o" ? &a->out : nullptr;
        if (!options || arg == "-" || arg[0] != '-') {
            a->positional.push_back(argv[i]);
        } else if (arg == "--") {
            options = false;
        } else if (arg == "--json") {
            a->json = true;
        } else if (arg == "--help" || arg == "-h") {
            a->help = true;
        } else if (value == nullptr) {
            return iUsage(c, "unknown option %s", argv[i]);
        } else if (i + 1 == argc) {
            return iUsage(c, "%s needs a value", argv[i]);
        } else {
            *value = argv[++i];
        }
    }
    return EXIT_OK;
}

// ---------------------------------------------------------------------------------------------
// Commands

int iInfo(const Args &a)
{
    Image img;
    const char *path = a.positional[0];
    int rc = iOpenImage(path, &img, false);
    if (rc != EXIT_OK) return rc;
    const ImgProtHdr &h = img.hdr;
    uint8_t key_hash[32];
    vZIRNKeyHashV10(h.auth_n, key_hash);
    bool is_signed = false;
    for (uint8_t b : h.auth_sig) is_signed = is_signed || b != 0;
    const std::string magic(reinterpret_cast<const char *>(h.magic), sizeof h.magic);
    const unsigned long long size = img.size;
    const uint32_t hdr_size = ui4GetLE32(h.hdr_size), plain = ui4GetLE32(h.plain_size), enc = ui4GetLE32(h.enc_size),
                   mem = ui4GetLE32(h.ext_mem_size);
    const std::string version = sHex(h.img_ver, 2), dec = sHex(h.dec_param, 32), kh = sHex(key_hash, 32), problems = sProblems(img.problems);
    if (a.json) {
        fprintf(g_out,
                "{\"file\": %s, \"file_size\": %llu, \"magic\": %s, \"header_size\": %u, \"marks\": [%u, %u, %u], "
                "\"image_version\": \"%s\", \"plain_size\": %u, \"encrypted_size\": %u, \"dec_param\": \"%s\", "
                "\"ext_mem_size\": %u, \"key_hash\": \"%s\", \"signed\": %s, \"consistent\": %s, \"problems\": %s}\n",
                sJson(path).c_str(), size, sJson(magic).c_str(), hdr_size, h.prot_mark0, h.prot_mark1, h.prot_mark2,
                version.c_str(), plain, enc, dec.c_str(), mem, kh.c_str(), is_signed ? "true" : "false",
                img.problems ? "false" : "true", sJson(problems).c_str());
    } else {
        fprintf(g_out,
                "file:            %s (%llu bytes)\nmagic:           %s\nheader size:     %u\nmarks:           %u %u %u\n"
                "image version:   %s\nplain size:      %u\nencrypted size:  %u\ndec param:       %s\n"
                "ext memory size: 0x%08x (%u)\nkey hash:        %s\nsignature:       %s\nconsistent:      %s\n",
                path, size, sJson(magic).c_str(), hdr_size, h.prot_mark0, h.prot_mark1, h.prot_mark2, version.c_str(),
                plain, enc, dec.c_str(), mem, mem, kh.c_str(), is_signed ? "present" : "absent (unsigned)",
                img.problems ? ("no: " + problems).c_str() : "yes");
    }
    return img.problems ? iFail(EXIT_BAD_IMAGE, "%s: not a consistent protected image: %s", path, problems.c_str()) : EXIT_OK;
}

int iVerify(const Args &a)
{
    Pin pin;
    ImgProtParam param;
    if (a.key_hash != nullptr && a.cfg != nullptr) return iFail(EXIT_USAGE, "verify takes --key-hash or --cfg, not both");
    int rc = a.key_hash != nullptr ? iParseKeyHash(a.key_hash, &pin) : EXIT_OK;
    if (rc == EXIT_OK && a.cfg != nullptr && (rc = iLoadConfig(a.cfg, &param, AUTH_PARAM_N_SEEN)) == EXIT_OK) {
        vZIRNKeyHashV10(param.hdr.auth_n, pin.key_hash);
        pin.set = true;
        pin.from = a.cfg;
    }
    vWipeImgProtParamV10(&param);
    if (rc != EXIT_OK) return rc;
    const char *path = a.positional[0];
    Image img;
    if ((rc = iOpenImage(path, &img, true)) != EXIT_OK) return rc;
    uint8_t key_hash[32];
    vZIRNKeyHashV10(img.hdr.auth_n, key_hash);
    const std::string kh = sHex(key_hash, 32);
    if (pin.set && memcmp(key_hash, pin.key_hash, 32) != 0)
        return iFail(EXIT_KEY_MISMATCH, "%s: signed for key %s, not for the key pinned by %s (%s)", path, kh.c_str(), pin.from,
                     sHex(pin.key_hash, 32).c_str());
    rc = iVerifyImage(path, &img, nullptr);
    if (rc != EXIT_OK && rc != EXIT_BAD_SIGNATURE) return rc;
    const bool valid = rc == EXIT_OK;
    if (a.json) {
        fprintf(g_out, "{\"file\": %s, \"signature\": \"%s\", \"key_hash\": \"%s\", \"pinned\": %s}\n", sJson(path).c_str(),
                valid ? "valid" : "invalid", kh.c_str(), pin.set ? "true" : "false");
    } else if (valid) {
        fprintf(g_out, "%s: signature valid, key %s\n", path, kh.c_str());
    }
    if (valid && !pin.set)
        iFail(EXIT_OK, "warning: the key was not pinned; the signature was checked with the modulus the image carries, "
                       "which anyone can replace: pass --key-hash or --cfg");
    return rc;
}

int iDecrypt(const Args &a)
{
    if (a.cfg == nullptr || a.out == nullptr) return iUsage(COMMANDS[2], "%s", "--cfg and -o are required");
    ImgProtParam param;
    int rc = iLoadConfig(a.cfg, &param, ENC_PARAM_SEEN | AUTH_PARAM_N_SEEN);
    const char *path = a.positional[0];
    Image img;
    Output out;
    if (rc == EXIT_OK) rc = iOpenImage(path, &img, true);
    if (rc == EXIT_OK && memcmp(img.hdr.auth_n, param.hdr.auth_n, sizeof img.hdr.auth_n) != 0)
        rc = iFail(EXIT_KEY_MISMATCH, "%s: not signed for the key of %s", path, a.cfg);
    if (rc == EXIT_OK) rc = iVerifyImage(path, &img, nullptr);
    if (rc == EXIT_OK) rc = iOpenOutput(a.out, &out);
    if (rc == EXIT_OK) {
        const int32_t d = fseek(img.fp, ZIRN_HDR_SIZE, SEEK_SET) != 0 ? -1
                                                                      : iDecryptZIRNImgFileV10(img.fp, out.fp, &img.hdr, param.enc_key, param.enc_iv);
        rc = d == -1 ? iFail(EXIT_IO, "cannot read %s", path) : d != 0 ? iFail(EXIT_IO, "cannot write %s", a.out) : iCommitOutput(&out);
    }
    vWipeImgProtParamV10(&param);
    if (rc == EXIT_OK) fprintf(g_out, "%s: %u bytes decrypted from %s\n", a.out, ui4GetLE32(img.hdr.plain_size), path);
    return rc;
}

int iPubhash(const Args &a)
{
    if (a.cfg == nullptr || !a.positional.empty()) return iUsage(COMMANDS[3], "%s", "takes --cfg CFG only");
    ImgProtParam param;
    const int rc = iLoadConfig(a.cfg, &param, AUTH_PARAM_N_SEEN);
    uint8_t key_hash[32];
    vZIRNKeyHashV10(param.hdr.auth_n, key_hash);
    vWipeImgProtParamV10(&param);
    if (rc != EXIT_OK) return rc;
    fprintf(g_out, a.json ? "{\"key_hash\": \"%s\"}\n" : "%s\n", sHex(key_hash, 32).c_str());
    return EXIT_OK;
}

int iPrepare(const Args &a)
{
    const char *cfg = a.positional[0], *in = a.positional[1], *out_path = a.positional[2], *sz = a.positional[3];
    uint32_t ext_mem_size = 0;
    if (iParseExtMemSzV10(sz, &ext_mem_size) != 0)
        return iFail(EXIT_USAGE, "wrong external memory size \"%s\": 0x and at most 8 hex digits, not zero", sz);
    ImgProtParam param;
    int rc = iLoadConfig(cfg, &param, ENC_PARAM_SEEN | AUTH_PARAM_N_SEEN);
    vPutLE32(param.hdr.ext_mem_size, ext_mem_size);
    struct stat st;
    std::string log;
    const uint32_t n = rc == EXIT_OK ? aQuietly(&log, [&] { return ui4GetFileSz(in); }) : 0;
    if (rc == EXIT_OK && (stat(in, &st) != 0 || S_ISDIR(st.st_mode) || access(in, R_OK) != 0))
        rc = iFail(EXIT_IO, "cannot read %s", in);
    else if (rc == EXIT_OK && n == 0)
        rc = iFail(EXIT_BAD_INPUT, "%s is empty", in);
    else if (rc == EXIT_OK && (uint64_t(n) + 15) / 16 * 16 > ext_mem_size)
        rc = iFail(EXIT_BAD_INPUT, "%s: the padded image (%llu bytes) is larger than the external memory size %s", in,
                   (unsigned long long)((uint64_t(n) + 15) / 16 * 16), sz);
    uint8_t *img = rc == EXIT_OK ? aQuietly(&log, [&] { return pucReadZIRNImgV10(in, n); }) : nullptr;
    if (rc == EXIT_OK && img == nullptr) rc = iFail(EXIT_IO, "cannot read %s", in);
    uint8_t hash[32];
    if (rc == EXIT_OK && aQuietly(&log, [&] { return iSealZIRNImgV10(&param, img, n, hash); }) != 0) rc = iFail(EXIT_IO, "cannot hash %s", in);
    Output out;
    if (rc == EXIT_OK) rc = iOpenOutput(out_path, &out);
    if (rc == EXIT_OK) {
        const uint32_t enc = ui4PaddedSz(n);
        const bool ok = fwrite(&param.hdr, ZIRN_HDR_SIZE, 1, out.fp) == 1 && fwrite(img, 1, enc, out.fp) == enc;
        rc = ok ? iCommitOutput(&out) : iFail(EXIT_IO, "cannot write %s", out_path);
    }
    vWipeImgProtParamV10(&param);
    free(img);
    if (rc != EXIT_OK) return rc;
    fprintf(g_out, a.json ? "{\"unsigned_image\": %s, \"digest\": \"%s\"}\n" : "%s%s\n", a.json ? sJson(out_path).c_str() : "",
            sHex(hash, 32).c_str());
    return EXIT_OK;
}

int iStitch(const Args &a)
{
    if (a.out == nullptr) return iUsage(COMMANDS[5], "%s", "-o OUT is required");
    const char *path = a.positional[0], *sig_path = a.positional[1];
    Image img;
    int rc = iOpenImage(path, &img, true);
    if (rc != EXIT_OK) return rc;
    FILE *sig = fopen(sig_path, "rb");
    struct stat st;
    if (sig == nullptr || fstat(fileno(sig), &st) != 0 || !S_ISREG(st.st_mode)) {
        if (sig != nullptr) fclose(sig);
        return iFail(EXIT_IO, "cannot read %s", sig_path);
    }
    const bool whole = st.st_size == 256 && fread(img.hdr.auth_sig, 1, 256, sig) == 256;
    fclose(sig);
    if (!whole) return iFail(EXIT_BAD_IMAGE, "%s: a signature file holds exactly 256 bytes, this one %lld", sig_path, (long long)st.st_size);
    Output out;
    if ((rc = iOpenOutput(a.out, &out)) != EXIT_OK) return rc;
    if (fwrite(&img.hdr, ZIRN_HDR_SIZE, 1, out.fp) != 1) return iFail(EXIT_IO, "cannot write %s", a.out);
    if ((rc = iVerifyImage(path, &img, out.fp)) != EXIT_OK) return rc;
    if ((rc = iCommitOutput(&out)) != EXIT_OK) return rc;
    fprintf(g_out, "%s: signature verified, protected image written\n", a.out);
    return EXIT_OK;
}

}  // namespace

int main(int argc, char **argv)
{
    // Results go to the real standard output; anything else printed there, such as the library
    // code's own reports, goes to standard error.
    const int out_fd = dup(1);
    g_out = out_fd >= 0 ? fdopen(out_fd, "w") : nullptr;
    if (g_out == nullptr) return iFail(EXIT_IO, "cannot write to standard output");
    dup2(2, 1);
    int (*const run[])(const Args &) = {iInfo, iVerify, iDecrypt, iPubhash, iPrepare, iStitch};
    const size_t positional[] = {1, 1, 1, 0, 4, 2};
    int rc = EXIT_OK;
    const std::string first = argc > 1 ? argv[1] : "";
    if (first == "--help" || first == "-h" || first == "help") {
        fputs(USAGE, g_out);
    } else if (first == "--version") {
        fprintf(g_out, "zirnimg %s\n", ZIRN_VERSION);
    } else {
        size_t c = 0;
        while (c < std::size(COMMANDS) && first != COMMANDS[c].name) c++;
        if (c == std::size(COMMANDS)) {
            rc = iFail(EXIT_USAGE, first.empty() ? "no command given%s" : "unknown command \"%s\"", first.c_str());
            fputs(USAGE, stderr);
        } else {
            Args a;
            rc = iParseArgs(COMMANDS[c], argc - 2, argv + 2, &a);
            if (rc == EXIT_OK && a.help)
                fprintf(g_out, "usage: zirnimg %s\n\n%s", COMMANDS[c].synopsis, COMMANDS[c].help);
            else if (rc == EXIT_OK && a.positional.size() != positional[c])
                rc = iUsage(COMMANDS[c], "expects %s", positional[c] == 1 ? "one file" : positional[c] == 2 ? "two files" : positional[c] == 4 ? "CFG IN OUT SZ" : "no file");
            else if (rc == EXIT_OK)
                rc = run[c](a);
        }
    }
    return fclose(g_out) != 0 && rc == EXIT_OK ? iFail(EXIT_IO, "cannot write to standard output") : rc;
}
