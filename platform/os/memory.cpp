// SPDX-License-Identifier: Apache-2.0
// memory.cpp: the memory and text functions of platform.h: the C library's, with a count of blocks and bytes, and a
// budget that they may not pass.
//
// Called by the module on any thread; the line that tells of a refused block goes to the card's log, with whatever lock
// the caller holds. A block carries nothing of ours: its address is the C library's, so that a sanitizer or a heap
// profiler sees the module's own accesses, and its size is what the C library says. No lock; each count is atomic, and
// the bytes never stand above the budget but for the moment in which a block is made and taken back.
#include <malloc.h>

#include <atomic>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "anti_cpu/platform.h"
#include "clock/clock.h"
#include "os/os.h"

namespace {

constexpr uint32_t kMessageLevel = 11;
constexpr int64_t kMessageInterval = 60 * card::kNanosecondsPerSecond;
constexpr uint64_t kRefusedPerLook = 32;  // blocks
constexpr size_t kGrain = 16;             // bytes; blocks of glibc's allocator are multiples of it
constexpr size_t kOverhead = 8;           // bytes in front of a block, its size
constexpr size_t kSmallest = 32;          // bytes of the smallest block, overhead included

constinit std::atomic<uint64_t> made = 0;  // blocks, and those of them that are large
constinit std::atomic<uint64_t> large_made = 0;
constinit std::atomic<uint64_t> freed = 0;  // blocks
constinit std::atomic<uint64_t> bytes = 0;
constinit std::atomic<uint64_t> budget = 0;  // 0 = none
constinit std::atomic<uint64_t> refused = 0;
constinit std::atomic<bool> has_told = false;  // of this budget
constinit std::atomic<int64_t> told_ns = 0;
constinit thread_local bool budget_holds = true;

uint64_t cost(size_t usable);
template <typename Allocate>
void *counted(size_t size, Allocate allocate);
bool is_beyond(uint64_t use);
void *refuse();

}  // namespace

void *bep_mallocEx(uint32_t size, const char *, int) {
    return counted(size, [=] { return std::malloc(size); });
}

void *bep_callocEx(uint32_t count, uint32_t size, const char *, int) {
    // Two 32-bit numbers: the product cannot wrap.
    return counted(size_t{count} * size, [=] { return std::calloc(count, size); });
}

void bep_freeEx(void *ptr, const char *, int) {
    if (ptr != nullptr) {
        freed.fetch_add(1, std::memory_order_relaxed);
        bytes.fetch_sub(cost(malloc_usable_size(ptr)), std::memory_order_relaxed);
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
    return static_cast<int64_t>(blocks_made() - freed.load(std::memory_order_relaxed));
}

uint64_t card::blocks_made() {
    return made.load(std::memory_order_relaxed);
}

uint64_t card::large_blocks_made() {
    return large_made.load(std::memory_order_relaxed);
}

card::MemoryUse card::memory_use() {
    return {live_blocks(), bytes.load(std::memory_order_relaxed), budget.load(std::memory_order_relaxed),
            refused.load(std::memory_order_relaxed)};
}

void card::set_memory_budget(uint64_t new_budget) {
    budget.store(new_budget, std::memory_order_relaxed);
    has_told.store(false, std::memory_order_relaxed);
}

card::BudgetScope::BudgetScope(bool holds) : held_before_(std::exchange(budget_holds, holds)) {}

card::BudgetScope::~BudgetScope() {
    budget_holds = held_before_;
}

namespace {

// Bytes that a block costs, the allocator's own included. Rounded as glibc does, whose usable size is not changed by
// it, so that an allocator that hands out exact sizes (a sanitizer's) counts the same.
uint64_t cost(size_t usable) {
    const size_t whole = (usable + kOverhead + kGrain - 1) / kGrain * kGrain;
    return whole < kSmallest ? kSmallest : whole;
}

// A block of allocate(), which asks for 'size' bytes, counted; null when there is none, or when the budget forbids it.
template <typename Allocate>
void *counted(size_t size, Allocate allocate) {
    // Asked before too: what is refused should cost little, and an unreasonable size should not be tried.
    if (is_beyond(bytes.load(std::memory_order_relaxed) + cost(size))) {
        return refuse();
    }
    void *block = allocate();
    if (block == nullptr) {
        return nullptr;
    }
    const uint64_t added = cost(malloc_usable_size(block));
    if (is_beyond(bytes.fetch_add(added, std::memory_order_relaxed) + added)) {
        bytes.fetch_sub(added, std::memory_order_relaxed);
        std::free(block);
        return refuse();
    }
    made.fetch_add(1, std::memory_order_relaxed);
    if (size >= card::kLargeBlock) {
        large_made.fetch_add(1, std::memory_order_relaxed);
    }
    return block;
}

bool is_beyond(uint64_t use) {
    const uint64_t limit = budget.load(std::memory_order_relaxed);
    return limit != 0 && use > limit && budget_holds;
}

// Counts a refused block; the first one under a budget, and then one a minute while a flood of them goes on, is told
// of. The system's clock is asked for few of them: a system call costs more than the rest of a refused packet. A
// simulation's costs its driver one load.
void *refuse() {
    const uint64_t so_far = refused.fetch_add(1, std::memory_order_relaxed) + 1;
    const bool is_first =
        !has_told.load(std::memory_order_relaxed) && !has_told.exchange(true, std::memory_order_relaxed);
    const card::Clock &clock = card::Clock::instance();
    if (!is_first && so_far % kRefusedPerLook != 0 && !clock.is_driver()) {
        return nullptr;
    }
    const int64_t now = clock.monotonic_ns();
    int64_t last = told_ns.load(std::memory_order_relaxed);
    // A simulation that starts anew goes back in time.
    const bool is_due = now - last >= kMessageInterval || now < last;
    if ((is_due || is_first) && told_ns.compare_exchange_strong(last, now, std::memory_order_relaxed)) {
        ulogPrintf(0, kMessageLevel,
                   "card: memory budget of %" PRIu64 " bytes is used up, %" PRIu64 " allocations refused so far\r\n",
                   budget.load(std::memory_order_relaxed), so_far);
    }
    return nullptr;
}

}  // namespace
