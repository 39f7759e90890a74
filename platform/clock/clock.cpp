// clock.cpp: the rendezvous: who waits, for what and until when, and the driver that releases them.
//
// Called by os/ and services/ (waits), the host (drives). Uses time_source.h for the time itself.
// Invariants, under g.mutex: (1) 'waiters' holds every waiting thread, longest wait first. (2) 'running' counts the
// threads that take part and do not wait, the driver not among them; simulated time moves only while it is 0.
// (3) 'next_deadline' is not later than the earliest deadline of a simulated waiter. (4) After a drive, no simulated
// waiter is ready or due unless 'attention' is set.
// Waiters on system time (nothing simulated, or in a RealTimeScope) stand in the same list, outside the rendezvous.
#include "clock/clock.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "clock/time_source.h"

namespace card {
namespace {

using time_source::g_simulation;

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

struct Waiter {
    int64_t deadline_ns;                 // CLOCK_MONOTONIC as the thread sees it; kNever = no limit
    const std::function<bool()> *ready;  // null for a sleep
    bool real_time;                      // waits on system time even in a simulation
    std::atomic<bool> released;          // written under the mutex
    bool counted;                        // released into the rendezvous: 'running' has it
    std::condition_variable wake;
};

struct Rendezvous {
    std::mutex mutex;
    std::condition_variable idle;  // 'running' has reached 0; the driver waits for it
    std::vector<Waiter *> waiters;
    std::atomic<uint32_t> running = 0;                // written under the mutex
    std::function<void(int64_t)> driver_sleep;        // the driver's own
    std::atomic<int64_t> next_deadline_ns = kNever;   // written under the mutex
    std::atomic<bool> attention = false;              // notified, or a thread was started, since the last drive
    std::atomic<const void *> driver_mark = nullptr;  // &thread_mark of the driver
};

// Never destroyed: tasks wait here until the process has gone.
Rendezvous &g = *new Rendezvous;

thread_local constinit char thread_mark = 0;  // its address names the thread

// The calling thread's share in 'running', given back when it ends.
struct Participation {
    bool counted = false;
    ~Participation();
};
thread_local Participation participation;

template <typename Done>
void look_a_while(std::unique_lock<std::mutex> &lock, Done done);
int64_t later(int64_t now_ns, int64_t length_ns);
bool is_ready(const Waiter &waiter);
bool on_system_time(const Waiter &waiter);
void leave_running(bool *counted);
void release(Waiter *waiter);
void unlink(Waiter *waiter);
void drive(int64_t target_ns);
bool wait(int64_t timeout_ns, const std::function<bool()> *ready);

}  // namespace

Clock &Clock::instance() {
    static Clock clock;
    return clock;
}

void Clock::simulate(int64_t realtime_ns) {
    const std::lock_guard lock(g.mutex);
    const int64_t shift = kNanosecondsPerSecond -
                          (g_simulation.on ? g_simulation.monotonic_ns.load() : time_source::system_monotonic_ns());
    g_simulation.monotonic_ns = kNanosecondsPerSecond;
    g_simulation.realtime_offset_ns = realtime_ns - kNanosecondsPerSecond;
    g_simulation.on = true;
    leave_running(&participation.counted);
    g.driver_mark = &thread_mark;
    g.attention = true;
    for (Waiter *waiter : g.waiters) {
        if (!waiter->real_time) {
            if (waiter->deadline_ns != kNever) {
                waiter->deadline_ns += shift;
            }
            waiter->wake.notify_one();  // it may be waiting on system time
        }
    }
}

bool Clock::is_simulated() const {
    return g_simulation.on.load(std::memory_order_acquire);
}

void Clock::run_until(int64_t realtime_ns) {
    assert(is_driver());
    const int64_t target_ns = realtime_ns - g_simulation.realtime_offset_ns.load(std::memory_order_relaxed);
    if (target_ns < g.next_deadline_ns.load(std::memory_order_relaxed) &&
        !g.attention.load(std::memory_order_acquire)) {
        if (target_ns > g_simulation.monotonic_ns.load(std::memory_order_relaxed)) {
            g_simulation.monotonic_ns.store(target_ns, std::memory_order_relaxed);
        }
        return;
    }
    drive(target_ns);
}

void Clock::settle() {
    if (is_driver()) {
        run_until(realtime_ns());
    }
}

void Clock::set_driver_sleep(std::function<void(int64_t length_ns)> sleep) {
    g.driver_sleep = std::move(sleep);
}

void Clock::sleep_for(int64_t length_ns) {
    if (length_ns <= 0) {
        return;
    }
    if (!is_driver()) {
        wait(length_ns, nullptr);
        return;
    }
    const int64_t end_ns = realtime_ns() + length_ns;
    if (g.driver_sleep) {
        g.driver_sleep(length_ns);
    }
    run_until(end_ns);
}

bool Clock::wait_for(int64_t timeout_ns, const std::function<bool()> &ready) {
    if (!is_driver()) {
        return wait(timeout_ns, &ready);
    }
    const int64_t end_ns = timeout_ns < 0 ? monotonic_ns() : later(monotonic_ns(), timeout_ns);
    for (;;) {
        settle();
        if (ready()) {
            return true;
        }
        if (monotonic_ns() >= end_ns) {
            return false;
        }
        drive(std::min(end_ns, g.next_deadline_ns.load()));
    }
}

void Clock::notify() {
    const std::lock_guard lock(g.mutex);
    g.attention.store(true, std::memory_order_release);
    for (size_t i = 0; i < g.waiters.size();) {
        Waiter *waiter = g.waiters[i];
        if (on_system_time(*waiter) && is_ready(*waiter)) {
            release(waiter);  // unlinks it
        } else {
            ++i;
        }
    }
}

bool Clock::thread_starts() {
    const std::lock_guard lock(g.mutex);
    if (!time_source::is_simulated_here()) {
        return false;
    }
    ++g.running;
    g.attention = true;
    return true;
}

void Clock::thread_runs(bool counted) {
    participation.counted = counted;
}

void Clock::thread_failed(bool counted) {
    const std::lock_guard lock(g.mutex);
    leave_running(&counted);
}

bool Clock::is_driver() const {
    return time_source::is_simulated_here() && g.driver_mark.load(std::memory_order_relaxed) == &thread_mark;
}

namespace {

// Moves time to 'target_ns' (CLOCK_MONOTONIC), releasing one thread after the other on the way.
void drive(int64_t target_ns) {
    std::unique_lock lock(g.mutex);
    const auto all_wait = [] { return g.running == 0; };
    const auto earlier = [](const Waiter *a, const Waiter *b) {
        const int64_t of_a = on_system_time(*a) ? kNever : a->deadline_ns;
        const int64_t of_b = on_system_time(*b) ? kNever : b->deadline_ns;
        return of_a < of_b;
    };
    for (;;) {
        look_a_while(lock, all_wait);
        g.idle.wait(lock, all_wait);
        if (g.attention.exchange(false)) {
            const auto found = std::ranges::find_if(
                g.waiters, [](const Waiter *waiter) { return !on_system_time(*waiter) && is_ready(*waiter); });
            if (found != g.waiters.end()) {
                g.attention = true;  // there may be more
                release(*found);
                continue;
            }
        }
        const auto first = std::ranges::min_element(g.waiters, earlier);
        const bool limited = first != g.waiters.end() && !on_system_time(**first);
        g.next_deadline_ns = limited ? (*first)->deadline_ns : kNever;
        if (g.next_deadline_ns == kNever || g.next_deadline_ns > target_ns) {
            break;
        }
        g_simulation.monotonic_ns = std::max<int64_t>(g_simulation.monotonic_ns, g.next_deadline_ns);
        release(*first);
    }
    g_simulation.monotonic_ns = std::max<int64_t>(g_simulation.monotonic_ns, target_ns);
}

// The wait of everybody but the driver.
bool wait(int64_t timeout_ns, const std::function<bool()> *ready) {
    std::unique_lock lock(g.mutex);
    Waiter self{kNever, ready, time_source::in_real_time_scope(), false, false, {}};
    if (is_ready(self)) {
        return true;
    }
    if (timeout_ns == 0) {
        return false;
    }
    if (timeout_ns > 0) {
        self.deadline_ns = later(Clock::instance().monotonic_ns(), timeout_ns);
    }
    g.waiters.push_back(&self);
    if (!on_system_time(self)) {
        g.next_deadline_ns = std::min<int64_t>(g.next_deadline_ns, self.deadline_ns);
        leave_running(&participation.counted);
    }
    look_a_while(lock, [&self] { return self.released.load(); });
    while (!self.released) {
        if (!on_system_time(self) || self.deadline_ns == kNever) {
            self.wake.wait(lock);
        } else if (time_source::system_monotonic_ns() < self.deadline_ns) {
            self.wake.wait_until(lock,
                                 std::chrono::steady_clock::time_point(std::chrono::nanoseconds(self.deadline_ns)));
        } else {
            unlink(&self);
            self.released = true;
        }
    }
    participation.counted = participation.counted || self.counted;
    return is_ready(self);
}

// Lets go of the lock until 'done' holds, for some microseconds at most: in a simulation the other side is through in
// less than it takes a thread to fall asleep and be woken, and a day of idle seconds is that many turns.
template <typename Done>
void look_a_while(std::unique_lock<std::mutex> &lock, Done done) {
    constexpr int kLooks = 50;
    if (!g_simulation.on || done()) {
        return;
    }
    lock.unlock();
    for (int look = 0; look < kLooks && !done(); ++look) {
        std::this_thread::yield();
    }
    lock.lock();
}

void release(Waiter *waiter) {
    unlink(waiter);
    waiter->released = true;
    waiter->counted = !on_system_time(*waiter);
    g.running += waiter->counted ? 1 : 0;
    waiter->wake.notify_one();  // under the mutex: the waiter lives on its thread's stack
}

void unlink(Waiter *waiter) {
    g.waiters.erase(std::ranges::find(g.waiters, waiter));
}

void leave_running(bool *counted) {
    if (std::exchange(*counted, false) && --g.running == 0) {
        g.idle.notify_one();
    }
}

Participation::~Participation() {
    const std::lock_guard lock(g.mutex);
    leave_running(&counted);
}

bool on_system_time(const Waiter &waiter) {
    return waiter.real_time || !g_simulation.on;
}

bool is_ready(const Waiter &waiter) {
    return waiter.ready != nullptr && (*waiter.ready)();
}

int64_t later(int64_t now_ns, int64_t length_ns) {
    return length_ns < kNever - now_ns ? now_ns + length_ns : kNever;
}

}  // namespace
}  // namespace card
