// SPDX-License-Identifier: Apache-2.0
// clock.cpp: the rendezvous: who waits, for what and until when, and the driver that releases them.
//
// Called by os/ and services/ (waits), the host (drives). Uses time_source.h for the time itself.
// Invariants, under g.mutex: (1) 'waiters' holds every waiting thread, longest wait first. (2) 'running' counts the
// threads that take part and do not wait, the driver not among them; simulated time moves only while it is 0.
// (3) 'next_deadline' is not later than the earliest deadline of a simulated waiter. (4) After a drive that nothing has
// stopped, no simulated waiter is ready or due unless 'attention' is set.
// While the driver drives, the last thread that runs moves time to its own deadline itself where the driver would do
// nothing else: a task that looks around each second costs no hand-over between threads while nothing happens.
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
constexpr int64_t kNobodyDrives = std::numeric_limits<int64_t>::min();

// What a thread waits for.
struct Wait {
    int64_t deadline_ns;                 // CLOCK_MONOTONIC as the thread sees it; kNever = no limit
    const std::function<bool()> *ready;  // null for a sleep
    bool real_time;                      // on system time even in a simulation
};

// A thread that stands still.
struct Waiter {
    Wait &wait;
    std::atomic<bool> released = false;  // written under the mutex
    bool counted = false;                // released into the rendezvous: 'running' has it
    std::condition_variable wake = {};
};

struct Rendezvous {
    std::mutex mutex;
    std::condition_variable idle;  // 'running' has reached 0; the driver waits for it
    std::vector<Waiter *> waiters;
    std::atomic<uint32_t> running = 0;                 // written under the mutex
    std::function<void(int64_t)> driver_sleep;         // the driver's own
    std::atomic<const void *> sleeper_mark = nullptr;  // &thread_mark of whoever set it
    std::function<void()> before_drive;                // the driver's own
    std::atomic<int64_t> next_deadline_ns = kNever;    // written under the mutex
    std::atomic<bool> attention = false;               // notified, or a thread was started, since the last drive
    std::atomic<const void *> driver_mark = nullptr;   // &thread_mark of the driver
    int64_t target_ns = kNobodyDrives;                 // of the drive that is on, CLOCK_MONOTONIC
    const std::function<bool()> *stop = nullptr;       // ends that drive early
};

// Never destroyed: tasks wait here until the process has gone.
Rendezvous &g = *new Rendezvous;

thread_local constinit char thread_mark = 0;  // its address names the thread
thread_local constinit int sleepless_scopes = 0;

// The calling thread's share in 'running', given back when it ends.
struct Participation {
    bool counted = false;
    ~Participation();
};
thread_local Participation participation;

