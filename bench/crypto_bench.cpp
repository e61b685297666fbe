// Throughput of the image-path primitives next to OpenSSL in the same run,
// on 1 MiB and 64 MiB: vAES128CBCEnc and SHA-256 on the processor's
// instructions (where present) and pinned to the portable code, against
// OpenSSL's EVP AES-128-CBC and SHA256() (both use the instructions where
// present) and its table-based AES_cbc_encrypt (the portable reference).
// Each of our rows is labelled with the path that actually ran.
#include <benchmark/benchmark.h>

#include <openssl/aes.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

#include <cstdint>
#include <vector>

#include "cpu_features.h"
#include "rijndael-alg-fst.h"
#include "sha256.h"

namespace {

std::vector<uint8_t> make_buffer(size_t n)
{
    std::vector<uint8_t> b(n);
    uint32_t x = 12345;
    for (auto &v : b) {
        x = x * 1103515245u + 12345u;
        v = uint8_t(x >> 24);
    }
    return b;
}

const uint8_t kKey[16] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6,
                          0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};
const uint8_t kIv[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

// Pins the portable code for one benchmark and labels the row.
struct PathPin {
    PathPin(benchmark::State &state, bool portable, int (*accelerated)(void))
    {
        crypto_force_portable(portable ? 1 : 0);
        state.SetLabel(accelerated() ? "instructions" : "portable");
    }
    ~PathPin() { crypto_force_portable(0); }
};

void BM_vAES128CBCEnc(benchmark::State &state, bool portable)
{
    PathPin pin(state, portable, crypto_aes_accelerated);
    auto buf = make_buffer(size_t(state.range(0)));
    for (auto _ : state) {
        vAES128CBCEnc(kKey, kIv, buf.data(), buf.data(), int32_t(buf.size()));
        benchmark::DoNotOptimize(buf.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

void BM_OpenSSL_EVP_aes_128_cbc(benchmark::State &state)
{
    auto buf = make_buffer(size_t(state.range(0)));
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    for (auto _ : state) {
        int n = 0;
        EVP_EncryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr, kKey, kIv);
        EVP_CIPHER_CTX_set_padding(ctx, 0);
        EVP_EncryptUpdate(ctx, buf.data(), &n, buf.data(), int(buf.size()));
        benchmark::DoNotOptimize(buf.data());
        benchmark::ClobberMemory();
    }
    EVP_CIPHER_CTX_free(ctx);
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

void BM_OpenSSL_AES_cbc_encrypt(benchmark::State &state)
{
    auto buf = make_buffer(size_t(state.range(0)));
    for (auto _ : state) {
        AES_KEY key;
        uint8_t iv[16];
        std::copy(kIv, kIv + 16, iv);
        AES_set_encrypt_key(kKey, 128, &key);
        AES_cbc_encrypt(buf.data(), buf.data(), buf.size(), &key, iv, AES_ENCRYPT);
        benchmark::DoNotOptimize(buf.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

void BM_sha256(benchmark::State &state, bool portable)
{
    PathPin pin(state, portable, crypto_sha256_accelerated);
    auto buf = make_buffer(size_t(state.range(0)));
    uint8_t digest[32];
    for (auto _ : state) {
        sha256(buf.data(), uint32_t(buf.size()), digest);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

void BM_OpenSSL_SHA256(benchmark::State &state)
{
    auto buf = make_buffer(size_t(state.range(0)));
    uint8_t digest[32];
    for (auto _ : state) {
        SHA256(buf.data(), buf.size(), digest);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

constexpr int64_t kMiB = 1 << 20;
constexpr benchmark::TimeUnit kMs = benchmark::kMillisecond;

}  // namespace

BENCHMARK_CAPTURE(BM_vAES128CBCEnc, dispatched, false)->Arg(kMiB)->Arg(64 * kMiB)->Unit(kMs);
BENCHMARK_CAPTURE(BM_vAES128CBCEnc, portable, true)->Arg(kMiB)->Arg(64 * kMiB)->Unit(kMs);
BENCHMARK(BM_OpenSSL_EVP_aes_128_cbc)->Arg(kMiB)->Arg(64 * kMiB)->Unit(kMs);
BENCHMARK(BM_OpenSSL_AES_cbc_encrypt)->Arg(kMiB)->Arg(64 * kMiB)->Unit(kMs);
BENCHMARK_CAPTURE(BM_sha256, dispatched, false)->Arg(kMiB)->Arg(64 * kMiB)->Unit(kMs);
BENCHMARK_CAPTURE(BM_sha256, portable, true)->Arg(kMiB)->Arg(64 * kMiB)->Unit(kMs);
BENCHMARK(BM_OpenSSL_SHA256)->Arg(kMiB)->Arg(64 * kMiB)->Unit(kMs);

BENCHMARK_MAIN();
