// zirnimg's commands and what they share: the parsed command line, the protected image read once
// from its file, and the check of its signature.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "ZirnImgProt.h"
#include "config.h"
#include "files.h"
#include "keysource.h"

namespace zi {

// The command line after the command's name.  Options may stand anywhere; "--" ends them.
struct Args {
    std::vector<const char *> positional;
    const char *cfg = nullptr, *key_hash = nullptr, *out = nullptr, *key = nullptr, *helper = nullptr, *pass = nullptr,
               *digest_out = nullptr, *img_ver = nullptr, *dec_param = nullptr, *enc_param = nullptr;
    bool json = false, help = false, no_pin = false, public_only = false, force = false;
};

// Each returns its exit status.
int iInfo(const Args &a);
int iVerify(const Args &a);
int iDecrypt(const Args &a);
int iPubhash(const Args &a);
int iPrepare(const Args &a);
int iStitch(const Args &a);
int iSign(const Args &a);
int iKeycfg(const Args &a);

// A protected image: its file, positioned after the header, the header, and the header's problems
// (ZIRN_HDR_* bits).  With strict, an inconsistent header is a failure (EXIT_BAD_IMAGE).
struct Image {
    Input in;
    ImgProtHdr hdr;
    uint32_t problems = 0;
};
int iOpenImage(const char *path, Image *img, bool strict);

// Checks hdr's signature over hash through the signer's verification route, refusing a signature
// that is not smaller than the modulus.  On failure says why (EXIT_BAD_SIGNATURE).
int iCheckSignature(const char *path, const ImgProtHdr &hdr, const uint8_t hash[32]);

// A plain image sealed for signing as the signer does it: the configuration (with the keys in
// need), the padded image encrypted in place, and the hash to sign.  Checks the memory size, and
// the image for being a regular file, not empty, under 4 GiB and fitting the memory size.
struct Sealed {
    WipedParam cfg;
    uint8_t *img = nullptr;
    uint32_t plain_size = 0;
    uint8_t hash[32] = {};
    Sealed() = default;
    Sealed(const Sealed &) = delete;
    Sealed &operator=(const Sealed &) = delete;
    ~Sealed();
};
int iSealImage(const char *cfg_path, const char *in_path, const char *sz, uint32_t need, Sealed *s);
// Writes the header and the ciphertext of s to path.
int iWriteImage(const char *path, const Sealed &s);

// Opens the key described by source (a PKCS#11 URI or a key file), with the passphrase or PIN from
// pass (null: a prompt on the terminal).  Returns EXIT_OK or the key source's failure status.
int iOpenKey(const char *source, const char *pass, bool need_private, std::unique_ptr<zk::Key> *key);

// A size given to the companion: decimal, or 0x and hex digits; 1 to 2^32 - 1.
bool bParseSize(const char *text, uint32_t *size);

}  // namespace zi