template <typename Done>
void look_a_while(std::unique_lock<std::mutex> &lock, Done done);
int64_t later(int64_t now_ns, int64_t length_ns);
bool is_ready(const Wait &wait);
bool is_due(const Wait &wait);
bool on_system_time(const Wait &wait);
int64_t simulated_deadline(const Waiter *waiter);
void move_time(int64_t monotonic_ns);
void leave_running(bool *counted);
void release(Waiter *waiter);
void unlink(Waiter *waiter);
bool drive(int64_t target_ns, const std::function<bool()> *stop = nullptr);
bool step_alone(const Wait &self);
void stand_in_line(std::unique_lock<std::mutex> &lock, Wait &wait);
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
        if (!waiter->wait.real_time) {
            if (waiter->wait.deadline_ns != kNever) {
                waiter->wait.deadline_ns += shift;
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

bool Clock::run_until(int64_t realtime_ns, const std::function<bool()> &stop) {
    assert(is_driver());
    return drive(realtime_ns - g_simulation.realtime_offset_ns.load(std::memory_order_relaxed), &stop);
}

void Clock::settle() {
    if (is_driver()) {
        run_until(realtime_ns());
    }
}

void Clock::set_driver_sleep(std::function<void(int64_t length_ns)> sleep) {
    g.driver_sleep = std::move(sleep);
    g.sleeper_mark = g.driver_sleep ? &thread_mark : nullptr;
}

void Clock::set_before_drive(std::function<void()> look) {
    g.before_drive = std::move(look);
}

void Clock::sleep_for(int64_t length_ns) {
    if (length_ns <= 0 || sleepless_scopes != 0) {
        return;
    }
    if (!is_driver()) {
        if (!is_simulated() && g.sleeper_mark.load(std::memory_order_relaxed) == &thread_mark) {
            g.driver_sleep(length_ns);
        } else {
            wait(length_ns, nullptr);
        }
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
        if (on_system_time(waiter->wait) && is_ready(waiter->wait)) {
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

SleeplessScope::SleeplessScope() {
    ++sleepless_scopes;
}

SleeplessScope::~SleeplessScope() {
    --sleepless_scopes;
}

bool Clock::is_driver() const {
    return time_source::is_simulated_here() && g.driver_mark.load(std::memory_order_relaxed) == &thread_mark;
}

namespace {

// Moves time to 'target_ns' (CLOCK_MONOTONIC), releasing one thread after the other on the way. False when stop() has
// ended it before.
bool drive(int64_t target_ns, const std::function<bool()> *stop) {
    if (g.before_drive) {
        g.before_drive();
    }
    std::unique_lock lock(g.mutex);
    g.target_ns = target_ns;
    g.stop = stop;
    bool stopped = false;
    const auto all_wait = [] { return g.running == 0; };
    for (;;) {
        look_a_while(lock, all_wait);
        g.idle.wait(lock, all_wait);
        if (g.attention.exchange(false)) {
            const auto found = std::ranges::find_if(g.waiters, [](const Waiter *waiter) {
                return !on_system_time(waiter->wait) && is_ready(waiter->wait);
            });
            if (found != g.waiters.end()) {
                g.attention = true;  // there may be more
                release(*found);
                continue;
            }
        }
        const auto first = std::ranges::min_element(g.waiters, {}, simulated_deadline);
        g.next_deadline_ns = first != g.waiters.end() ? simulated_deadline(*first) : kNever;
        stopped = stop != nullptr && (*stop)();
        if (stopped || g.next_deadline_ns == kNever || g.next_deadline_ns > target_ns) {
            break;
        }
        move_time(g.next_deadline_ns);
        release(*first);
    }
    g.target_ns = kNobodyDrives;
    if (!stopped) {
        move_time(target_ns);
    }
    return !stopped;
}

// The wait of everybody but the driver. A thread that is released because it is ready and finds that another one was
// faster goes on waiting.
bool wait(int64_t timeout_ns, const std::function<bool()> *ready) {
    std::unique_lock lock(g.mutex);
    Wait self{kNever, ready, time_source::in_real_time_scope()};
    if (timeout_ns >= 0) {
        self.deadline_ns = later(Clock::instance().monotonic_ns(), timeout_ns);
    }
    for (;;) {
        if (is_ready(self)) {
            return true;
        }
        if (is_due(self)) {
            return false;
        }
        if (!step_alone(self)) {
            stand_in_line(lock, self);
        }
    }
}

// Does what the driver would do next if this thread waited: nothing but moving time to the thread's deadline.
bool step_alone(const Wait &self) {
    if (on_system_time(self) || !participation.counted || g.running != 1 || g.attention ||
        self.deadline_ns > g.target_ns || (g.stop != nullptr && (*g.stop)())) {
        return false;
    }
    for (const Waiter *other : g.waiters) {
        if (simulated_deadline(other) <= self.deadline_ns) {
            return false;
        }
    }
    move_time(self.deadline_ns);
    return true;
}

// Waits until the thread is released, or due on system time.
void stand_in_line(std::unique_lock<std::mutex> &lock, Wait &wait) {
    Waiter self{wait};
    g.waiters.push_back(&self);
    if (!on_system_time(wait)) {
        g.next_deadline_ns = std::min<int64_t>(g.next_deadline_ns, wait.deadline_ns);
        leave_running(&participation.counted);
    }
    look_a_while(lock, [&self] { return self.released.load(); });
    while (!self.released) {
        if (!on_system_time(wait) || wait.deadline_ns == kNever) {
            self.wake.wait(lock);
        } else if (!is_due(wait)) {
            self.wake.wait_until(lock,
                                 std::chrono::steady_clock::time_point(std::chrono::nanoseconds(wait.deadline_ns)));
        } else {
            unlink(&self);
            self.released = true;
        }
    }
    participation.counted = participation.counted || self.counted;
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
    waiter->counted = !on_system_time(waiter->wait);
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

bool on_system_time(const Wait &wait) {
    return wait.real_time || !g_simulation.on;
}

bool is_ready(const Wait &wait) {
    return wait.ready != nullptr && (*wait.ready)();
}

bool is_due(const Wait &wait) {
    return wait.deadline_ns != kNever &&
           wait.deadline_ns <= (on_system_time(wait) ? time_source::system_monotonic_ns()
                                                     : g_simulation.monotonic_ns.load(std::memory_order_relaxed));
}

// What the driver looks at: it does not wait for those on system time.
int64_t simulated_deadline(const Waiter *waiter) {
    return on_system_time(waiter->wait) ? kNever : waiter->wait.deadline_ns;
}

// Never back.
void move_time(int64_t monotonic_ns) {
    g_simulation.monotonic_ns = std::max<int64_t>(g_simulation.monotonic_ns, monotonic_ns);
}

int64_t later(int64_t now_ns, int64_t length_ns) {
    return length_ns < kNever - now_ns ? now_ns + length_ns : kNever;
}

}  // namespace
}  // namespace card
