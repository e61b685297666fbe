#include "oracle.h"

#include <map>
#include <memory>
#include <stdexcept>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

namespace zt {

namespace {

struct BnFree {
    void operator()(BIGNUM *b) const { BN_free(b); }
};
using Bn = std::unique_ptr<BIGNUM, BnFree>;

Bn bn_of(const Bytes &b) { return Bn(BN_bin2bn(b.data(), int(b.size()), nullptr)); }

Bytes bytes_of(const BIGNUM *bn, size_t len)
{
    Bytes out(len);
    if (BN_bn2binpad(bn, out.data(), int(len)) < 0) throw std::runtime_error("BN_bn2binpad");
    return out;
}

void check(bool ok, const char *what)
{
    if (!ok) throw std::runtime_error(what);
}

EVP_PKEY *public_key(const Bytes &n)
{
    Bn bn_n = bn_of(n), bn_e(BN_new());
    BN_set_word(bn_e.get(), 65537);
    OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_N, bn_n.get());
    OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_E, bn_e.get());
    OSSL_PARAM *params = OSSL_PARAM_BLD_to_param(bld);
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
    EVP_PKEY *pkey = nullptr;
    check(EVP_PKEY_fromdata_init(ctx) == 1 &&
              EVP_PKEY_fromdata(ctx, &pkey, EVP_PKEY_PUBLIC_KEY, params) == 1,
          "EVP_PKEY_fromdata");
    EVP_PKEY_CTX_free(ctx);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(bld);
    return pkey;
}

}  // namespace

const RsaKey &test_key(int i)
{
    static std::map<int, RsaKey> cache;
    auto it = cache.find(i);
    if (it != cache.end()) return it->second;
    EVP_PKEY *pkey = EVP_RSA_gen(2048);
    check(pkey != nullptr, "EVP_RSA_gen");
    BIGNUM *n = nullptr, *d = nullptr;
    check(EVP_PKEY_get_bn_param(pkey, OSSL_PKEY_PARAM_RSA_N, &n) == 1 &&
              EVP_PKEY_get_bn_param(pkey, OSSL_PKEY_PARAM_RSA_D, &d) == 1,
          "EVP_PKEY_get_bn_param");
    RsaKey key{bytes_of(n, 256), bytes_of(d, 256)};
    BN_free(n);
    BN_clear_free(d);
    EVP_PKEY_free(pkey);
    return cache.emplace(i, std::move(key)).first->second;
}

bool pss_verify_sha256(const Bytes &n, const Bytes &msg, const Bytes &sig)
{
    EVP_PKEY *pkey = public_key(n);
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    EVP_PKEY_CTX *pctx = nullptr;
    check(EVP_DigestVerifyInit(md, &pctx, EVP_sha256(), nullptr, pkey) == 1 &&
              EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) == 1 &&
              EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, 32) == 1 &&
              EVP_PKEY_CTX_set_rsa_mgf1_md(pctx, EVP_sha256()) == 1,
          "EVP_DigestVerifyInit");
    int ok = EVP_DigestVerify(md, sig.data(), sig.size(), msg.data(), msg.size());
    EVP_MD_CTX_free(md);
    EVP_PKEY_free(pkey);
    return ok == 1;
}

Bytes rsa_public_raw(const Bytes &n, const Bytes &sig)
{
    Bn bn_n = bn_of(n), bn_s = bn_of(sig), bn_e(BN_new()), r(BN_new());
    BN_set_word(bn_e.get(), 65537);
    BN_CTX *ctx = BN_CTX_new();
    check(BN_mod_exp(r.get(), bn_s.get(), bn_e.get(), bn_n.get(), ctx) == 1, "BN_mod_exp");
    BN_CTX_free(ctx);
    return bytes_of(r.get(), 256);
}

Bytes aes128_cbc_decrypt(const Bytes &key, const Bytes &iv, const Bytes &ct)
{
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    Bytes out(ct.size() + 16);
    int n1 = 0, n2 = 0;
    check(EVP_DecryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr, key.data(), iv.data()) == 1 &&
              EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
              EVP_DecryptUpdate(ctx, out.data(), &n1, ct.data(), int(ct.size())) == 1 &&
              EVP_DecryptFinal_ex(ctx, out.data() + n1, &n2) == 1,
          "AES-128-CBC decrypt");
    EVP_CIPHER_CTX_free(ctx);
    out.resize(size_t(n1 + n2));
    return out;
}

Bytes sha256_of(const Bytes &msg)
{
    Bytes out(32);
    unsigned int len = 0;
    check(EVP_Digest(msg.data(), msg.size(), out.data(), &len, EVP_sha256(), nullptr) == 1,
          "EVP_Digest");
    return out;
}

std::string cfg_text(const Bytes &img_ver, const Bytes &iv, const Bytes &key, const Bytes &dec_param,
                     const Bytes &n, const Bytes &d)
{
    return "# zirn image protection configuration\n"
           "IMG_VER = 0x" + to_hex(img_ver) + "\n" +
           "ENC_PARAM = 0x" + to_hex(iv) + to_hex(key) + "\n" +
           "DEC_PARAM = 0x" + to_hex(dec_param) + "\n" +
           "AUTH_PARAM_N = 0x" + to_hex(n) + "\n" +
           "AUTH_PARAM_D = 0x" + to_hex(d) + "\n";
}

}  // namespace zt
