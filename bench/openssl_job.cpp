// The signer's job done in one process on OpenSSL's fastest primitives (AES-128-CBC and SHA-256
// through EVP, on the processor's instructions), a reference for bench/bench_tool.sh.  Signs as the
// tool must, without the CRT: PSS encoding, then the encoded block raised to the private exponent.
//
//   openssl_job KEY.pem AESKEY_HEX IV_HEX IN OUT MEMSIZE
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

std::vector<uint8_t> hex(const char *s)
{
    std::vector<uint8_t> b(strlen(s) / 2);
    for (size_t i = 0; i < b.size(); i++) sscanf(s + 2 * i, "%2hhx", &b[i]);
    return b;
}

void put32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; i++) p[i] = uint8_t(v >> 8 * i);
}

[[noreturn]] void fail(const char *what)
{
    fprintf(stderr, "openssl_job: %s\n", what);
    exit(1);
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 7) fail("usage: openssl_job KEY.pem AESKEY_HEX IV_HEX IN OUT MEMSIZE");
    FILE *kf = fopen(argv[1], "r");
    EVP_PKEY *pkey = kf ? PEM_read_PrivateKey(kf, nullptr, nullptr, nullptr) : nullptr;
    BIGNUM *n = nullptr, *d = nullptr;
    if (pkey == nullptr || !EVP_PKEY_get_bn_param(pkey, OSSL_PKEY_PARAM_RSA_N, &n) || !EVP_PKEY_get_bn_param(pkey, OSSL_PKEY_PARAM_RSA_D, &d))
        fail("cannot read the key");
    const std::vector<uint8_t> key = hex(argv[2]), iv = hex(argv[3]);

    FILE *in = fopen(argv[4], "rb");
    if (in == nullptr || fseek(in, 0, SEEK_END) != 0) fail("cannot read the image");
    const size_t size = size_t(ftell(in)), padded = (size + 15) & ~size_t(15), huge = size_t(2) << 20;
    rewind(in);
    uint8_t *img = static_cast<uint8_t *>(aligned_alloc(huge, (padded + huge - 1) / huge * huge));
    madvise(img, (padded + huge - 1) / huge * huge, MADV_HUGEPAGE);
    if (fread(img, 1, size, in) != size) fail("cannot read the image");
    fclose(in);
    memset(img + size, 0, padded - size);

    EVP_CIPHER_CTX *c = EVP_CIPHER_CTX_new();
    int len = 0;
    EVP_EncryptInit_ex(c, EVP_aes_128_cbc(), nullptr, key.data(), iv.data());
    EVP_CIPHER_CTX_set_padding(c, 0);
    for (size_t off = 0; off < padded; off += 1 << 30) EVP_EncryptUpdate(c, img + off, &len, img + off, int(std::min(padded - off, size_t(1) << 30)));
    EVP_CIPHER_CTX_free(c);

    uint8_t hdr[576] = {'E', 'E', 'T', ' ', 'X', 'O', 'Q', ' '}, digest[32], em[256];
    put32(hdr + 8, 576);
    hdr[12] = hdr[13] = hdr[14] = 1;
    put32(hdr + 20, uint32_t(size));
    put32(hdr + 24, uint32_t(padded));
    BN_bn2binpad(n, hdr + 60, 256);
    put32(hdr + 572, uint32_t(strtoul(argv[6], nullptr, 16)));
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    EVP_DigestInit_ex(md, EVP_sha256(), nullptr);
    EVP_DigestUpdate(md, hdr, sizeof hdr);
    EVP_DigestUpdate(md, img, padded);
    EVP_DigestFinal_ex(md, digest, nullptr);
    EVP_MD_CTX_free(md);

    RSA *rsa = RSA_new();
    RSA_set0_key(rsa, BN_dup(n), BN_bin2bn(reinterpret_cast<const uint8_t *>("\x01\x00\x01"), 3, nullptr), nullptr);
    BN_CTX *bc = BN_CTX_new();
    BIGNUM *m = BN_new(), *s = BN_new(), *back = BN_new(), *e = BN_new();
    BN_set_word(e, 65537);
    if (!RSA_padding_add_PKCS1_PSS_mgf1(rsa, em, digest, EVP_sha256(), EVP_sha256(), 32)) fail("PSS encoding failed");
    BN_bin2bn(em, 256, m);
    BN_set_flags(d, BN_FLG_CONSTTIME);
    if (!BN_mod_exp_mont_consttime(s, m, d, n, bc, nullptr)) fail("signing failed");
    BN_bn2binpad(s, hdr + 316, 256);
    // The signature checked again before anything is written, as the tool does.
    BN_mod_exp(back, s, e, n, bc);
    BN_bn2binpad(back, em, 256);
    if (RSA_verify_PKCS1_PSS_mgf1(rsa, digest, EVP_sha256(), EVP_sha256(), em, 32) != 1) fail("the signature does not verify");

    FILE *out = fopen(argv[5], "wb");
    if (out == nullptr || fwrite(hdr, sizeof hdr, 1, out) != 1 || fwrite(img, 1, padded, out) != padded || fclose(out) != 0)
        fail("cannot write the output");
    return 0;
}
