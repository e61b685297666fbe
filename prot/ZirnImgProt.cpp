#include "ZirnImgProt.h"
#include "ZirnImgProt_internal.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "hexdump.h"
#include "rijndael-alg-fst.h"
#include "rsa.h"
#include "rsa2048.h"
#include "sha256.h"
#include "workbuf.h"

namespace {

constexpr uint32_t RSA_BYTES = 256;
constexpr uint32_t RSA_BITS = 2048;
constexpr uint32_t RSA_WORDS = RSA_BYTES / 4;
constexpr uint32_t HASH_BYTES = 32;
constexpr uint32_t SALT_BYTES = 32;
constexpr int32_t VERIFY_UNSET = -10;

// The verification route works on 64 native words, least significant first.
// Converting word by word (rather than reversing the bytes in memory) keeps
// the result right on any host byte order.
void vBigEndianToWords(const uint8_t be[RSA_BYTES], uint32_t words[RSA_WORDS])
{
    for (uint32_t i = 0; i < RSA_WORDS; i++) {
        const uint8_t *p = be + RSA_BYTES - 4 * (i + 1);
        words[i] = uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
    }
}

void vWordsToBigEndian(const uint32_t words[RSA_WORDS], uint8_t be[RSA_BYTES])
{
    for (uint32_t i = 0; i < RSA_WORDS; i++) {
        uint8_t *p = be + RSA_BYTES - 4 * (i + 1);
        p[0] = uint8_t(words[i] >> 24);
        p[1] = uint8_t(words[i] >> 16);
        p[2] = uint8_t(words[i] >> 8);
        p[3] = uint8_t(words[i]);
    }
}

// Encrypted and hashed in pieces small enough to stay in the cache between the two passes over
// them; each piece is chained to the last ciphertext block of the one before, which gives the
// bytes of a single CBC call (whose length is a signed 32-bit count, too short for 2 GiB and more).
constexpr uint32_t PIECE = 256 * 1024;

}  // namespace

void vInitImgProtParamV10(ImgProtParam *param)
{
    memset(param, 0, sizeof *param);
    memcpy(param->hdr.magic, ZIRN_IMG_MAGIC, sizeof param->hdr.magic);
    vPutLE32(param->hdr.hdr_size, ZIRN_HDR_SIZE);
}

void vWipeImgProtParamV10(ImgProtParam *param) { vWipeBuf(param, sizeof *param); }

int32_t iSealZIRNImgV10(ImgProtParam *param, uint8_t *img, uint32_t plain_size, uint8_t hash[HASH_BYTES])
{
    ImgProtHdr *hdr = &param->hdr;
    hdr->prot_mark0 = 1;
    const uint32_t enc_size = ui4PaddedSz(plain_size);
    memset(img + plain_size, 0, enc_size - plain_size);
    // Every hashed header field is known before encryption (the signature field stays zero), so
    // the header is hashed first and the image in the same pass that encrypts it.
    vPutLE32(hdr->enc_size, enc_size);
    hdr->prot_mark1 = 1;
    hdr->prot_mark2 = 1;
    vPutLE32(hdr->plain_size, plain_size);

    sha256_ctx ctx;
    memset(hash, 0, HASH_BYTES);
    memset(&ctx, 0, sizeof ctx);
    if (sha256_init(&ctx) != 0) {
        printf("Error: fail to init SHA256 for the zirn header + encrypted zirn image\n");
        return -5;
    }
    // The header's own size field says how much of it is covered.
    if (sha256_process(&ctx, reinterpret_cast<const uint8_t *>(param), ui4GetLE32(hdr->hdr_size)) != 0) {
        printf("Error: fail to process SHA256 for the zirn header\n");
        return -5;
    }
    const uint8_t *iv = param->enc_iv;
    for (uint32_t off = 0; off < enc_size; off += PIECE) {
        const uint32_t len = enc_size - off < PIECE ? enc_size - off : PIECE;
        vAES128CBCEnc(param->enc_key, iv, img + off, img + off, int32_t(len));
        iv = img + off + len - 16;
        if (sha256_process(&ctx, img + off, len) != 0) {
            printf("Error: fail to process SHA256 for the encrypted zirn image\n");
            return -5;
        }
    }
    if (sha256_done(&ctx, hash) != 0) {
        printf("Error: fail to finish SHA256 for the zirn header + encrypted zirn image\n");
        return -5;
    }
    return 0;
}

