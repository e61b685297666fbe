// One RSA-2048 private-key operation (2048-bit private exponent, no CRT):
// rsa_exptmod against OpenSSL's BN_mod_exp on the same numbers in the same
// run, followed by the ratio of their times.
#include <benchmark/benchmark.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "rsa2048.h"

namespace {

struct KeyData {
    std::vector<uint8_t> n, d, block;
};

std::vector<uint8_t> param(EVP_PKEY *pkey, const char *name)
{
    BIGNUM *b = nullptr;
    EVP_PKEY_get_bn_param(pkey, name, &b);
    std::vector<uint8_t> out(256);
    BN_bn2binpad(b, out.data(), 256);
    BN_clear_free(b);
    return out;
}

// A fresh key pair and a block below its modulus, as the signing step sees it.
const KeyData &key_data()
{
    static KeyData k = [] {
        KeyData kd;
        EVP_PKEY *pkey = EVP_RSA_gen(2048);
        kd.n = param(pkey, OSSL_PKEY_PARAM_RSA_N);
        kd.d = param(pkey, OSSL_PKEY_PARAM_RSA_D);
        EVP_PKEY_free(pkey);
        kd.block.resize(256);
        uint32_t x = 12345;
        for (auto &v : kd.block) {
            x = x * 1103515245u + 12345u;
            v = uint8_t(x >> 24);
        }
        kd.block[0] = 0x4a;  // below the modulus, whose top bit is set
        return kd;
    }();
    return k;
}

void BM_rsa_exptmod_private_2048(benchmark::State &state)
{
    const KeyData &k = key_data();
    std::vector<uint8_t> out(256);
    for (auto _ : state) {
        uint32_t outlen = 256;
        int32_t ret = rsa_exptmod(k.block.data(), 256, out.data(), &outlen, k.d.data(), 256, k.n.data(), 256);
        if (ret != 0) state.SkipWithError("rsa_exptmod failed");
        benchmark::DoNotOptimize(out.data());
    }
}

void BM_OpenSSL_BN_mod_exp_2048(benchmark::State &state)
{
    const KeyData &k = key_data();
    BIGNUM *x = BN_bin2bn(k.block.data(), 256, nullptr);
    BIGNUM *d = BN_bin2bn(k.d.data(), 256, nullptr);
    BIGNUM *n = BN_bin2bn(k.n.data(), 256, nullptr);
    BIGNUM *r = BN_new();
    BN_CTX *ctx = BN_CTX_new();
    std::vector<uint8_t> out(256);
    for (auto _ : state) {
        if (BN_mod_exp(r, x, d, n, ctx) != 1) state.SkipWithError("BN_mod_exp failed");
        BN_bn2binpad(r, out.data(), 256);
        benchmark::DoNotOptimize(out.data());
    }
    // Both must compute the same signature.
    std::vector<uint8_t> ours(256);
    uint32_t outlen = 256;
    rsa_exptmod(k.block.data(), 256, ours.data(), &outlen, k.d.data(), 256, k.n.data(), 256);
    if (ours != out) state.SkipWithError("results differ");
    BN_CTX_free(ctx);
    BN_free(r);
    BN_free(n);
    BN_clear_free(d);
    BN_free(x);
}

BENCHMARK(BM_rsa_exptmod_private_2048)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_OpenSSL_BN_mod_exp_2048)->Unit(benchmark::kMillisecond)->MinTime(1.0);

// Console output as usual, and the per-iteration times kept for the ratio.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    std::map<std::string, std::pair<double, double>> times;  // real, cpu (ms)

    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const auto &r : runs) {
            if (r.run_type == Run::RT_Iteration && !r.error_occurred)
                times[r.benchmark_name()] = {r.GetAdjustedRealTime(), r.GetAdjustedCPUTime()};
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    // Names carry suffixes such as "/min_time:2.000".
    auto find = [&](const std::string &prefix) {
        auto it = reporter.times.lower_bound(prefix);
        return it != reporter.times.end() && it->first.compare(0, prefix.size(), prefix) == 0 ? it : reporter.times.end();
    };
    const auto ours = find("BM_rsa_exptmod_private_2048");
    const auto ossl = find("BM_OpenSSL_BN_mod_exp_2048");
    if (ours != reporter.times.end() && ossl != reporter.times.end()) {
        printf("\nrsa_exptmod / BN_mod_exp: %.1f (real time %.2f ms vs %.3f ms), %.1f (CPU time %.2f ms vs %.3f ms)\n",
               ours->second.first / ossl->second.first, ours->second.first, ossl->second.first,
               ours->second.second / ossl->second.second, ours->second.second, ossl->second.second);
    }
    benchmark::Shutdown();
    return 0;
}
