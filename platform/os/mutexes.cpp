// mutexes.cpp: the mutexes of platform.h on POSIX threads.
//
// Called by the module on any thread. They know their owner: a thread that takes its mutex twice, or gives one that it
// does not hold, is told so (-1) instead of hanging or breaking in. A limited wait is on system time, also in a
// simulation: whoever holds the mutex is running.
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <memory>
#include <new>

#include "anti_cpu/platform.h"
#include "clock/clock.h"
#include "os/handles.h"

namespace {

constexpr uint32_t kMaxMutexes = 256;

struct Mutex {
    pthread_mutex_t handle;
    std::atomic<const void *> owner;  // &thread_mark of the thread that holds it; only that thread finds its own here

    bool is_own() const;
};

thread_local constinit char thread_mark = 0;  // its address names the thread

constinit card::HandleTable<Mutex, kMaxMutexes> mutexes;

int take_within(pthread_mutex_t *mutex, int ticks);

}  // namespace

uint32_t bep_semMCreateEx(uint32_t, const char *, int) {
    std::unique_ptr<Mutex> mutex(new (std::nothrow) Mutex{});
    if (mutex == nullptr || pthread_mutex_init(&mutex->handle, nullptr) != 0) {
        return 0;
    }
    const uint32_t handle = mutexes.add(mutex.get());
    if (handle != 0) {
        mutex.release();  // the table's now
    }
    return handle;
}

int bep_semTakeEx(uint32_t sem, int timeout, const char *, int) {
    Mutex *mutex = mutexes.find(sem);
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
    Mutex *mutex = mutexes.find(sem);
    if (mutex == nullptr || !mutex->is_own()) {
        return -1;
    }
    mutex->owner.store(nullptr, std::memory_order_relaxed);
    return pthread_mutex_unlock(&mutex->handle) == 0 ? 0 : -1;
}

namespace {

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