void vZIRNRecoverBlockV10(const uint8_t n[RSA_BYTES], const uint8_t sig[RSA_BYTES], uint8_t em[RSA_BYTES])
{
    uint32_t s_le[RSA_WORDS], n_le[RSA_WORDS], r_le[RSA_WORDS];
    vBigEndianToWords(sig, s_le);
    vBigEndianToWords(n, n_le);
    RSADecryption65537(s_le, n_le, r_le);
    vWordsToBigEndian(r_le, em);
}

int32_t iVerifyZIRNImgSigV10(const ImgProtHdr *hdr, const uint8_t hash[HASH_BYTES])
{
    uint8_t em2[RSA_BYTES];
    vZIRNRecoverBlockV10(hdr->auth_n, hdr->auth_sig, em2);

    int32_t verdict = VERIFY_UNSET;
    if (pkcs_1_pss_decode_sha256(hash, HASH_BYTES, em2, RSA_BYTES, SALT_BYTES, RSA_BITS, &verdict) != 0) {
        printf("Error: fail to use platform flow to verify signature for the encrypted zirn image\n");
        return -8;
    }
    if (verdict != 1) {
        printf("Error: the verification result (by using platform flow) is incorrect se platform flow to verify "
               "signature for the encrypted zirn image\n");
        return -9;
    }
    return 0;
}

namespace {

int32_t iWriteProtectedImage(const ImgProtParam *param, const uint8_t *img, uint32_t plain_size,
                             uint32_t enc_size, const char *out_path)
{
    FILE *fp = fopen(out_path, "wb");
    if (fp == nullptr) {
        printf("Error: fail to open the file for the protected zirn image with header (%s)\n",
               out_path);
        return -2;
    }
    const char *what = nullptr;
    if (fwrite(&param->hdr, ZIRN_HDR_SIZE, 1, fp) != 1) {
        printf("Error: fail to write header (%d) to the file (%s)\n", int(ZIRN_HDR_SIZE), out_path);
        what = "header";
    } else if (fwrite(img, 1, enc_size, fp) != enc_size) {
        printf("Error: fail to write protected image data (%d) to the file (%s)\n",
               int(plain_size), out_path);
        what = "data";
    }
    if (fclose(fp) != 0) {
        printf("Error: fail to close the file for the protected zirn image with header (%s)\n",
               out_path);
        return what != nullptr ? -4 : -3;
    }
    return what != nullptr ? -4 : 0;
}

}  // namespace

uint32_t uiCheckZIRNImgHdrV10(const ImgProtHdr *hdr, uint64_t file_size)
{
    const uint32_t plain_size = ui4GetLE32(hdr->plain_size), enc_size = ui4GetLE32(hdr->enc_size);
    uint32_t problems = 0;
    if (memcmp(hdr->magic, ZIRN_IMG_MAGIC, sizeof hdr->magic) != 0) problems |= ZIRN_HDR_BAD_MAGIC;
    if (ui4GetLE32(hdr->hdr_size) != ZIRN_HDR_SIZE) problems |= ZIRN_HDR_BAD_HDR_SIZE;
    if (enc_size % 16 != 0 || enc_size < plain_size) problems |= ZIRN_HDR_BAD_ENC_SIZE;
    if (file_size != uint64_t(ZIRN_HDR_SIZE) + enc_size) problems |= ZIRN_HDR_BAD_FILE_SIZE;
    return problems;
}

void vZIRNKeyHashV10(const uint8_t n[RSA_BYTES], uint8_t hash[HASH_BYTES]) { sha256(n, RSA_BYTES, hash); }

namespace {

// Ciphertext read from a file travels through a buffer of this size.
constexpr uint32_t FILE_PIECE = 1024 * 1024;

}  // namespace

