// PKCS#11 keys through p11-kit: module from the URI or p11-kit's configuration, one token, one
// login (never retried), one key object; signatures made on the token.
#include <algorithm>
#include <cstring>

#include "keys_internal.h"
#include "workbuf.h"

#ifdef ZIRN_HAVE_P11KIT
#include <p11-kit/p11-kit.h>
#include <p11-kit/pin.h>
#include <p11-kit/uri.h>
#endif

namespace zk {

#ifndef ZIRN_HAVE_P11KIT

bool pkcs11_available() { return false; }

KeyError detail::open_pkcs11(const std::string &, const KeyOptions &, std::unique_ptr<Key> *)
{
    return detail::fail(KeyErr::unavailable, "this build has no PKCS#11 support (it was built without p11-kit)");
}

#else

bool pkcs11_available() { return true; }

namespace {

using detail::fail;
using detail::Secret;

std::string rv_text(CK_RV rv) { return p11_kit_strerror(rv); }

// Token and object labels are the token's text: messages show them on one line, control characters as '?'.
std::string printable(std::string s)
{
    for (char &c : s)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    return s;
}

std::string padded(const unsigned char *s, size_t n)
{
    return printable(std::string(reinterpret_cast<const char *>(s), p11_kit_space_strlen(s, n)));
}

// One attribute's value; false when the object has none or withholds it.
bool get_attr(CK_FUNCTION_LIST *f, CK_SESSION_HANDLE s, CK_OBJECT_HANDLE o, CK_ATTRIBUTE_TYPE type,
              std::vector<uint8_t> *v)
{
    CK_ATTRIBUTE a = {type, nullptr, 0};
    if (f->C_GetAttributeValue(s, o, &a, 1) != CKR_OK || a.ulValueLen == CK_UNAVAILABLE_INFORMATION) return false;
    v->assign(a.ulValueLen, 0);
    a.pValue = v->data();
    return f->C_GetAttributeValue(s, o, &a, 1) == CKR_OK && a.ulValueLen == v->size();
}

// A big-endian number without its leading zero bytes.
std::vector<uint8_t> trimmed(std::vector<uint8_t> v)
{
    v.erase(v.begin(), std::find_if(v.begin(), v.end(), [](uint8_t b) { return b != 0; }));
    return v;
}

class TokenKey final : public Key {
public:
    ~TokenKey() override
    {
        if (session_ != CK_INVALID_HANDLE) {
            if (logged_in_) f_->C_Logout(session_);
            f_->C_CloseSession(session_);
        }
        for (CK_FUNCTION_LIST *m : initialized_) p11_kit_module_finalize(m);
        if (modules_ != nullptr) p11_kit_modules_release(modules_);
        if (module_ != nullptr) p11_kit_module_release(module_);
        if (uri_ != nullptr) p11_kit_uri_free(uri_);
    }
    bool can_sign() const override { return private_; }
    std::string describe() const override { return desc_; }

    KeyError sign(const uint8_t digest[32], const std::vector<std::span<const uint8_t>> &message,
                  uint8_t sig[256]) override
    {
        if (!private_) return fail(KeyErr::unsupported_key, desc_ + " is a public key: it cannot sign");
        CK_RSA_PKCS_PSS_PARAMS params = {CKM_SHA256, CKG_MGF1_SHA256, 32};
        CK_MECHANISM mech = {mech_, &params, sizeof params};
        CK_RV rv = f_->C_SignInit(session_, &mech, object_);
        if (rv == CKR_OK && always_auth_) {
            // The key wants its PIN again for each signature; a refusal is still not retried.
            rv = f_->C_Login(session_, CKU_CONTEXT_SPECIFIC, reinterpret_cast<CK_UTF8CHAR_PTR>(pin_.text), pin_.len);
            if (rv != CKR_OK)
                return fail(KeyErr::pin,
                            "token " + token_ + " refused the PIN for " + desc_ + " (" + rv_text(rv) + ")");
        }
        CK_ULONG len = 256;
        if (rv == CKR_OK && mech_ == CKM_RSA_PKCS_PSS) {
            rv = f_->C_Sign(session_, const_cast<CK_BYTE_PTR>(digest), 32, sig, &len);
        } else if (rv == CKR_OK) {
            // The token hashes the message itself, fed in pieces of at most 1 MiB.
            for (const auto &piece : message)
                for (size_t off = 0; rv == CKR_OK && off < piece.size(); off += 1 << 20)
                    rv = f_->C_SignUpdate(session_, const_cast<CK_BYTE_PTR>(piece.data() + off),
                                          std::min<size_t>(piece.size() - off, 1 << 20));
            if (rv == CKR_OK) rv = f_->C_SignFinal(session_, sig, &len);
        }
        if (rv != CKR_OK) return fail(KeyErr::sign_failed, "signing with " + desc_ + " failed (" + rv_text(rv) + ")");
        if (len != 256)
            return fail(KeyErr::sign_failed, desc_ + " returned a " + std::to_string(len) + "-byte signature");
        return {};
    }

