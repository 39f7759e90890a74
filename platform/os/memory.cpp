// memory.cpp: the memory and text functions of platform.h: the C library's, with a count of the live blocks.
//
// Called by the module on any thread. A block carries nothing of ours: its address is the C library's, so that a
// sanitizer or a heap profiler sees the module's own accesses. No lock; the count is atomic.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "anti_cpu/platform.h"
#include "os/os.h"

namespace {

constinit std::atomic<int64_t> blocks = 0;

void *counted(void *block) {
    if (block != nullptr) {
        blocks.fetch_add(1, std::memory_order_relaxed);
    }
    return block;
}

}  // namespace

void *bep_mallocEx(uint32_t size, const char *, int) {
    return counted(std::malloc(size));
}

void *bep_callocEx(uint32_t count, uint32_t size, const char *, int) {
    return counted(std::calloc(count, size));  // calloc refuses a product beyond size_t
}

void bep_freeEx(void *ptr, const char *, int) {
    if (ptr != nullptr) {
        blocks.fetch_sub(1, std::memory_order_relaxed);
        std::free(ptr);
    }
}

void *bep_memSetEx(void *dst, int value, uint32_t size) {
    return std::memset(dst, value, size);
}

void *bep_memCpyEx(void *dst, const void *src, uint32_t size) {
    return std::memcpy(dst, src, size);
}

int bep_memCmp(const void *a, const void *b, uint32_t size) {
    return std::memcmp(a, b, size);
}

char *bep_StrNCpy(char *dst, const char *src, uint32_t size) {
    return std::strncpy(dst, src, size);
}

int bep_StrNCmp(const char *a, const char *b, uint32_t len) {
    return std::strncmp(a, b, len);
}

int64_t card::live_blocks() {
    return blocks.load(std::memory_order_relaxed);
}
