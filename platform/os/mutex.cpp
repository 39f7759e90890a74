// SPDX-License-Identifier: Apache-2.0
#include "os/mutex.h"

#include <errno.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "clock/clock.h"

namespace card {
namespace {

// Looks at a mutex that is taken, each after twice the pause of the one before, up to some: who lets others in waits
// for more than one of them.
constexpr uint32_t kLooks = 64;
constexpr uint32_t kLongestPause = 16;
constexpr uint32_t kPausesForOthers = 64;
constexpr int64_t kPatienceNs = 50'000;

// Threads that look, whichever mutex they look at.
constinit std::atomic<uint32_t> looking = 0;

constexpr int64_t kNever = INT64_MAX;

void pause_processor(uint32_t times);
int64_t system_time_ns();

}  // namespace

thread_local constinit uint32_t Mutex::own_number = 0;

uint32_t Mutex::number_thread() {
    static constinit std::atomic<uint32_t> last = 0;
    while (own_number == 0) {
        own_number = (last.fetch_add(1) + 1) & ~kWaiters;
    }
    return own_number;
}

bool Mutex::is_own() const {
    return own_number != 0 && (holder_.load(std::memory_order_relaxed) & ~kWaiters) == own_number;
}

int Mutex::take_slowly(int ticks) {
    number_thread();
    if (is_own()) {
        return -1;
    }
    return spin() || (ticks != 0 && sleep(ticks)) ? 0 : -1;
}

// The first look is at once: a thread's first take comes here with the mutex free.
bool Mutex::spin() {
    looking.fetch_add(1, std::memory_order_relaxed);
    bool is_mine = false;
    uint32_t pause = 1;
    for (uint32_t look = 0; look < kLooks && !is_mine; ++look) {
        uint32_t seen = holder_.load(std::memory_order_relaxed);
        is_mine = seen == kFree && holder_.compare_exchange_strong(seen, own_number, std::memory_order_acquire);
        if (!is_mine) {
            pause_processor(pause);
            pause = pause < kLongestPause ? pause * 2 : pause;
        }
    }
    looking.fetch_sub(1, std::memory_order_relaxed);
    return is_mine;
}

void Mutex::let_others_in() {
    for (uint32_t waited = 0; looking.load(std::memory_order_relaxed) > 0; ++waited) {
        if (waited == kPausesForOthers) {
            sched_yield();  // they may be waiting for this thread's processor
            return;
        }
        pause_processor(1);
    }
}

bool Mutex::sleep(int ticks) {
    const int64_t start = system_time_ns();
    const int64_t end =
        ticks < 0 ? kNever : start + static_cast<int64_t>(ticks) * (kNanosecondsPerSecond / kTicksPerSecond);
    pthread_mutex_lock(&sleepers_);
    ++sleeping_;
    bool is_mine = take_or_announce(false);
    bool is_late = false;
    while (!is_mine && !is_late) {
        is_late = !wait_for_give(end);
        is_mine = take_or_announce(true);
        impatient_ = impatient_ || (!is_mine && !is_late && system_time_ns() - start > kPatienceNs);
    }
    --sleeping_;
    pthread_mutex_unlock(&sleepers_);
    return is_mine;
}

// Lets go of sleepers_ until the mutex is given, or something else wakes the thread. False when the end has come. A
// give that comes before the thread sleeps has changed the word by then, and the system does not let it sleep.
bool Mutex::wait_for_give(int64_t end_ns) {
    const uint32_t seen = gives_.load(std::memory_order_relaxed);
    pthread_mutex_unlock(&sleepers_);
    timespec end = {};  // of CLOCK_MONOTONIC: what this operation of the futex compares with
    end.tv_sec = static_cast<time_t>(end_ns / kNanosecondsPerSecond);
    end.tv_nsec = static_cast<long>(end_ns % kNanosecondsPerSecond);
    const bool is_late = syscall(SYS_futex, &gives_, FUTEX_WAIT_BITSET_PRIVATE, seen, end_ns == kNever ? nullptr : &end,
                                 nullptr, FUTEX_BITSET_MATCH_ANY) != 0 &&
                         errno == ETIMEDOUT;
    pthread_mutex_lock(&sleepers_);
    return !is_late;
}

// Takes the mutex if this thread may, or else sees to it that it is told. With sleepers_ held and counted there.
bool Mutex::take_or_announce(bool has_slept) {
    uint32_t seen = holder_.load(std::memory_order_relaxed);
    for (;;) {
        const bool is_free = seen == kFree || (seen == kWaiters && has_slept);
        const uint32_t next = is_free ? own_number | (sleeping_ > 1 ? kWaiters : 0) : seen | kWaiters;
        if (holder_.compare_exchange_weak(seen, next, std::memory_order_acquire, std::memory_order_relaxed)) {
            impatient_ = impatient_ && !is_free;
            return is_free;
        }
    }
}

int Mutex::give_to_waiter() {
    if (!is_own()) {
        return -1;
    }
    pthread_mutex_lock(&sleepers_);
    holder_.store(impatient_ && sleeping_ > 0 ? kWaiters : kFree, std::memory_order_release);
    gives_.fetch_add(1, std::memory_order_relaxed);
    pthread_mutex_unlock(&sleepers_);
    syscall(SYS_futex, &gives_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    return 0;
}

namespace {

void pause_processor(uint32_t times) {
    for (; times > 0; --times) {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#else
        std::atomic_signal_fence(std::memory_order_seq_cst);  // keeps the loop
#endif
    }
}

int64_t system_time_ns() {
    const RealTimeScope system_time;
    return Clock::instance().monotonic_ns();
}

}  // namespace
}  // namespace card
