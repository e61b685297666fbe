// The commands that use a signing key from any key source: sign (one step from plain image to
// protected image), keycfg (a configuration from a key) and pubhash (the fingerprint to pin).
#include <sys/random.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <span>
#include <string>

#include "commands.h"
#include "config.h"
#include "keysource.h"
#include "report.h"
#include "workbuf.h"

namespace zi {

namespace {

int iKeyExit(zk::KeyErr e)
{
    switch (e) {
    case zk::KeyErr::ok: return EXIT_OK;
    case zk::KeyErr::io: return EXIT_IO;
    case zk::KeyErr::usage: return EXIT_USAGE;
    case zk::KeyErr::module: return EXIT_KEY_MODULE;
    case zk::KeyErr::token: return EXIT_KEY_TOKEN;
    case zk::KeyErr::pin: return EXIT_KEY_PIN;
    case zk::KeyErr::not_found: return EXIT_KEY_NOT_FOUND;
    case zk::KeyErr::unsupported_key: return EXIT_KEY_UNSUPPORTED;
    case zk::KeyErr::mechanism: return EXIT_KEY_MECHANISM;
    case zk::KeyErr::sign_failed: return EXIT_SIGN_FAILED;
    case zk::KeyErr::unavailable: return EXIT_UNAVAILABLE;
    }
    return EXIT_SIGN_FAILED;
}

int iKeyFail(const zk::KeyError &e)
{
    vWipeLibraryOutput();
    return iFail(iKeyExit(e.kind), "%s", e.message.c_str());
}

bool bRandom(uint8_t *buf, size_t len)
{
    for (size_t got = 0; got < len;) {
        const ssize_t n = getrandom(buf + got, len - got, 0);
        if (n < 0 && errno != EINTR) return false;
        got += n > 0 ? size_t(n) : 0;
    }
    return true;
}

// A hex option of exactly bytes bytes, "0x" optional.
bool bHexOption(const char *text, uint8_t *out, size_t bytes)
{
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text += 2;
    if (strlen(text) != 2 * bytes || strspn(text, "0123456789abcdefABCDEF") != 2 * bytes) return false;
    for (size_t i = 0; i < bytes; i++) {
        const char pair[3] = {text[2 * i], text[2 * i + 1], 0};
        out[i] = uint8_t(strtoul(pair, nullptr, 16));
    }
    return true;
}

}  // namespace

int iOpenKey(const char *source, const char *pass, bool need_private, std::unique_ptr<zk::Key> *key)
{
    const zk::KeyError e = zk::open_key(source, zk::KeyOptions{pass != nullptr ? pass : "", need_private}, key);
    return e ? iKeyFail(e) : EXIT_OK;
}

int iPubhash(const Args &a)
{
    if ((a.cfg == nullptr) == (a.key == nullptr)) return iFail(EXIT_USAGE, "pubhash: give --cfg CFG or --key KEY");
    uint8_t n[256];
    if (a.cfg != nullptr) {
        WipedParam cfg;
        const int rc = iLoadConfig(a.cfg, &cfg.param, AUTH_PARAM_N_SEEN);
        if (rc != EXIT_OK) return rc;
        memcpy(n, cfg.param.hdr.auth_n, sizeof n);
    } else {
        std::unique_ptr<zk::Key> key;
        const int rc = iOpenKey(a.key, a.pass, false, &key);
        if (rc != EXIT_OK) return rc;
        memcpy(n, key->modulus(), sizeof n);
    }
    uint8_t key_hash[32];
    vZIRNKeyHashV10(n, key_hash);
    vField("key_hash", sJsonHex(key_hash, 32));
    if (!a.json) fprintf(g_out, "%s\n", sHex(key_hash, 32).c_str());
    return EXIT_OK;
}

int iSign(const Args &a)
{
    if (a.key != nullptr && a.helper != nullptr) return iFail(EXIT_USAGE, "sign takes --key or --signing-helper, not both");
    const bool own = a.key == nullptr && a.helper == nullptr;
    const char *out_path = a.positional[2];
    Sealed s;
    int rc = iSealImage(a.positional[0], a.positional[1], a.positional[3],
                        ENC_PARAM_SEEN | AUTH_PARAM_N_SEEN | (own ? AUTH_PARAM_D_SEEN : 0), &s);
    if (rc != EXIT_OK) return rc;
    ImgProtHdr &hdr = s.cfg.param.hdr;
    std::unique_ptr<zk::Key> key;
    const zk::KeyError e = own ? zk::open_raw_key(hdr.auth_n, s.cfg.param.auth_d, &key)
                           : a.helper != nullptr ? zk::open_helper_key(a.helper, hdr.auth_n, &key)
                                                 : zk::open_key(a.key, zk::KeyOptions{a.pass != nullptr ? a.pass : "", true}, &key);
    if (e) return iKeyFail(e);
    // A token holding another key never signs: the image would carry a modulus that cannot check it.
    if (memcmp(key->modulus(), hdr.auth_n, sizeof hdr.auth_n) != 0)
        return iFail(EXIT_KEY_MISMATCH, "%s is not the key of %s (AUTH_PARAM_N): nothing was signed", key->describe().c_str(),
                     a.positional[0]);
    const std::vector<std::span<const uint8_t>> message = {{reinterpret_cast<const uint8_t *>(&hdr), ZIRN_HDR_SIZE},
                                                           {s.img, ui4PaddedSz(s.plain_size)}};
    const zk::KeyError signed_ = key->sign(s.hash, message, hdr.auth_sig);
    if (signed_) return iKeyFail(signed_);
    vWipeLibraryOutput();
    if ((rc = iCheckSignature(out_path, hdr, s.hash)) != EXIT_OK || (rc = iWriteImage(out_path, s)) != EXIT_OK) return rc;
    uint8_t key_hash[32];
    vZIRNKeyHashV10(hdr.auth_n, key_hash);
    vField("output", sJsonStr(out_path));
    vField("key", sJsonStr(key->describe()));
    vField("key_hash", sJsonHex(key_hash, 32));
    vField("digest", sJsonHex(s.hash, 32));
    if (!a.json) fprintf(g_out, "%s: signed with %s, key %s\n", out_path, key->describe().c_str(), sHex(key_hash, 32).c_str());
    return EXIT_OK;
}

int iKeycfg(const Args &a)
{
    if (a.key == nullptr || a.out == nullptr) return iFail(EXIT_USAGE, "keycfg: --key KEY and -o CFG are required");
    struct stat st;
    if (!a.force && lstat(a.out, &st) == 0) return iFail(EXIT_IO, "%s exists: --force replaces it", a.out);
    WipedParam cfg;
    ImgProtParam &p = cfg.param;
    if (a.img_ver != nullptr && !bHexOption(a.img_ver, p.hdr.img_ver, 2)) return iFail(EXIT_USAGE, "--img-ver takes 4 hex digits");
    if (a.dec_param != nullptr && !bHexOption(a.dec_param, p.hdr.dec_param, 32)) return iFail(EXIT_USAGE, "--dec-param takes 64 hex digits");
    if (a.enc_param != nullptr && !bHexOption(a.enc_param, p.enc_iv, 32)) return iFail(EXIT_USAGE, "--enc-param takes 64 hex digits");
    if (a.enc_param == nullptr && !bRandom(p.enc_iv, 32)) return iFail(EXIT_IO, "no random bytes from the system: %s", strerror(errno));
    std::unique_ptr<zk::Key> key;
    int rc = iOpenKey(a.key, a.pass, false, &key);
    if (rc != EXIT_OK) return rc;
    memcpy(p.hdr.auth_n, key->modulus(), 256);
    const bool with_d = !a.public_only && key->export_private_exponent(p.auth_d);
    // The text holds the AES key and perhaps the private exponent: built in fixed storage, wiped.
    static char text[2048];
    const struct WipeText {
        ~WipeText() { vWipeBuf(text, sizeof text); }
    } wipe_text;
    std::string iv = sHex(p.enc_iv, 32);
    const std::string ver = sHex(p.hdr.img_ver, 2), dec = sHex(p.hdr.dec_param, 32), n = sHex(p.hdr.auth_n, 256);
    // The key's name goes into a comment: cut to 200 characters, so that the text fits, and with
    // control characters replaced, so that a file name holding a line end cannot add a line.
    std::string from = key->describe().substr(0, 200);
    for (char &ch : from) ch = static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f ? '?' : ch;
    int len = snprintf(text, sizeof text, "# zirn image protection configuration from %s\nIMG_VER = 0x%s\nENC_PARAM = 0x%s\nDEC_PARAM = 0x%s\n"
                       "AUTH_PARAM_N = 0x%s\n", from.c_str(), ver.c_str(), iv.c_str(), dec.c_str(), n.c_str());
    if (with_d) {
        static const char digits[] = "0123456789abcdef";
        len += snprintf(text + len, sizeof text - size_t(len), "AUTH_PARAM_D = 0x");
        for (uint8_t b : p.auth_d) text[len++] = digits[b >> 4], text[len++] = digits[b & 15];
        text[len++] = '\n';
    }
    vWipeBuf(iv.data(), iv.size());
    Output out;
    if ((rc = iOpenOutput(a.out, true, &out)) != EXIT_OK || (rc = iWriteOutput(&out, text, size_t(len))) != EXIT_OK) return rc;
    if ((rc = iCommitOutput(&out, a.force)) != EXIT_OK) return rc;
    uint8_t key_hash[32];
    vZIRNKeyHashV10(p.hdr.auth_n, key_hash);
    vField("output", sJsonStr(a.out));
    vField("key", sJsonStr(key->describe()));
    vField("key_hash", sJsonHex(key_hash, 32));
    vField("private_exponent", sJsonBool(with_d));
    if (!a.json)
        fprintf(g_out, "%s: configuration for %s (key %s)%s\n", a.out, key->describe().c_str(), sHex(key_hash, 32).c_str(),
                with_d ? "" : ", without AUTH_PARAM_D");
    return EXIT_OK;
}

}  // namespace zi
