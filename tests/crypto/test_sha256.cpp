// SHA-256: published vectors, OpenSSL as an independent answer for random
// messages and random piecewise feeding, and the per-function result codes.
#include <gtest/gtest.h>

#include <openssl/sha.h>

#include <cstring>
#include <random>

#include "sha256.h"
#include "testutil.h"

namespace {

zt::Bytes reference_digest(const uint8_t *p, size_t n)
{
    zt::Bytes d(32);
    SHA256(p, n, d.data());
    return d;
}

zt::Bytes one_shot(const zt::Bytes &msg)
{
    zt::Bytes d(32);
    uint8_t dummy = 0;
    EXPECT_EQ(sha256(msg.empty() ? &dummy : msg.data(), uint32_t(msg.size()), d.data()), 0);
    return d;
}

// Feeds msg in the given piece sizes (the last piece takes the rest).
zt::Bytes in_pieces(const zt::Bytes &msg, const std::vector<size_t> &pieces)
{
    static const uint8_t dummy = 0;  // a non-null pointer for empty pieces
    sha256_ctx ctx;
    EXPECT_EQ(sha256_init(&ctx), 0);
    size_t off = 0;
    auto feed = [&](size_t n) {
        EXPECT_EQ(sha256_process(&ctx, msg.empty() ? &dummy : msg.data() + off, uint32_t(n)), 0);
        off += n;
    };
    for (size_t p : pieces) feed(std::min(p, msg.size() - off));
    if (off < msg.size()) feed(msg.size() - off);
    zt::Bytes d(32);
    EXPECT_EQ(sha256_done(&ctx, d.data()), 0);
    return d;
}

}  // namespace

TEST(Sha256, PublishedVectors)
{
    auto v = zt::load_vectors("aes_sha256_kat.json");
    ASSERT_FALSE(v["sha256"].empty());
    for (const auto &c : v["sha256"]) {
        SCOPED_TRACE(c["name"].get<std::string>());
        zt::Bytes msg;
        if (c.contains("msg_hex")) {
            msg = zt::from_hex(c["msg_hex"].get<std::string>());
        } else {
            std::string unit = c["msg_ascii_repeat"].get<std::string>();
            for (int i = 0; i < c["repeat"].get<int>(); i++) msg.insert(msg.end(), unit.begin(), unit.end());
        }
        const std::string want = c["digest"].get<std::string>();
        EXPECT_EQ(zt::to_hex(one_shot(msg)), want);
        // Streaming with an odd piece size exercises buffered and direct blocks.
        EXPECT_EQ(zt::to_hex(in_pieces(msg, std::vector<size_t>(msg.size() / 37 + 1, 37))), want);
    }
}

