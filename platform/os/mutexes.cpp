// SPDX-License-Identifier: Apache-2.0
// mutexes.cpp: the mutexes of platform.h by their handles. Called by the module on any thread.
#include <atomic>

#include "anti_cpu/platform.h"
#include "os/mutex.h"

namespace {

constexpr uint32_t kMaxMutexes = 256;

// In place rather than behind pointers: the packet path comes here twice a packet.
constinit card::Mutex mutexes[kMaxMutexes];
constinit std::atomic<uint32_t> created = 0;

card::Mutex *find(uint32_t sem);

}  // namespace

uint32_t bep_semMCreateEx(uint32_t, const char *, int) {
    uint32_t count = created.load();
    while (count < kMaxMutexes && !created.compare_exchange_weak(count, count + 1)) {
    }
    return count < kMaxMutexes ? count + 1 : 0;
}

int bep_semTakeEx(uint32_t sem, int timeout, const char *, int) {
    card::Mutex *mutex = find(sem);
    return mutex != nullptr ? mutex->take(timeout) : -1;
}

int bep_semGiveEx(uint32_t sem, const char *, int) {
    card::Mutex *mutex = find(sem);
    return mutex != nullptr ? mutex->give() : -1;
}

namespace {

// Null when there is no such handle; 0 is none.
card::Mutex *find(uint32_t sem) {
    return sem - 1 < created.load(std::memory_order_acquire) ? &mutexes[sem - 1] : nullptr;
}

}  // namespace
