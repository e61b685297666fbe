// Key files, read with OpenSSL's libcrypto (reading only: the signature is made by the project's
// own code, as for the configuration's key).
#include <cstring>

#include "keys_internal.h"
#include "workbuf.h"

#ifdef ZIRN_HAVE_KEYFILE
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/decoder.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#endif

namespace zk {

#ifndef ZIRN_HAVE_KEYFILE

bool keyfile_available() { return false; }

KeyError detail::open_keyfile(const std::string &, const KeyOptions &, std::unique_ptr<Key> *)
{
    return detail::fail(KeyErr::unavailable,
                        "this build reads no key files (it was built without OpenSSL's libcrypto)");
}

#else

bool keyfile_available() { return true; }

namespace {

using detail::fail;

struct Passphrase {
    const KeyOptions *opt;
    std::string what;
    bool asked = false;
    KeyError err;
};

// Asked for only when the file turns out to be encrypted.
int passphrase_cb(char *buf, int size, int, void *u)
{
    auto *p = static_cast<Passphrase *>(u);
    if (p->asked) return -1;  // one passphrase per file: a wrong one is not asked again
    p->asked = true;
    detail::Secret s;
    p->err = detail::get_secret(p->opt->pass, p->what, &s);
    if (p->err) return -1;
    if (s.len > size_t(size)) {
        p->err = fail(KeyErr::usage, "the " + p->what + " is too long");
        return -1;
    }
    memcpy(buf, s.text, s.len);
    return int(s.len);
}

struct Owned {
    EVP_PKEY *pkey = nullptr;
    OSSL_DECODER_CTX *dctx = nullptr;
    BIGNUM *n = nullptr, *e = nullptr, *d = nullptr;
    std::vector<uint8_t> file;
    ~Owned()
    {
        BN_free(n);
        BN_free(e);
        BN_clear_free(d);
        OSSL_DECODER_CTX_free(dctx);
        EVP_PKEY_free(pkey);
        vWipeBuf(file.data(), file.size());
        ERR_clear_error();  // nothing of a failed decode lingers for later callers
    }
};

}  // namespace

KeyError detail::open_keyfile(const std::string &path, const KeyOptions &opt, std::unique_ptr<Key> *out)
{
    Owned o;
    if (KeyError err = read_file_once(path, 1 << 20, &o.file)) return err;
    Passphrase pass{&opt, "passphrase of " + path, false, {}};
    // Any input form (PEM or DER), any structure (PKCS#1, PKCS#8, encrypted or not, public key).
    o.dctx = OSSL_DECODER_CTX_new_for_pkey(&o.pkey, nullptr, nullptr, nullptr, 0, nullptr, nullptr);
    if (o.dctx == nullptr || OSSL_DECODER_CTX_set_pem_password_cb(o.dctx, passphrase_cb, &pass) != 1)
        return fail(KeyErr::unavailable, "libcrypto has no key decoders");
    const unsigned char *data = o.file.data();
    size_t len = o.file.size();
    if (OSSL_DECODER_from_data(o.dctx, &data, &len) != 1 || o.pkey == nullptr) {
        if (pass.err) return pass.err;
        if (pass.asked) return fail(KeyErr::pin, "wrong passphrase for " + path + " (or a damaged encrypted key)");
        return fail(KeyErr::unsupported_key, path + " holds no key in PEM or DER form");
    }
    if (!EVP_PKEY_is_a(o.pkey, "RSA")) return fail(KeyErr::unsupported_key, path + " is not an RSA key");
    uint8_t n[256], d[256];
    if (EVP_PKEY_get_bn_param(o.pkey, OSSL_PKEY_PARAM_RSA_N, &o.n) != 1 ||
        EVP_PKEY_get_bn_param(o.pkey, OSSL_PKEY_PARAM_RSA_E, &o.e) != 1)
        return fail(KeyErr::unsupported_key, path + ": the RSA key has no modulus or exponent");
    if (BN_num_bits(o.n) != 2048 || !BN_is_word(o.e, 65537) || BN_bn2binpad(o.n, n, 256) != 256)
        return fail(KeyErr::unsupported_key, path + " is a " + std::to_string(BN_num_bits(o.n)) + "-bit key" +
                                                 (BN_is_word(o.e, 65537) ? "" : " with e != 65537") +
                                                 ", not RSA-2048 with e = 65537");
    const bool has_d = EVP_PKEY_get_bn_param(o.pkey, OSSL_PKEY_PARAM_RSA_D, &o.d) == 1;
    if (!has_d && opt.need_private)
        return fail(KeyErr::unsupported_key, path + " holds a public key only: signing needs the private key");
    if (has_d && BN_bn2binpad(o.d, d, 256) != 256)
        return fail(KeyErr::unsupported_key, path + ": the private exponent is too long");
    *out = make_raw_key(n, has_d ? d : nullptr, "key file " + path);
    vWipeBuf(d, sizeof d);
    return {};
}

#endif

}  // namespace zk
