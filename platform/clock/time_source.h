// SPDX-License-Identifier: Apache-2.0
// time_source.h: where a thread's time comes from: the system, or the simulation's standing clock.
//
// Inside clock/ only. time_source.cpp defines clock_gettime for the whole process and holds the words that it reads;
// clock.cpp, the rendezvous, is the only writer of them. No lock: the words are atomic, and may be read before any
// constructor has run.
#pragma once

#include <atomic>
#include <cstdint>

namespace card::time_source {

struct Simulation {
    std::atomic<bool> on;
    std::atomic<int64_t> monotonic_ns;        // simulated CLOCK_MONOTONIC
    std::atomic<int64_t> realtime_offset_ns;  // simulated CLOCK_REALTIME minus CLOCK_MONOTONIC
};
extern Simulation g_simulation;

// The system's own CLOCK_MONOTONIC, whatever is simulated.
int64_t system_monotonic_ns();

// RealTimeScopes of the calling thread.
extern constinit thread_local int real_time_scopes;

inline bool in_real_time_scope() {
    return real_time_scopes != 0;
}

// Whether the calling thread lives in simulated time: there is one, and no RealTimeScope.
inline bool is_simulated_here() {
    return g_simulation.on.load(std::memory_order_acquire) && !in_real_time_scope();
}

}  // namespace card::time_source
