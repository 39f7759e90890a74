// SPDX-License-Identifier: Apache-2.0
// mutex.h: one mutex that knows its owner, and costs a compare-and-swap each way while nobody waits for it.
//
// Inside os/ only. One word says who holds it and whether others wait. A thread that finds it taken looks again for
// some twenty microseconds, longer than the module keeps it between two pauses, and then sleeps on a futex (not on a
// condition: the C library's can lose a signal, and whoever waits for that one sleeps for ever). Giving and taking
// again at once beats a thread that has yet to look again, or to wake up; so whoever gives it only to take it again
// lets those that look go first (let_others_in), and whoever has slept for long is handed the mutex: nobody starves.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace card {

class alignas(64) Mutex {  // a line of cache of its own
public:
    // Waits 'ticks' of system time, also in a simulation, where whoever holds the mutex is running; without limit when
    // negative. Returns 0, or -1 when that has passed or the calling thread holds the mutex already.
    int take(int ticks) {
        const uint32_t self = own_number;
        if (self != kFree) [[likely]] {
            uint32_t free = kFree;
            if (holder_.compare_exchange_strong(free, self, std::memory_order_acquire)) [[likely]] {
                return 0;
            }
        }
        return take_slowly(ticks);
    }

    // Returns 0, or -1 when the calling thread does not hold it.
    int give() {
        uint32_t self = own_number;
        if (self != kFree) [[likely]] {
            if (holder_.compare_exchange_strong(self, kFree, std::memory_order_release)) [[likely]] {
                return 0;
            }
        }
        return give_to_waiter();
    }

    // Behind a give, before a take: waits for about a microsecond if threads are looking for a mutex, so that they find
    // it.
    static void let_others_in();

private:
    static constexpr uint32_t kFree = 0;
    static constexpr uint32_t kWaiters = 1u << 31;  // with a number: others wait; alone: free, but only for them

    // The calling thread's; 0 = it has taken no mutex yet. The card is part of the program, which has this at hand.
    [[gnu::tls_model("initial-exec")]] static thread_local constinit uint32_t own_number;

    static uint32_t number_thread();
    bool is_own() const;
    [[gnu::noinline, gnu::cold]] int take_slowly(int ticks);
    [[gnu::noinline, gnu::cold]] int give_to_waiter();
    bool spin();
    bool sleep(int ticks);
    bool wait_for_give(int64_t end_ns);
    bool take_or_announce(bool has_slept);

    std::atomic<uint32_t> holder_ = kFree;  // number of the thread, kWaiters

    // Threads that sleep, and what they and who wakes them agree on.
    pthread_mutex_t sleepers_ = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<uint32_t> gives_ = 0;  // to threads that sleep; what they sleep on
    uint32_t sleeping_ = 0;            // threads in sleep()
    bool impatient_ = false;           // one of them has slept long enough: hand it over
};

}  // namespace card