TEST(Sha256, ContextLifecycle)
{
    // init sets length, fill and state but leaves the buffer alone.
    sha256_ctx ctx;
    memset(&ctx, 0x77, sizeof ctx);
    ASSERT_EQ(sha256_init(&ctx), 0);
    EXPECT_EQ(ctx.length_bits, 0u);
    EXPECT_EQ(ctx.fill, 0u);
    EXPECT_EQ(ctx.state[0], 0x6a09e667u);
    EXPECT_EQ(ctx.state[7], 0x5be0cd19u);
    for (uint8_t b : ctx.buffer) ASSERT_EQ(b, 0x77);

    // init then done is the digest of the empty message.
    uint8_t d[32];
    ASSERT_EQ(sha256_done(&ctx, d), 0);
    EXPECT_EQ(zt::to_hex(d, 32), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");

    // Buffered bytes are counted only by done; a finished context holds the
    // message length in bits and a fill of 56.
    for (size_t n : {0u, 1u, 55u, 56u, 64u, 119u, 200u}) {
        zt::Bytes msg(n + 1, 0x5a);
        sha256_init(&ctx);
        sha256_process(&ctx, msg.data(), uint32_t(n));
        EXPECT_EQ(ctx.length_bits, uint64_t(n / 64) * 512) << n;
        EXPECT_EQ(ctx.fill, n % 64) << n;
        sha256_done(&ctx, d);
        EXPECT_EQ(ctx.length_bits, uint64_t(n) * 8) << n;
        EXPECT_EQ(ctx.fill, 56u) << n;
    }
}

TEST(Sha256, NamedPieceSplitsMatchOneShot)
{
    struct Case {
        size_t len;
        std::vector<size_t> pieces;
    } cases[] = {
        {200, std::vector<size_t>(200, 1)},
        {64, {63, 1}},
        {128, {64, 64}},
        {130, {65, 65}},
        {300, {0, 1, 0, 127, 64, 3}},
    };
    for (const auto &c : cases) {
        zt::Bytes msg(c.len);
        for (size_t i = 0; i < c.len; i++) msg[i] = uint8_t(i * 31 + 7);
        EXPECT_EQ(in_pieces(msg, c.pieces), reference_digest(msg.data(), msg.size())) << c.len;
    }
}

TEST(Sha256, EverySplitPointOfAShortMessage)
{
    zt::Bytes msg(150);
    for (size_t i = 0; i < msg.size(); i++) msg[i] = uint8_t(i * 7 + 3);
    const zt::Bytes want = reference_digest(msg.data(), msg.size());
    for (size_t a = 0; a <= msg.size(); a++) {
        for (size_t b = a; b <= msg.size(); b += 5) {
            ASSERT_EQ(in_pieces(msg, {a, b - a}), want) << a << "+" << b - a;
        }
    }
}

TEST(Sha256, RandomMessagesInRandomPiecesMatchOpenSsl)
{
    std::mt19937 rng(20261122);
    for (int iter = 0; iter < 2000; iter++) {
        size_t len = rng() % (iter < 1500 ? 300 : 5000);
        zt::Bytes msg(len);
        for (auto &b : msg) b = uint8_t(rng());
        std::vector<size_t> pieces;
        for (size_t left = len; left > 0;) {
            size_t p = std::min<size_t>(left, rng() % 150);
            pieces.push_back(p);
            left -= p;
        }
        const zt::Bytes want = reference_digest(msg.data(), msg.size());
        ASSERT_EQ(one_shot(msg), want) << "len " << len;
        ASSERT_EQ(in_pieces(msg, pieces), want) << "len " << len;
    }
}

TEST(Sha256, ResultCodes)
{
    uint8_t in[8] = {1, 2, 3};
    uint8_t out[32];
    struct Case {
        const char *what;
        int (*call)(sha256_ctx *ctx, uint8_t *in, uint8_t *out);
        uint32_t fill;  // prepared fill of a fresh context
        int want;
    } cases[] = {
        {"init null ctx", [](sha256_ctx *, uint8_t *, uint8_t *) { return sha256_init(nullptr); }, 0, -1},
        {"process null ctx", [](sha256_ctx *, uint8_t *i, uint8_t *) { return sha256_process(nullptr, i, 3); }, 0, -1},
        {"process null in", [](sha256_ctx *c, uint8_t *, uint8_t *) { return sha256_process(c, nullptr, 3); }, 0, -2},
        {"process null in, len 0", [](sha256_ctx *c, uint8_t *, uint8_t *) { return sha256_process(c, nullptr, 0); }, 0, -2},
        {"process fill 65", [](sha256_ctx *c, uint8_t *i, uint8_t *) { return sha256_process(c, i, 3); }, 65, -3},
        {"process fill 65, len 0", [](sha256_ctx *c, uint8_t *i, uint8_t *) { return sha256_process(c, i, 0); }, 65, -3},
        {"process fill 64 accepted", [](sha256_ctx *c, uint8_t *i, uint8_t *) { return sha256_process(c, i, 3); }, 64, 0},
        {"process len 0", [](sha256_ctx *c, uint8_t *i, uint8_t *) { return sha256_process(c, i, 0); }, 0, 0},
        {"done null ctx", [](sha256_ctx *, uint8_t *, uint8_t *o) { return sha256_done(nullptr, o); }, 0, -2},
        {"done null out", [](sha256_ctx *c, uint8_t *, uint8_t *) { return sha256_done(c, nullptr); }, 0, -3},
        {"done null out before fill", [](sha256_ctx *c, uint8_t *, uint8_t *) { return sha256_done(c, nullptr); }, 64, -3},
        {"done fill 64", [](sha256_ctx *c, uint8_t *, uint8_t *o) { return sha256_done(c, o); }, 64, -4},
        {"done fill 63", [](sha256_ctx *c, uint8_t *, uint8_t *o) { return sha256_done(c, o); }, 63, 0},
        {"one-shot null in", [](sha256_ctx *, uint8_t *, uint8_t *o) { return sha256(nullptr, 3, o); }, 0, -2},
        {"one-shot null in, len 0", [](sha256_ctx *, uint8_t *, uint8_t *o) { return sha256(nullptr, 0, o); }, 0, -2},
        {"one-shot null out", [](sha256_ctx *, uint8_t *i, uint8_t *) { return sha256(i, 3, nullptr); }, 0, -3},
        {"one-shot ok", [](sha256_ctx *, uint8_t *i, uint8_t *o) { return sha256(i, 3, o); }, 0, 0},
    };
    for (const auto &c : cases) {
        sha256_ctx ctx;
        sha256_init(&ctx);
        memset(ctx.buffer, 0xab, sizeof ctx.buffer);
        ctx.fill = c.fill;
        sha256_ctx before = ctx;
        int got = c.call(&ctx, in, out);
        EXPECT_EQ(got, c.want) << c.what;
        if (c.want != 0) {
            // A rejected call leaves the context as it was.
            EXPECT_EQ(memcmp(&before, &ctx, sizeof ctx), 0) << c.what;
        }
    }
}

TEST(Sha256, FillOf64IsCompressedBeforeNewBytes)
{
    // 64 bytes sitting in the buffer behave like a message prefix once
    // sha256_process is called again.
    zt::Bytes msg(70);
    for (size_t i = 0; i < msg.size(); i++) msg[i] = uint8_t(i);
    sha256_ctx ctx;
    sha256_init(&ctx);
    memcpy(ctx.buffer, msg.data(), 64);
    ctx.fill = 64;
    ASSERT_EQ(sha256_process(&ctx, msg.data() + 64, 6), 0);
    EXPECT_EQ(ctx.fill, 6u);
    EXPECT_EQ(ctx.length_bits, 512u);
    uint8_t d[32];
    ASSERT_EQ(sha256_done(&ctx, d), 0);
    EXPECT_EQ(zt::Bytes(d, d + 32), reference_digest(msg.data(), msg.size()));
}