namespace {

// A whole piece, or a short count: the file ended early or failed.
bool lbReadAll(int fd, uint8_t *buf, uint32_t len)
{
    for (uint32_t got = 0; got < len;) {
        const ssize_t n = read(fd, buf + got, len - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        got += uint32_t(n);
    }
    return true;
}

bool lbWriteAll(int fd, const uint8_t *buf, uint32_t len)
{
    for (uint32_t done = 0; done < len;) {
        const ssize_t n = write(fd, buf + done, len - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += uint32_t(n);
    }
    return true;
}

}  // namespace

int32_t iReadZIRNImgBodyV10(int fd, const ImgProtHdr *hdr, uint8_t hash[HASH_BYTES], int out, const uint8_t *key,
                            const uint8_t *iv)
{
    ImgProtHdr unsigned_hdr = *hdr;
    memset(unsigned_hdr.auth_sig, 0, sizeof unsigned_hdr.auth_sig);
    sha256_ctx ctx;
    sha256_init(&ctx);
    sha256_process(&ctx, reinterpret_cast<const uint8_t *>(&unsigned_hdr), ZIRN_HDR_SIZE);
    // Each piece is decrypted with the last ciphertext block of the one before as its IV; the plain
    // image passes through one buffer, wiped however the loop ends.
    std::vector<uint8_t> piece(FILE_PIECE);
    uint8_t chain[16] = {};
    if (key != nullptr) memcpy(chain, iv, sizeof chain);
    uint32_t plain_left = ui4GetLE32(hdr->plain_size);
    int32_t rc = 0;
    for (uint32_t left = ui4GetLE32(hdr->enc_size), len; left > 0 && rc == 0; left -= len) {
        len = left < FILE_PIECE ? left : FILE_PIECE;
        const uint32_t keep = key == nullptr || plain_left > len ? len : plain_left;
        if (!lbReadAll(fd, piece.data(), len)) {
            rc = -1;
            break;
        }
        sha256_process(&ctx, piece.data(), len);
        if (out < 0) continue;
        if (key != nullptr) {
            uint8_t next[16];
            memcpy(next, piece.data() + len - 16, sizeof next);
            vAES128CBCDec(key, chain, piece.data(), piece.data(), int32_t(len));
            memcpy(chain, next, sizeof chain);
            plain_left -= keep;
        }
        if (!lbWriteAll(out, piece.data(), keep)) rc = -2;
    }
    vWipeBuf(piece.data(), piece.size());
    sha256_done(&ctx, hash);
    return rc;
}

int32_t iProtZIRNImgV10(ImgProtParam *param, uint8_t *img, uint32_t plain_size,
                        const char *out_path)
{
    if (img == nullptr) {
        printf("Error: input zirn img buffer is NULL\n");
        return -1;
    }
    if (param == nullptr) {
        printf("Error: input parameter structure is NULL\n");
        return -1;
    }
    if (out_path == nullptr) {
        printf("Error: output file name is NULL\n");
        return -1;
    }
    ImgProtHdr *hdr = &param->hdr;

    const uint32_t enc_size = ui4PaddedSz(plain_size);
    uint8_t hash[HASH_BYTES];
    int32_t ret = iSealZIRNImgV10(param, img, plain_size, hash);
    if (ret != 0) return ret;
    printf("Hash for zirn header + image:\n");
    vHexDumpBuf(hash, HASH_BYTES);

    uint8_t em[RSA_BYTES];
    uint32_t em_len = RSA_BYTES;
    memset(em, 0, sizeof em);
    if (pkcs_1_pss_encode_sha256(hash, HASH_BYTES, SALT_BYTES, RSA_BITS, em, &em_len) != 0) {
        printf("Error: fail to peform pcks#1 pss encode for the encrypted zirn image\n");
        return -6;
    }
    printf("PKCS#1 PSS for hash of zirn image:\n");
    vHexDumpBuf(em, int32_t(em_len));

    // em_len is both the input length and, on return, the signature length.
    if (rsa_exptmod(em, int32_t(em_len), hdr->auth_sig, &em_len, param->auth_d, RSA_BYTES,
                    hdr->auth_n, RSA_BYTES) != 0) {
        printf("Error: fail to peform pcks#1 pss encode for the encrypted zirn image\n");
        return -7;
    }

    ret = iVerifyZIRNImgSigV10(hdr, hash);
    if (ret != 0) return ret;
    printf("Succeed to verify the signature of zirn image\n");

    return iWriteProtectedImage(param, img, plain_size, enc_size, out_path);
}
