// Programs linked with -Wl,--wrap=malloc,--wrap=calloc,--wrap=free see here every block the
// project's code obtains and releases (the C++ runtime's and OpenSSL's are not wrapped): a test
// can make the n-th allocation fail, count the blocks still held, and check that every block was
// overwritten with zeros before its release, in any build, Release included, which shows that
// the optimiser kept the wipes.
#include <gtest/gtest.h>

#include <unordered_map>

#include "testutil.h"

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t n, size_t size);
void __real_free(void *p);
}

namespace zt {
AllocHooks g_alloc;
}

namespace {

std::unordered_map<void *, size_t> &held()
{
    static auto *blocks = new std::unordered_map<void *, size_t>;  // usable while the program exits
    return *blocks;
}

void *track(void *p, size_t size)
{
    if (p != nullptr) held()[p] = size;
    return p;
}

bool fails() { return ++zt::g_alloc.calls == zt::g_alloc.fail_at; }

}  // namespace

size_t zt::AllocHooks::held() const { return ::held().size(); }

// Each test program fails when any block was released without being wiped.
struct WipeCheck : ::testing::Environment {
    void TearDown() override { EXPECT_EQ(zt::g_alloc.dirty, 0u) << "released blocks not wiped"; }
};
const auto *const g_wipe_check = ::testing::AddGlobalTestEnvironment(new WipeCheck);

extern "C" {
void *__wrap_malloc(size_t size) { return fails() ? nullptr : track(__real_malloc(size), size); }
void *__wrap_calloc(size_t n, size_t size)
{
    return fails() ? nullptr : track(__real_calloc(n, size), n * size);
}
void __wrap_free(void *p)
{
    const auto it = held().find(p);
    if (it != held().end()) {
        const auto *b = static_cast<const uint8_t *>(p);
        zt::g_alloc.dirty += std::any_of(b, b + it->second, [](uint8_t x) { return x != 0; });
        held().erase(it);
    }
    __real_free(p);
}
}
