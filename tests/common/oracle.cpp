#include "oracle.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <stdexcept>

namespace zt {

namespace {

void check(bool ok, const char *what)
{
    if (!ok) throw std::runtime_error(what);
}

Bytes bytes_of(const BIGNUM *b, size_t len)
{
    Bytes out(len ? len : size_t(BN_num_bytes(b)));
    check(BN_bn2binpad(b, out.data(), int(out.size())) >= 0, "BN_bn2binpad");
    return out;
}

const char *const kKeyPaths[] = {ZIRN_SOURCE_DIR "/example/dev_key.NOT_FOR_PRODUCTION.pem",
                                  ZIRN_VECTORS_DIR "/second_key.pem"};

EVP_PKEY *read_pkey(const char *path)
{
    FILE *f = fopen(path, "r");
    check(f != nullptr, path);
    EVP_PKEY *pkey = PEM_read_PrivateKey(f, nullptr, nullptr, nullptr);
    fclose(f);
    check(pkey != nullptr, path);
    return pkey;
}

RsaKey load_key(const char *path)
{
    EVP_PKEY *pkey = read_pkey(path);
    RsaKey k;
    for (auto [name, out, len] : {std::tuple{OSSL_PKEY_PARAM_RSA_N, &k.n, 256},
                                  {OSSL_PKEY_PARAM_RSA_E, &k.e, 0},
                                  {OSSL_PKEY_PARAM_RSA_D, &k.d, 256}}) {
        BIGNUM *b = nullptr;
        check(EVP_PKEY_get_bn_param(pkey, name, &b) == 1, path);
        *out = bytes_of(b, size_t(len));
        BN_clear_free(b);
    }
    EVP_PKEY_free(pkey);
    return k;
}

}  // namespace

const RsaKey &test_key(int i)
{
    static const RsaKey keys[] = {load_key(kKeyPaths[0]), load_key(kKeyPaths[1])};
    return keys[i];
}

Bytes sign_digest(int key, const Bytes &digest, int salt_len, const char *mgf1)
{
    static EVP_PKEY *const pkeys[] = {read_pkey(kKeyPaths[0]), read_pkey(kKeyPaths[1])};
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(pkeys[key], nullptr);
    Bytes sig(256);
    size_t len = sig.size();
    const bool pss = salt_len >= 0;
    const int padding = pss ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING;
    check(ctx != nullptr && EVP_PKEY_sign_init(ctx) == 1 &&
              EVP_PKEY_CTX_set_signature_md(ctx, EVP_sha256()) == 1 &&
              EVP_PKEY_CTX_set_rsa_padding(ctx, padding) == 1 &&
              (!pss || (EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx, salt_len) == 1 &&
                        EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, EVP_get_digestbyname(mgf1)) == 1)) &&
              EVP_PKEY_sign(ctx, sig.data(), &len, digest.data(), digest.size()) == 1 &&
              len == sig.size(),
          "EVP_PKEY_sign");
    EVP_PKEY_CTX_free(ctx);
    return sig;
}

Bytes modexp(const Bytes &base, const Bytes &exp, const Bytes &n, size_t len)
{
    Bn r(BN_new());
    check(BN_mod_exp(r.get(), bn(base).get(), bn(exp).get(), bn(n).get(), bn_ctx()), "BN_mod_exp");
    return bytes_of(r.get(), len);
}

Bytes plus_n(const Bytes &s, const Bytes &n)
{
    Bn sum(BN_new());
    BN_add(sum.get(), bn(s).get(), bn(n).get());
    return BN_num_bytes(sum.get()) <= 256 ? bytes_of(sum.get(), 256) : Bytes{};
}

bool pss_accepts_em(const Bytes &mhash, const Bytes &em, uint32_t bits, int salt_len)
{
    BIGNUM *n = BN_new();  // only the key's bit count matters to the check
    BN_set_bit(n, int(bits) - 1);
    BN_set_bit(n, 0);
    RSA *rsa = RSA_new();
    RSA_set0_key(rsa, n, bn({0x01, 0x00, 0x01}).release(), nullptr);
    const EVP_MD *sha = EVP_sha256();
    const int ok = RSA_verify_PKCS1_PSS_mgf1(rsa, mhash.data(), sha, sha, em.data(), salt_len);
    RSA_free(rsa);
    return ok == 1;
}

Bytes cipher(const char *name, const Bytes &key, const Bytes &iv, const Bytes &in, bool enc)
{
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    Bytes out(in.size() + 16);
    int n1 = 0, n2 = 0;
    const uint8_t *ivp = iv.empty() ? nullptr : iv.data();
    check(EVP_CipherInit_ex(ctx, EVP_get_cipherbyname(name), nullptr, key.data(), ivp, enc) &&
              EVP_CIPHER_CTX_set_padding(ctx, 0) &&
              EVP_CipherUpdate(ctx, out.data(), &n1, in.data(), int(in.size())) &&
              EVP_CipherFinal_ex(ctx, out.data() + n1, &n2),
          name);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(size_t(n1 + n2));
    return out;
}

Bytes sha256(const Bytes &msg)
{
    Bytes out(32);
    check(EVP_Digest(msg.data(), msg.size(), out.data(), nullptr, EVP_sha256(), nullptr) == 1,
          "EVP_Digest");
    return out;
}

Bytes mgf1(const Bytes &seed, size_t len)
{
    Bytes mask(len + 1);
    check(PKCS1_MGF1(mask.data(), long(len), seed.data(), long(seed.size()), EVP_sha256()) == 0,
          "PKCS1_MGF1");
    mask.resize(len);
    return mask;
}

Bn bn(const Bytes &be, bool negative)
{
    Bn b(BN_bin2bn(be.data(), int(be.size()), nullptr));
    BN_set_negative(b.get(), negative);
    return b;
}

BN_CTX *bn_ctx()
{
    static BN_CTX *ctx = BN_CTX_new();
    return ctx;
}

std::string cfg_text(const Bytes &img_ver, const Bytes &iv, const Bytes &aes_key,
                     const Bytes &dec_param, const RsaKey &rsa, const Bytes *d)
{
    return "# zirn image protection configuration\nIMG_VER = 0x" + to_hex(img_ver) +
           "\nENC_PARAM = 0x" + to_hex(iv) + to_hex(aes_key) +
           "\nDEC_PARAM = 0x" + to_hex(dec_param) +
           "\nAUTH_PARAM_N = 0x" + to_hex(rsa.n) +
           "\nAUTH_PARAM_D = 0x" + to_hex(d ? *d : rsa.d) + "\n";
}

}  // namespace zt
