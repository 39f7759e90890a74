// SPDX-License-Identifier: Apache-2.0
// time_source.cpp: clock_gettime for the whole process, and who of its threads sees which time.
//
// Called by everything that reads a clock: the module, the C++ library, libcurl. The symbol is interposed at load, so
// there is no way back to the C library's own; the system is asked by system call.
#include "clock/time_source.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "clock/clock.h"

namespace card {
namespace time_source {

constinit Simulation g_simulation = {};

constinit thread_local int real_time_scopes = 0;

namespace {

// The raw system call writes the kernel's words into the caller's record: the two must be the same.
static_assert(sizeof(timespec) == 2 * sizeof(long));

int system_time(clockid_t clock, timespec *time) {
    return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
}

int64_t system_ns(clockid_t clock) {
    timespec time = {};
    system_time(clock, &time);
    return static_cast<int64_t>(time.tv_sec) * kNanosecondsPerSecond + time.tv_nsec;
}

int64_t simulated_ns(bool wall) {
    const int64_t monotonic = g_simulation.monotonic_ns.load(std::memory_order_relaxed);
    return wall ? monotonic + g_simulation.realtime_offset_ns.load(std::memory_order_relaxed) : monotonic;
}

void split(int64_t nanoseconds, timespec *time) {
    int64_t seconds = nanoseconds / kNanosecondsPerSecond;
    int64_t rest = nanoseconds % kNanosecondsPerSecond;
    if (rest < 0) {  // a capture may claim a time before 1970
        rest += kNanosecondsPerSecond;
        --seconds;
    }
    time->tv_sec = static_cast<time_t>(seconds);
    time->tv_nsec = static_cast<long>(rest);
}

int read_clock(clockid_t clock, timespec *time) {
    if (is_simulated_here()) {
        switch (clock) {
            case CLOCK_REALTIME:
            case CLOCK_REALTIME_COARSE:
                split(simulated_ns(true), time);
                return 0;
            case CLOCK_MONOTONIC:
            case CLOCK_MONOTONIC_RAW:
            case CLOCK_MONOTONIC_COARSE:
            case CLOCK_BOOTTIME:
                split(simulated_ns(false), time);
                return 0;
            default:
                break;
        }
    }
    return system_time(clock, time);
}

}  // namespace

int64_t system_monotonic_ns() {
    return system_ns(CLOCK_MONOTONIC);
}

}  // namespace time_source

int64_t Clock::monotonic_ns() const {
    return time_source::is_simulated_here() ? time_source::simulated_ns(false)
                                            : time_source::system_ns(CLOCK_MONOTONIC);
}

int64_t Clock::realtime_ns() const {
    return time_source::is_simulated_here() ? time_source::simulated_ns(true) : time_source::system_ns(CLOCK_REALTIME);
}

RealTimeScope::RealTimeScope() {
    ++time_source::real_time_scopes;
}

RealTimeScope::~RealTimeScope() {
    --time_source::real_time_scopes;
}

}  // namespace card

extern "C" int clock_gettime(clockid_t clock, timespec *time) noexcept {
    return card::time_source::read_clock(clock, time);
}
