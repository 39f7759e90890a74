// mutexes.cpp: the mutexes of platform.h on POSIX threads.
//
// Called by the module on any thread. They know their owner: a thread that takes its mutex twice, or gives one that it
// does not hold, is told so (-1) instead of hanging or breaking in. A limited wait is on system time, also in a
// simulation: whoever holds the mutex is running.
#include <pthread.h>
#include <time.h>

#include <atomic>

#include "anti_cpu/platform.h"
#include "clock/clock.h"

namespace {

constexpr uint32_t kMaxMutexes = 256;

struct Mutex {
    pthread_mutex_t handle = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<const void *> owner;  // &thread_mark of the thread that holds it; only that thread finds its own here

    bool is_own() const;
};

thread_local constinit char thread_mark = 0;  // its address names the thread

// In place rather than behind pointers: the packet path comes here twice a packet.
constinit Mutex mutexes[kMaxMutexes];
constinit std::atomic<uint32_t> created = 0;

Mutex *find(uint32_t sem);
[[gnu::noinline, gnu::cold]] int take_within(pthread_mutex_t *mutex, int ticks);  // not in the packet path's way

}  // namespace

uint32_t bep_semMCreateEx(uint32_t, const char *, int) {
    uint32_t count = created.load();
    while (count < kMaxMutexes && !created.compare_exchange_weak(count, count + 1)) {
    }
    return count < kMaxMutexes ? count + 1 : 0;
}

int bep_semTakeEx(uint32_t sem, int timeout, const char *, int) {
    Mutex *mutex = find(sem);
    if (mutex == nullptr || mutex->is_own()) {
        return -1;
    }
    if ((timeout < 0 ? pthread_mutex_lock(&mutex->handle) : take_within(&mutex->handle, timeout)) != 0) {
        return -1;
    }
    mutex->owner.store(&thread_mark, std::memory_order_relaxed);
    return 0;
}

int bep_semGiveEx(uint32_t sem, const char *, int) {
    Mutex *mutex = find(sem);
    if (mutex == nullptr || !mutex->is_own()) {
        return -1;
    }
    mutex->owner.store(nullptr, std::memory_order_relaxed);
    return pthread_mutex_unlock(&mutex->handle) == 0 ? 0 : -1;
}

namespace {

// Null when there is no such handle; 0 is none.
Mutex *find(uint32_t sem) {
    return sem - 1 < created.load(std::memory_order_acquire) ? &mutexes[sem - 1] : nullptr;
}

bool Mutex::is_own() const {
    return owner.load(std::memory_order_relaxed) == &thread_mark;
}

int take_within(pthread_mutex_t *mutex, int ticks) {
    const card::RealTimeScope system_time;
    const int64_t end_ns = card::Clock::instance().realtime_ns() +
                           static_cast<int64_t>(ticks) * (card::kNanosecondsPerSecond / card::kTicksPerSecond);
    timespec end = {};
    end.tv_sec = static_cast<time_t>(end_ns / card::kNanosecondsPerSecond);
    end.tv_nsec = static_cast<long>(end_ns % card::kNanosecondsPerSecond);
    return pthread_mutex_timedlock(mutex, &end);
}

}  // namespace
