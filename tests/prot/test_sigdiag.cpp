// Why a signature does not verify: signatures OpenSSL made with one parameter wrong each, named
// against the image's key and digest; "valid" exactly when the signer's route accepts.
#include <gtest/gtest.h>

#include <cstring>

#include "ZirnImgProt.h"
#include "ZirnImgSigDiag.h"
#include "oracle.h"

using zt::Bytes;

namespace {

// The image key is key 1: its modulus leaves room above it for s + n within 256 bytes.
constexpr int kKey = 1, kOtherKey = 0;

}  // namespace

TEST(SigDiag, EachWrongParameterHasItsOwnAnswer)
{
    std::mt19937_64 rng(20261201);
    const Bytes &n = zt::test_key(kKey).n, md = zt::random_bytes(rng, 32);  // the image's digest
    const Bytes md2 = zt::random_bytes(rng, 32);  // another content's
    auto pss = [&](int salt, const char *mgf1 = "SHA256", const Bytes &m = {}, int key = kKey) {
        return zt::sign_digest(key, m.empty() ? md : m, salt, mgf1);
    };
    const Bytes twice = pss(32, "SHA256", zt::sha256(md));  // over the digest hashed again
    Bytes valid = pss(32), random = zt::random_bytes(rng, 256), n_minus_1 = n;
    while (zt::plus_n(valid, n).empty()) valid = pss(32);  // PSS salts are fresh: some sums fit
    Bytes foreign = pss(32, "SHA256", {}, kOtherKey);  // below n, or it is refused as such
    while (memcmp(foreign.data(), n.data(), 256) >= 0) foreign = pss(32, "SHA256", {}, kOtherKey);
    // SHA-1 masks whose block also unmasks to 0x01 at the start of DB under SHA-256, as one in 128
    // does: the layout alone must not name the content as changed.
    Bytes lookalike = pss(20, "SHA1");
    const auto sha256_layout = [&](const Bytes &s) {
        const Bytes em = zt::modexp(s, {1, 0, 1}, n), h(em.begin() + 223, em.begin() + 255);
        return ((em[0] ^ zt::mgf1(h, 1)[0]) & 0x7F) == 0x01;
    };
    while (!sha256_layout(lookalike)) lookalike = pss(20, "SHA1");
    random[0] = 0x01;
    n_minus_1[255]--;  // n is odd
    Bytes not_v15(256, 0xFF), all_ff(256, 0xFF);  // 01 01 FF.. 00 .., and 00 01 FF.. without 00
    not_v15[0] = not_v15[1] = all_ff[1] = 0x01, not_v15[100] = all_ff[0] = 0;
    const auto raw = [&](const Bytes &em) { return zt::modexp(em, zt::test_key(kKey).d, n); };
    // what, signature, digest checked, kind, salt length, MGF1 hash, words of the text
    using Row = std::tuple<const char *, Bytes, Bytes, std::string, int, std::string, std::string>;
    const Row rows[] = {
        {"valid", valid, md, "valid", 32, "SHA-256", "verifies"},
        {"PKCS#1 v1.5", pss(-1), md, "pkcs1_v1_5", -1, "", "PKCS#1 v1.5"},
        {"salt 0", pss(0), md, "pss_salt_length", 0, "SHA-256", "salt of 0 bytes"},
        {"salt 20", pss(20), md, "pss_salt_length", 20, "SHA-256", "salt of 20 bytes"},
        {"salt 64", pss(64), md, "pss_salt_length", 64, "SHA-256", "salt of 64 bytes"},
        {"MGF1-SHA1", pss(32, "SHA1"), md, "mgf1_hash", 32, "SHA-1", "MGF1 over SHA-1;"},
        {"MGF1-SHA1 salt 20", pss(20, "SHA1"), md, "mgf1_hash", 20, "SHA-1", "salt is 20 bytes"},
        {"SHA-1 lookalike", lookalike, md, "mgf1_hash", 20, "SHA-1", "salt is 20 bytes"},
        {"hashed twice", twice, md, "digest_hashed_twice", 32, "SHA-256", "again"},
        {"content changed", valid, md2, "content_changed", 32, "SHA-256", "changed after signing"},
        {"another key", foreign, md, "wrong_key", -1, "", "another key"},
        {"random below n", random, md, "wrong_key", -1, "", "another key"},
        {"n - 1", n_minus_1, md, "wrong_key", -1, "", "another key"},
        {"PKCS#1 v1.5 but 01 first", raw(not_v15), md, "wrong_key", -1, "", "another key"},
        {"00 01 and FF to the end", raw(all_ff), md, "wrong_key", -1, "", "another key"},
        {"s = n", n, md, "signature_not_below_modulus", -1, "", "modulus"},
        {"s + n", zt::plus_n(valid, n), md, "signature_not_below_modulus", -1, "", "modulus"},
    };
    for (const auto &[what, signature, checked, kind, salt, mgf1_hash, says] : rows) {
        ZirnSigDiag d{};
        const uint8_t *sig = signature.data(), *m = checked.data();
        const auto diagnose = [&] { d = stDiagnoseZIRNImgSigV10(n.data(), sig, m); };
        EXPECT_EQ(zt::capture_stdout(diagnose), "") << what;
        const std::string mgf1 = d.mgf1_hash ? d.mgf1_hash : "", text = sZIRNSigDiagTextV10(d);
        const auto got = std::tuple(pcZIRNSigDiagNameV10(d.kind), d.salt_len, mgf1);
        EXPECT_EQ(got, std::tuple(kind, salt, mgf1_hash)) << what;
        EXPECT_NE(text.find(says), std::string::npos) << what << ": " << text;
        if (!bZIRNSigBelowModulusV10(n.data(), sig)) continue;
        ImgProtHdr hdr{};
        memcpy(hdr.auth_n, n.data(), 256);
        memcpy(hdr.auth_sig, sig, 256);
        const auto route = zt::printed([&] { return iVerifyZIRNImgSigV10(&hdr, m); });
        EXPECT_EQ(route.first == 0, kind == "valid") << what;
    }
}
