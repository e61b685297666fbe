// Protected zirn image: the on-disk header, the in-memory parameter record
// that carries it, and the protection pipeline.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// Header written verbatim at offset 0 of the protected image (576 bytes).
// Every member is a byte array, so the record has no padding and the 32-bit
// fields are little-endian in the file on any host: access them with
// ui4GetLE32 / vPutLE32.  img_ver sits at the odd offset 15 on purpose.
struct ImgProtHdr {
    uint8_t magic[8];         // "EET XOQ " (trailing blank included, no NUL)
    uint8_t hdr_size[4];      // u32 LE, 576; also the number of header bytes hashed
    uint8_t prot_mark0;       // 1, set before padding and encryption
    uint8_t prot_mark1;       // 1, set after encryption
    uint8_t prot_mark2;       // 1, set after encryption
    uint8_t img_ver[2];       // IMG_VER bytes in the order written
    uint8_t reserved0[3];     // always zero
    uint8_t plain_size[4];    // u32 LE, image size before padding
    uint8_t enc_size[4];      // u32 LE, padded size = bytes of ciphertext that follow
    uint8_t dec_param[32];    // DEC_PARAM, opaque to the tool
    uint8_t auth_n[256];      // RSA-2048 modulus, big-endian
    uint8_t auth_sig[256];    // RSA-PSS signature, big-endian; zero while hashing
    uint8_t ext_mem_size[4];  // u32 LE, external memory size from the command line
};

// The run's parameter record (868 bytes, never written to disk beyond hdr).
struct ImgProtParam {
    ImgProtHdr hdr;
    uint8_t enc_iv[16];     // first 16 bytes of ENC_PARAM: AES-128-CBC IV
    uint8_t enc_key[16];    // second 16 bytes of ENC_PARAM: AES-128 key
    uint8_t auth_d[256];    // RSA private exponent, big-endian
    uint8_t keys_seen[4];   // u32 LE bit set of parsed keys (IMG_VER_SEEN ...)
};

static_assert(sizeof(ImgProtHdr) == 576);
static_assert(offsetof(ImgProtHdr, magic) == 0);
static_assert(offsetof(ImgProtHdr, hdr_size) == 8);
static_assert(offsetof(ImgProtHdr, prot_mark0) == 12);
static_assert(offsetof(ImgProtHdr, prot_mark1) == 13);
static_assert(offsetof(ImgProtHdr, prot_mark2) == 14);
static_assert(offsetof(ImgProtHdr, img_ver) == 15);
static_assert(offsetof(ImgProtHdr, reserved0) == 17);
static_assert(offsetof(ImgProtHdr, plain_size) == 20);
static_assert(offsetof(ImgProtHdr, enc_size) == 24);
static_assert(offsetof(ImgProtHdr, dec_param) == 28);
static_assert(offsetof(ImgProtHdr, auth_n) == 60);
static_assert(offsetof(ImgProtHdr, auth_sig) == 316);
static_assert(offsetof(ImgProtHdr, ext_mem_size) == 572);
static_assert(sizeof(ImgProtParam) == 868);
static_assert(offsetof(ImgProtParam, enc_iv) == 576);
static_assert(offsetof(ImgProtParam, enc_key) == 592);
static_assert(offsetof(ImgProtParam, auth_d) == 608);
static_assert(offsetof(ImgProtParam, keys_seen) == 864);

constexpr uint32_t ZIRN_HDR_SIZE = 576;
constexpr char ZIRN_IMG_MAGIC[8] = {'E', 'E', 'T', ' ', 'X', 'O', 'Q', ' '};

// keys_seen bits.
constexpr uint32_t IMG_VER_SEEN = 0x01;
constexpr uint32_t DEC_PARAM_SEEN = 0x02;
constexpr uint32_t ENC_PARAM_SEEN = 0x04;
constexpr uint32_t AUTH_PARAM_N_SEEN = 0x08;
constexpr uint32_t AUTH_PARAM_D_SEEN = 0x10;

// Little-endian 32-bit field access, independent of the host byte order.
constexpr uint32_t ui4GetLE32(const uint8_t p[4])
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
constexpr void vPutLE32(uint8_t p[4], uint32_t v)
{
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
    p[2] = uint8_t(v >> 16);
    p[3] = uint8_t(v >> 24);
}

