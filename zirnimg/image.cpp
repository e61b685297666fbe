// The commands that read protected images: info, verify, decrypt.
#include <cstring>
#include <string>

#include "commands.h"
#include "config.h"
#include "ZirnImgSigDiag.h"
#include "report.h"

namespace zi {

namespace {

std::string sProblems(uint32_t problems)
{
    const std::pair<uint32_t, const char *> texts[] = {
        {ZIRN_HDR_BAD_MAGIC, "the magic is not \"EET XOQ \""},
        {ZIRN_HDR_BAD_HDR_SIZE, "the header size is not 576"},
        {ZIRN_HDR_BAD_ENC_SIZE, "the encrypted size is not a multiple of 16 at least the plain size"},
        {ZIRN_HDR_BAD_FILE_SIZE, "the file size is not 576 + the encrypted size"}};
    std::string r;
    for (const auto &[bit, text] : texts) {
        if (!(problems & bit)) continue;
        if (!r.empty()) r += "; ";
        r += text;
    }
    return r;
}

std::string sProblemList(uint32_t problems)
{
    const char *names[] = {"bad_magic", "bad_header_size", "bad_encrypted_size", "bad_file_size"};
    std::string r;
    for (int i = 0; i < 4; i++) {
        if (!(problems & (1u << i))) continue;
        if (!r.empty()) r += ", ";
        r.append("\"").append(names[i]).append("\"");
    }
    return "[" + r + "]";
}

// The magic as text: printable ASCII as it is, any other byte as \xHH.
std::string sPrintable(const uint8_t *p, size_t n)
{
    std::string r;
    for (size_t i = 0; i < n; i++) {
        char esc[8];
        snprintf(esc, sizeof esc, p[i] >= 0x20 && p[i] < 0x7f && p[i] != '\\' ? "%c" : "\\x%02x", p[i]);
        r += esc;
    }
    return r;
}

std::string sMarks(const ImgProtHdr &h)
{
    char buf[32];
    snprintf(buf, sizeof buf, "[%u, %u, %u]", h.prot_mark0, h.prot_mark1, h.prot_mark2);
    return buf;
}

bool bKeyHashFromHex(const char *hex, uint8_t out[32])
{
    if (strlen(hex) != 64) return false;
    for (int i = 0; i < 64; i++) {
        const char c = hex[i];
        const int v = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
        if (v < 0) return false;
        out[i / 2] = uint8_t(i % 2 ? out[i / 2] | v : v << 4);
    }
    return true;
}

}  // namespace

int iOpenImage(const char *path, Image *img, bool strict)
{
    int rc = iOpenInput(path, &img->in);
    if (rc != EXIT_OK) return rc;
    if (img->in.size < ZIRN_HDR_SIZE)
        return iFail(EXIT_BAD_IMAGE, "%s: truncated: %llu bytes, shorter than the 576-byte header", path,
                     (unsigned long long)img->in.size);
    if (!bReadAll(img->in.fd, &img->hdr, ZIRN_HDR_SIZE)) return iFail(EXIT_IO, "cannot read %s", path);
    img->problems = uiCheckZIRNImgHdrV10(&img->hdr, img->in.size);
    if (strict && img->problems != 0)
        return iFail(EXIT_BAD_IMAGE, "%s: not a consistent protected image: %s", path, sProblems(img->problems).c_str());
    return EXIT_OK;
}

int iCheckSignature(const char *path, const ImgProtHdr &hdr, const uint8_t hash[32])
{
    // s and s + n reduce to the same value: only s < n is the signature, anything else is refused
    // before the arithmetic.
    const bool below = bZIRNSigBelowModulusV10(hdr.auth_n, hdr.auth_sig);
    const int32_t rc = below ? iVerifyZIRNImgSigV10(&hdr, hash) : -1;
    vWipeLibraryOutput();
    if (rc == 0) return EXIT_OK;
    // The route's own lines speak of its internals; the recovered block says what was signed.
    const ZirnSigDiag d = stDiagnoseZIRNImgSigV10(hdr.auth_n, hdr.auth_sig, hash);
    vErrorField("diagnosis", "{\"kind\": " + sJsonStr(pcZIRNSigDiagNameV10(d.kind)) + ", \"salt_length\": " +
                                 (d.salt_len < 0 ? "null" : std::to_string(d.salt_len)) + ", \"mgf1_hash\": " +
                                 (d.mgf1_hash == nullptr ? "null" : sJsonStr(d.mgf1_hash)) + "}");
    return iFail(EXIT_BAD_SIGNATURE, "%s: the signature does not verify: %s", path, sZIRNSigDiagTextV10(d).c_str());
}

bool bParseSize(const char *text, uint32_t *size)
{
    const bool hex = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char *digits = hex ? text + 2 : text;
    const size_t n = strlen(digits);
    if (n == 0 || n > (hex ? 8u : 10u) || strspn(digits, hex ? "0123456789abcdefABCDEF" : "0123456789") != n) return false;
    const unsigned long long v = strtoull(digits, nullptr, hex ? 16 : 10);
    *size = uint32_t(v);
    return v != 0 && v <= 0xFFFFFFFFull;
}

int iInfo(const Args &a)
{
    Image img;
    const char *path = a.positional[0];
    const int rc = iOpenImage(path, &img, false);
    if (rc != EXIT_OK) return rc;
    const ImgProtHdr &h = img.hdr;
    uint8_t key_hash[32];
    vZIRNKeyHashV10(h.auth_n, key_hash);
    bool is_signed = false;
    for (uint8_t b : h.auth_sig) is_signed = is_signed || b != 0;
    const unsigned long long size = img.in.size;
    const uint32_t hdr_size = ui4GetLE32(h.hdr_size), plain = ui4GetLE32(h.plain_size), enc = ui4GetLE32(h.enc_size),
                   mem = ui4GetLE32(h.ext_mem_size);
    const std::string version = sHex(h.img_ver, 2), dec = sHex(h.dec_param, 32), kh = sHex(key_hash, 32),
                      problems = sProblems(img.problems), magic = sPrintable(h.magic, sizeof h.magic);
    const std::pair<const char *, std::string> fields[] = {
        {"file", sJsonStr(path)}, {"file_size", std::to_string(size)}, {"magic", sJsonHex(h.magic, sizeof h.magic)},
        {"header_size", std::to_string(hdr_size)},
        {"marks", sMarks(h)},
        {"image_version", sJsonStr(version)}, {"plain_size", std::to_string(plain)}, {"encrypted_size", std::to_string(enc)},
        {"dec_param", sJsonStr(dec)}, {"ext_mem_size", std::to_string(mem)}, {"key_hash", sJsonStr(kh)},
        {"signed", sJsonBool(is_signed)}, {"consistent", sJsonBool(img.problems == 0)}, {"problems", sProblemList(img.problems)}};
    for (const auto &[key, value] : fields) vField(key, value);
    if (!a.json) {
        fprintf(g_out,
                "file:            %s (%llu bytes)\nmagic:           \"%s\"\nheader size:     %u\nmarks:           %u %u %u\n"
                "image version:   %s\nplain size:      %u\nencrypted size:  %u\ndec param:       %s\n"
                "ext memory size: 0x%08x (%u)\nkey hash:        %s\nsignature:       %s\nconsistent:      %s\n",
                path, size, magic.c_str(), hdr_size, h.prot_mark0, h.prot_mark1, h.prot_mark2, version.c_str(), plain, enc,
                dec.c_str(), mem, mem, kh.c_str(), is_signed ? "present" : "absent (unsigned)",
                img.problems ? ("no: " + problems).c_str() : "yes");
    }
    return img.problems ? iFail(EXIT_BAD_IMAGE, "%s: not a consistent protected image: %s", path, problems.c_str()) : EXIT_OK;
}

int iVerify(const Args &a)
{
    const int pins = (a.key_hash != nullptr) + (a.cfg != nullptr) + (a.key != nullptr) + a.no_pin;
    if (pins != 1)
        return iFail(EXIT_USAGE, pins == 0 ? "verify needs the key to check against: --key-hash HEX, --cfg CFG or --key KEY; "
                                             "--no-pin trusts the key the image carries"
                                           : "verify takes one of --key-hash, --cfg, --key and --no-pin");
    uint8_t pin[32];
    const char *from = a.key_hash != nullptr ? "--key-hash" : a.cfg;
    if (a.key_hash != nullptr && !bKeyHashFromHex(a.key_hash, pin))
        return iFail(EXIT_USAGE, "--key-hash takes 64 hex digits, not \"%s\"", a.key_hash);
    if (a.cfg != nullptr) {
        WipedParam cfg;
        const int rc = iLoadConfig(a.cfg, &cfg.param, AUTH_PARAM_N_SEEN);
        if (rc != EXIT_OK) return rc;
        vZIRNKeyHashV10(cfg.param.hdr.auth_n, pin);
    }
    if (a.key != nullptr) {
        std::unique_ptr<zk::Key> key;
        const int rc = iOpenKey(a.key, a.pass, false, &key);
        if (rc != EXIT_OK) return rc;
        vZIRNKeyHashV10(key->modulus(), pin);
        from = a.key;
    }
    const char *path = a.positional[0];
    vField("file", sJsonStr(path));
    vField("pinned", sJsonBool(!a.no_pin));
    Image img;
    int rc = iOpenImage(path, &img, true);
    if (rc != EXIT_OK) return rc;
    uint8_t key_hash[32];
    vZIRNKeyHashV10(img.hdr.auth_n, key_hash);
    const std::string kh = sHex(key_hash, 32);
    vField("key_hash", sJsonStr(kh));
    if (!a.no_pin && memcmp(key_hash, pin, 32) != 0)
        return iFail(EXIT_KEY_MISMATCH, "%s: signed for key %s, not for the key pinned by %s (%s)", path, kh.c_str(), from,
                     sHex(pin, 32).c_str());
    uint8_t hash[32];
    if (iReadZIRNImgBodyV10(img.in.fd, &img.hdr, hash, -1, nullptr, nullptr) != 0) return iFail(EXIT_IO, "cannot read %s", path);
    rc = iCheckSignature(path, img.hdr, hash);
    vField("signature", sJsonStr(rc == EXIT_OK ? "valid" : "invalid"));
    if (rc != EXIT_OK) return rc;
    if (a.no_pin)
        vWarn("the key was not pinned (--no-pin): the signature was checked with the modulus the image carries, "
              "which anyone can replace");
    if (!a.json) fprintf(g_out, "%s: signature valid, key %s%s\n", path, kh.c_str(), a.no_pin ? " (not pinned)" : "");
    return EXIT_OK;
}

int iDecrypt(const Args &a)
{
    if (a.cfg == nullptr || a.out == nullptr) return iFail(EXIT_USAGE, "decrypt: --cfg and -o are required");
    WipedParam cfg;
    int rc = iLoadConfig(a.cfg, &cfg.param, ENC_PARAM_SEEN | AUTH_PARAM_N_SEEN);
    if (rc != EXIT_OK) return rc;
    const char *path = a.positional[0];
    vField("file", sJsonStr(path));
    vField("output", sJsonStr(a.out));
    Image img;
    if ((rc = iOpenImage(path, &img, true)) != EXIT_OK) return rc;
    if (memcmp(img.hdr.auth_n, cfg.param.hdr.auth_n, sizeof img.hdr.auth_n) != 0)
        return iFail(EXIT_KEY_MISMATCH, "%s: not signed for the key of %s", path, a.cfg);
    // One pass: each ciphertext byte is read once, hashed and decrypted into the owner-only
    // temporary file, which becomes the output only when the signature over what was read holds.
    Output out;
    if ((rc = iOpenOutput(a.out, true, &out)) != EXIT_OK) return rc;
    uint8_t hash[32];
    const int32_t body = iReadZIRNImgBodyV10(img.in.fd, &img.hdr, hash, out.fd, cfg.param.enc_key, cfg.param.enc_iv);
    if (body == -1) return iFail(EXIT_IO, "cannot read %s", path);
    if (body != 0) return iFail(EXIT_IO, "cannot write %s", a.out);
    if ((rc = iCheckSignature(path, img.hdr, hash)) != EXIT_OK) return rc;
    if ((rc = iCommitOutput(&out)) != EXIT_OK) return rc;
    const uint32_t plain = ui4GetLE32(img.hdr.plain_size);
    vField("plain_size", std::to_string(plain));
    if (!a.json) fprintf(g_out, "%s: %u bytes decrypted from %s\n", a.out, plain, path);
    return EXIT_OK;
}

}  // namespace zi
