// Heap work buffers of the signature code.  Whatever they held (salt, masks,
// digests) is overwritten with zeros before the memory goes back to the heap,
// on every return path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

// Zero fill that the optimiser may not drop although the memory dies next.
inline void vWipeBuf(void *buf, size_t len)
{
    volatile uint8_t *p = static_cast<volatile uint8_t *>(buf);
    for (size_t i = 0; i < len; i++) p[i] = 0;
}

// N buffers of the same length, obtained together and released together.
template <size_t N>
struct WipedBufs {
    uint8_t *buf[N] = {};
    size_t len = 0;

    WipedBufs() = default;
    WipedBufs(const WipedBufs &) = delete;
    WipedBufs &operator=(const WipedBufs &) = delete;

    // Allocates every buffer with len_ bytes; false if any allocation
    // failed.  The buffers that were obtained are released by the destructor.
    bool alloc(size_t len_)
    {
        len = len_;
        bool ok = true;
        for (auto &b : buf) {
            b = static_cast<uint8_t *>(malloc(len));
            if (b == nullptr) ok = false;
        }
        return ok;
    }

    ~WipedBufs()
    {
        for (auto b : buf) {
            if (b == nullptr) continue;
            vWipeBuf(b, len);
            free(b);
        }
    }
};