// A fresh record: all 868 bytes zero, then the magic and the header size.
void vInitImgProtParamV10(ImgProtParam *param);

// Overwrites the whole record with zeros (the AES key and the private exponent among them) in a
// way the compiler may not drop although the record is not read again.
void vWipeImgProtParamV10(ImgProtParam *param);

// Padded image size: plain size rounded up to a multiple of 16.
constexpr uint32_t ui4PaddedSz(uint32_t plain_size) { return (plain_size + 15) & ~uint32_t(15); }

// Seals the image for signing: sets the three marks and both sizes in param->hdr, zero-pads img
// (which must hold ui4PaddedSz(plain_size) bytes) and encrypts it in place with AES-128-CBC under
// param->enc_key and enc_iv, and writes to hash the SHA-256 of the header's first hdr_size bytes
// (signature field as it stands, zero until signed) followed by the ciphertext.  param and img
// stay owned by the caller.  Returns 0, or -5 when a SHA-256 step fails (its message printed).
int32_t iSealZIRNImgV10(ImgProtParam *param, uint8_t *img, uint32_t plain_size, uint8_t hash[32]);

// Checks hdr->auth_sig against hash (the SHA-256 that iSealZIRNImgV10 gives) through the
// independent route: the public exponent 65537 on 32-bit word arrays with the modulus
// hdr->auth_n, then PSS decoding (SHA-256, salt 32, 2048 bits).  Returns 0 when the signature
// matches; -8 the decoding failed, -9 no match (the message of each printed).
int32_t iVerifyZIRNImgSigV10(const ImgProtHdr *hdr, const uint8_t hash[32]);

// Reading protected image files (the companion tool).  None of these prints anything.

// Problems of a header read from a file of file_size bytes, as bits of uiCheckZIRNImgHdrV10's
// result (0: consistent).
constexpr uint32_t ZIRN_HDR_BAD_MAGIC = 0x01;      // not "EET XOQ "
constexpr uint32_t ZIRN_HDR_BAD_HDR_SIZE = 0x02;   // hdr_size is not 576
constexpr uint32_t ZIRN_HDR_BAD_ENC_SIZE = 0x04;   // enc_size not a multiple of 16, or below plain_size
constexpr uint32_t ZIRN_HDR_BAD_FILE_SIZE = 0x08;  // the file is not 576 + enc_size bytes long
uint32_t uiCheckZIRNImgHdrV10(const ImgProtHdr *hdr, uint64_t file_size);

// The key fingerprint: SHA-256 of the 256-byte modulus as the header carries it.
void vZIRNKeyHashV10(const uint8_t n[256], uint8_t hash[32]);

// Reads the body of an image once: hdr's enc_size bytes of ciphertext from fd (positioned at the
// first ciphertext byte), in pieces.  The hash a signature covers goes to hash: SHA-256 of hdr with
// its signature field zeroed, then the ciphertext.  When out is not negative, each piece is also
// written to out: as read when key is null, or else decrypted with AES-128-CBC under key and iv,
// exactly hdr's plain_size bytes in all.  Every byte is read once, so what is written is exactly
// what was hashed.  Returns 0; -1 reading failed or the file ended early; -2 writing failed.
int32_t iReadZIRNImgBodyV10(int fd, const ImgProtHdr *hdr, uint8_t hash[32], int out, const uint8_t *key,
                            const uint8_t *iv);

// Pads (img must hold ui4PaddedSz(plain_size) bytes), encrypts in place,
// completes param->hdr, signs it, re-verifies the signature through the
// independent 65537 route and only then writes header + ciphertext to
// out_path.  param and img stay owned by the caller; both are modified.
// Returns 0; -1 null argument; -2 open; -3 close; -4 write; -5 SHA-256;
// -6 PSS encoding; -7 RSA signing; -8 PSS decoding error; -9 verdict not 1.
int32_t iProtZIRNImgV10(ImgProtParam *param, uint8_t *img, uint32_t plain_size,
                        const char *out_path);
