// SPDX-License-Identifier: Apache-2.0
// clock.h: the card's time, real or simulated.
//
// Everything in the process reads time through clock_gettime, which this subject defines: live it is the system's
// clock; in a simulation it stands still until the driving thread moves it. Waiting is part of it: whoever waits for a
// message or sleeps does so here, so that a simulation knows who waits for what, and until when.
//
// Simulation is a rendezvous: run_until moves time from deadline to deadline; at each it releases the waiters that are
// ready or due, one at a time, and goes on only when the released thread waits again. One thread drives; any other
// thread takes part from its first wait to its end. The same inputs therefore give the same outputs, to the byte.
//
// Rules: (1) Nobody holds a lock that another thread takes while it waits, sleeps, drives or starts a thread here; the
// released thread could never reach its next wait. (2) A thread that takes part must not block anywhere else for long:
// time stands still meanwhile. (3) A thread that shall not take part (terminal, progress) lives in a RealTimeScope.
//
// Used by: os/ (queues, delays, threads), services/ (log times, trunks), the host (drives it). Lock: a mutex of its
// own, which is taken last: nothing but ready() is called with it held.
#pragma once

#include <cstdint>
#include <functional>

namespace card {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr uint32_t kTicksPerSecond = 1000;

// Simulated time ends here: CLOCK_REALTIME, nanoseconds, in April 2262.
constexpr int64_t kEndOfTimeNs = INT64_MAX - 2 * kNanosecondsPerSecond;

// 'length_ns' (not negative) behind 'time_ns', but not behind the end of time.
constexpr int64_t time_after(int64_t time_ns, int64_t length_ns) {
    return length_ns < kEndOfTimeNs - time_ns ? time_ns + length_ns : kEndOfTimeNs;
}

class Clock {
public:
    static Clock &instance();

    // Turns simulation on; the calling thread is the driver. Before atc_init. Simulated CLOCK_REALTIME starts at
    // 'realtime_ns' (nanoseconds since 1970-01-01 UTC), CLOCK_MONOTONIC at 0 plus one second. Called again, it starts
    // anew from there; whoever waits keeps what is left of its time-out.
    void simulate(int64_t realtime_ns);
    bool is_simulated() const;

    // Simulated or real, as the calling thread sees it (see RealTimeScope). Nanoseconds.
    int64_t monotonic_ns() const;
    int64_t realtime_ns() const;

    // Driver only. Moves simulated time to 'realtime_ns', running everything that is ready and then everything that
    // falls due on the way; a time that is not later than now only settles. A few nanoseconds when there is nothing.
    void run_until(int64_t realtime_ns);
    // The same, but ends at the time reached when stop() holds behind something that ran. Returns whether it has come
    // to its end. stop() may be called on any thread, as ready() of wait_for is.
    bool run_until(int64_t realtime_ns, const std::function<bool()> &stop);
    // Lets everybody handle what is ready now (posted messages), without moving time. Called by anybody but the driver,
    // or when nothing is simulated, it does nothing.
    void settle();

    // What the driver of a simulation, or live the thread that calls this, does when it is asked to sleep; an empty
    // function restores the default: run_until(now + length), or sleep. A replay sets this to feed the packets of that
    // span too; what it leaves of the span is run afterwards.
    void set_driver_sleep(std::function<void(int64_t length_ns)> sleep);

    // Driver only; an empty function takes it back. Called by the driver, with no lock held, before it lets other
    // threads run: whatever they may change can still be seen as it was. It must not wait, sleep or drive.
    void set_before_drive(std::function<void()> look);

    // Suspends the calling thread for 'length_ns'; not at all when that is not positive, or in a SleeplessScope.
    void sleep_for(int64_t length_ns);

    // Waits until ready() holds or 'timeout_ns' has passed (negative = without limit, 0 = not at all). Returns whether
    // ready() holds. ready() may be called on any thread, with no lock held but the clock's own; it must not call the
    // clock. Whoever makes it true calls notify() afterwards. The driver of a simulation moves time itself while it
    // waits; without a limit it only settles.
    bool wait_for(int64_t timeout_ns, const std::function<bool()> &ready);
    // Something that a ready() looks at has changed. Any thread; takes the clock's lock.
    void notify();

    // A thread that takes part from its start, so that nothing moves before it has reached its first wait: its creator
    // calls thread_starts() before it starts the thread, and passes the result to thread_runs(), which the new thread
    // calls first, or to thread_failed() when there is no new thread.
    bool thread_starts();
    void thread_runs(bool counted);
    void thread_failed(bool counted);

    // Whether the calling thread drives a simulation (and is not in a RealTimeScope).
    bool is_driver() const;

private:
    Clock() = default;
};

// The calling thread sees the system's clocks while one of these lives: file transfer, progress on a terminal.
class RealTimeScope {
public:
    RealTimeScope();
    ~RealTimeScope();
    RealTimeScope(const RealTimeScope &) = delete;
    RealTimeScope &operator=(const RealTimeScope &) = delete;
};

// The calling thread's sleeps take no time while one of these lives, and nothing else runs in them: a query of the
// module that would measure for a second gives its other figures as they are now.
class SleeplessScope {
public:
    SleeplessScope();
    ~SleeplessScope();
    SleeplessScope(const SleeplessScope &) = delete;
    SleeplessScope &operator=(const SleeplessScope &) = delete;
};

}  // namespace card