    KeyError open(const std::string &uri, const KeyOptions &opt);

private:
    KeyError load_modules(std::vector<CK_FUNCTION_LIST *> *mods);
    KeyError find_token(const std::vector<CK_FUNCTION_LIST *> &mods);
    KeyError login(const KeyOptions &opt);
    KeyError find_object(CK_OBJECT_CLASS cls, bool *found);
    KeyError check_key();
    KeyError pick_mechanism();

    P11KitUri *uri_ = nullptr;
    CK_FUNCTION_LIST **modules_ = nullptr;  // p11-kit's configured modules
    CK_FUNCTION_LIST *module_ = nullptr;    // or the URI's module-path
    std::vector<CK_FUNCTION_LIST *> initialized_;
    CK_FUNCTION_LIST *f_ = nullptr;  // the token's module
    CK_SLOT_ID slot_ = 0;
    CK_TOKEN_INFO info_ = {};
    std::string token_, desc_;
    CK_SESSION_HANDLE session_ = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE object_ = CK_INVALID_HANDLE;
    CK_MECHANISM_TYPE mech_ = CKM_RSA_PKCS_PSS;
    bool logged_in_ = false, private_ = false, always_auth_ = false;
    Secret pin_;  // kept only for keys that ask for it at each signature
};

KeyError TokenKey::load_modules(std::vector<CK_FUNCTION_LIST *> *mods)
{
    if (const char *path = p11_kit_uri_get_module_path(uri_)) {
        module_ = p11_kit_module_load(path, 0);
        if (module_ == nullptr) return fail(KeyErr::module, std::string("cannot load PKCS#11 module ") + path);
        const CK_RV rv = p11_kit_module_initialize(module_);
        if (rv != CKR_OK)
            return fail(KeyErr::module,
                        std::string("cannot initialize PKCS#11 module ") + path + " (" + rv_text(rv) + ")");
        initialized_.push_back(module_);
    } else if (modules_ = p11_kit_modules_load(nullptr, 0); modules_ == nullptr) {
        return fail(KeyErr::module, "cannot load p11-kit's configured PKCS#11 modules");
    } else if (const char *name = p11_kit_uri_get_module_name(uri_)) {
        // Only the named module is started: the others may wait on readers or daemons.
        CK_FUNCTION_LIST *m = p11_kit_module_for_name(modules_, name);
        if (m == nullptr)
            return fail(KeyErr::module, std::string("no PKCS#11 module named ") + name + " is configured in p11-kit");
        const CK_RV rv = p11_kit_module_initialize(m);
        if (rv != CKR_OK)
            return fail(KeyErr::module,
                        std::string("cannot initialize PKCS#11 module ") + name + " (" + rv_text(rv) + ")");
        initialized_.push_back(m);
    } else {
        // A module that fails to start does not hide the tokens of the others.
        for (CK_FUNCTION_LIST **m = modules_; *m != nullptr; m++)
            if (p11_kit_module_initialize(*m) == CKR_OK) initialized_.push_back(*m);
    }
    *mods = initialized_;
    if (mods->empty())
        return fail(KeyErr::module, "no PKCS#11 module is configured in p11-kit; name one with module-path=");
    return {};
}

KeyError TokenKey::find_token(const std::vector<CK_FUNCTION_LIST *> &mods)
{
    const CK_SLOT_ID want_slot = p11_kit_uri_get_slot_id(uri_);
    size_t matches = 0, present = 0;
    std::string labels;
    for (CK_FUNCTION_LIST *m : mods) {
        CK_INFO minfo;
        if (m->C_GetInfo(&minfo) != CKR_OK || !p11_kit_uri_match_module_info(uri_, &minfo)) continue;
        CK_ULONG count = 0;
        if (m->C_GetSlotList(CK_TRUE, nullptr, &count) != CKR_OK) continue;
        std::vector<CK_SLOT_ID> slots(count);
        if (m->C_GetSlotList(CK_TRUE, slots.data(), &count) != CKR_OK) continue;
        slots.resize(count);
        for (CK_SLOT_ID slot : slots) {
            CK_SLOT_INFO sinfo;
            CK_TOKEN_INFO tinfo;
            if (m->C_GetSlotInfo(slot, &sinfo) != CKR_OK || m->C_GetTokenInfo(slot, &tinfo) != CKR_OK) continue;
            present++;
            if ((want_slot != CK_SLOT_ID(-1) && want_slot != slot) || !p11_kit_uri_match_slot_info(uri_, &sinfo) ||
                !p11_kit_uri_match_token_info(uri_, &tinfo))
                continue;
            if (matches++ == 0) f_ = m, slot_ = slot, info_ = tinfo;
            labels += (labels.empty() ? "" : ", ") + padded(tinfo.label, sizeof tinfo.label);
        }
    }
    if (matches == 0)
        return fail(KeyErr::token, present == 0
                                       ? "no PKCS#11 token is present"
                                       : "none of the " + std::to_string(present) + " PKCS#11 tokens matches the URI");
    // The PIN goes to exactly one token: an ambiguous URI is refused, not resolved by order.
    if (matches > 1)
        return fail(KeyErr::token,
                    std::to_string(matches) + " tokens match the URI (" + labels + "); name one with token=");
    token_ = padded(info_.label, sizeof info_.label);
    const CK_RV rv = f_->C_OpenSession(slot_, CKF_SERIAL_SESSION, nullptr, nullptr, &session_);
    if (rv != CKR_OK) {
        session_ = CK_INVALID_HANDLE;
        return fail(KeyErr::token, "cannot open a session on token " + token_ + " (" + rv_text(rv) + ")");
    }
    return {};
}

KeyError TokenKey::login(const KeyOptions &opt)
{
    if (logged_in_ || !(info_.flags & CKF_LOGIN_REQUIRED)) return {};
    const std::string what = "PIN of token " + token_;
    Secret pin;
    bool pinpad = false;
    if (const char *value = p11_kit_uri_get_pin_value(uri_)) {
        for (const char *c = value; *c != '\0'; c++)
            if (!pin.append(*c)) return fail(KeyErr::usage, "the pin-value is too long");
    } else if (const char *source = p11_kit_uri_get_pin_source(uri_)) {
        std::string src = source;
        if (src.rfind("file:", 0) == 0) {
            // file:PATH or file:///PATH; the PIN is the file's first line.
            src = src.rfind("file://", 0) == 0 ? src.substr(7) : src.substr(5);
            if (KeyError err = detail::get_secret("file:" + src, what, &pin)) return err;
        } else {
            P11KitPin *p = p11_kit_pin_request(source, uri_, what.c_str(), P11_KIT_PIN_FLAGS_USER_LOGIN);
            if (p == nullptr) return fail(KeyErr::usage, "pin-source " + src + " gave no PIN");
            size_t len = 0;
            const unsigned char *v = p11_kit_pin_get_value(p, &len);
            bool fits = true;
            for (size_t i = 0; i < len && fits; i++) fits = pin.append(char(v[i]));
            p11_kit_pin_unref(p);
            if (!fits) return fail(KeyErr::usage, "the PIN from " + src + " is too long");
        }
    } else if (!opt.pass.empty()) {
        if (KeyError err = detail::get_secret(opt.pass, what, &pin)) return err;
    } else if (info_.flags & CKF_PROTECTED_AUTHENTICATION_PATH) {
        pinpad = true;  // the reader's own keypad
    } else if (KeyError err = detail::prompt_secret(what, &pin)) {
        return err;
    }
    // Exactly one attempt: a wrong PIN counts against the token's lockout.
    const CK_RV rv = f_->C_Login(session_, CKU_USER, pinpad ? nullptr : reinterpret_cast<CK_UTF8CHAR_PTR>(pin.text),
                                 pinpad ? 0 : pin.len);
    if (rv != CKR_OK && rv != CKR_USER_ALREADY_LOGGED_IN)
        return fail(KeyErr::pin, "token " + token_ + " refused the PIN (" + rv_text(rv) + "); not retried");
    logged_in_ = rv == CKR_OK;
    memcpy(pin_.text, pin.text, pin.len);
    pin_.len = pin.len;
    return {};
}

KeyError TokenKey::find_object(CK_OBJECT_CLASS cls, bool *found)
{
    std::vector<CK_ATTRIBUTE> tmpl = {{CKA_CLASS, &cls, sizeof cls}};
    for (CK_ATTRIBUTE_TYPE t : {CKA_LABEL, CKA_ID})
        if (CK_ATTRIBUTE *a = p11_kit_uri_get_attribute(uri_, t)) tmpl.push_back(*a);
    CK_OBJECT_HANDLE objs[2];
    CK_ULONG count = 0;
    CK_RV rv = f_->C_FindObjectsInit(session_, tmpl.data(), tmpl.size());
    if (rv == CKR_OK) {
        rv = f_->C_FindObjects(session_, objs, 2, &count);
        f_->C_FindObjectsFinal(session_);
    }
    if (rv != CKR_OK) return fail(KeyErr::token, "cannot search token " + token_ + " (" + rv_text(rv) + ")");
    *found = count == 1;
    if (count > 1)
        return fail(KeyErr::not_found, "several " + std::string(cls == CKO_PRIVATE_KEY ? "private" : "public") +
                                           " keys on token " + token_ + " match the URI; name one with object= or id=");
    if (count == 1) object_ = objs[0], private_ = cls == CKO_PRIVATE_KEY;
    return {};
}

KeyError TokenKey::check_key()
{
    std::vector<uint8_t> v, n, e;
    CK_KEY_TYPE type = 0;
    if (get_attr(f_, session_, object_, CKA_LABEL, &v))
        desc_ = printable(std::string(v.begin(), v.end()));
    else if (get_attr(f_, session_, object_, CKA_ID, &v)) {
        for (uint8_t b : v) desc_ += "0123456789abcdef"[b >> 4], desc_ += "0123456789abcdef"[b & 15];
        desc_ = "id " + desc_;
    }
    desc_ = "PKCS#11 " + std::string(private_ ? "key " : "public key ") + desc_ + " on token " + token_;
    if (!get_attr(f_, session_, object_, CKA_KEY_TYPE, &v) || v.size() != sizeof type)
        return fail(KeyErr::unsupported_key, desc_ + " has no key type");
    memcpy(&type, v.data(), sizeof type);
    if (type != CKK_RSA) return fail(KeyErr::unsupported_key, desc_ + " is not an RSA key");
    if (!get_attr(f_, session_, object_, CKA_MODULUS, &n))
        return fail(KeyErr::unsupported_key, desc_ + " shows no modulus");
    n = trimmed(n);
    if (n.size() != 256 || !detail::is_2048(n.data()))
        return fail(KeyErr::unsupported_key,
                    desc_ + " is not an RSA-2048 key (" + std::to_string(n.size() * 8) + "-bit modulus)");
    if (get_attr(f_, session_, object_, CKA_PUBLIC_EXPONENT, &e) && trimmed(e) != std::vector<uint8_t>{1, 0, 1})
        return fail(KeyErr::unsupported_key, desc_ + " has a public exponent other than 65537");
    memcpy(n_, n.data(), 256);
    if (private_) {
        CK_BBOOL b = CK_FALSE;
        if (get_attr(f_, session_, object_, CKA_SIGN, &v) && v.size() == sizeof b && !(memcpy(&b, v.data(), 1), b))
            return fail(KeyErr::unsupported_key, desc_ + " may not sign (CKA_SIGN is false)");
        b = CK_FALSE;
        always_auth_ = get_attr(f_, session_, object_, CKA_ALWAYS_AUTHENTICATE, &v) && v.size() == sizeof b &&
                       (memcpy(&b, v.data(), 1), b);
    }
    return {};
}

KeyError TokenKey::pick_mechanism()
{
    // The list counts: some modules describe a mechanism they have switched off for the slot.
    CK_ULONG count = 0;
    std::vector<CK_MECHANISM_TYPE> list;
    if (f_->C_GetMechanismList(slot_, nullptr, &count) == CKR_OK) {
        // Room for twice the list: p11-kit's remote client reads past the end of an exact one.
        list.resize(2 * count);
        if (f_->C_GetMechanismList(slot_, list.data(), &count) != CKR_OK) count = 0;
        list.resize(count);
    }
    for (CK_MECHANISM_TYPE m : {CKM_RSA_PKCS_PSS, CKM_SHA256_RSA_PKCS_PSS}) {
        CK_MECHANISM_INFO mi;
        if (std::find(list.begin(), list.end(), m) != list.end() && f_->C_GetMechanismInfo(slot_, m, &mi) == CKR_OK &&
            (mi.flags & CKF_SIGN)) {
            mech_ = m;
            return {};
        }
    }
    return fail(KeyErr::mechanism,
                "token " + token_ + " signs with neither CKM_RSA_PKCS_PSS nor CKM_SHA256_RSA_PKCS_PSS");
}

KeyError TokenKey::open(const std::string &uri, const KeyOptions &opt)
{
    uri_ = p11_kit_uri_new();
    if (uri_ == nullptr) return fail(KeyErr::usage, "out of memory");
    const int rc = p11_kit_uri_parse(uri.c_str(), P11_KIT_URI_FOR_OBJECT_ON_TOKEN_AND_MODULE, uri_);
    if (rc != P11_KIT_URI_OK)
        return fail(KeyErr::usage, std::string("malformed PKCS#11 URI: ") + p11_kit_uri_message(rc));
    // An attribute this build cannot match would silently widen the choice of key.
    if (p11_kit_uri_any_unrecognized(uri_))
        return fail(KeyErr::usage, "the PKCS#11 URI has attributes this build does not understand");
    std::vector<CK_FUNCTION_LIST *> mods;
    if (KeyError err = load_modules(&mods)) return err;
    if (KeyError err = find_token(mods)) return err;
    bool found = false;
    // Signing needs the private key (after login where the token wants one); the modulus alone
    // comes from whatever key object is visible first, logging in only when none is.
    if (opt.need_private) {
        if (KeyError err = login(opt)) return err;
        if (KeyError err = find_object(CKO_PRIVATE_KEY, &found)) return err;
    } else {
        auto search = [&]() -> KeyError {
            for (CK_OBJECT_CLASS cls : {CKO_PUBLIC_KEY, CKO_PRIVATE_KEY})
                if (KeyError err = found ? KeyError{} : find_object(cls, &found)) return err;
            return {};
        };
        if (KeyError err = search()) return err;
        if (!found && (info_.flags & CKF_LOGIN_REQUIRED)) {
            if (KeyError err = login(opt)) return err;
            if (KeyError err = search()) return err;
        }
    }
    if (!found)
        return fail(KeyErr::not_found, std::string("no ") + (opt.need_private ? "private key" : "key") + " on token " +
                                           token_ + " matches the URI");
    if (KeyError err = check_key()) return err;
    if (!always_auth_) vWipeBuf(pin_.text, sizeof pin_.text), pin_.len = 0;
    return opt.need_private ? pick_mechanism() : KeyError{};
}

}  // namespace

KeyError detail::open_pkcs11(const std::string &uri, const KeyOptions &opt, std::unique_ptr<Key> *out)
{
    auto key = std::make_unique<TokenKey>();
    if (KeyError err = key->open(uri, opt)) return err;
    *out = std::move(key);
    return {};
}

#endif

}  // namespace zk
