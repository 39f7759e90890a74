// SPDX-License-Identifier: Apache-2.0
// card_verbs.h: the card's clock in few words, for the tests of the card.
#pragma once

#include <cstdint>

#include "clock/clock.h"

namespace card_verbs {

constexpr int64_t kStart = 1'630'554'380 * card::kNanosecondsPerSecond;  // 2021-09-02 03:46:20 UTC
constexpr int64_t kMs = 1'000'000;

inline card::Clock &the_clock() {
    return card::Clock::instance();
}

// Moves simulated time on.
inline void run(int64_t length_ns) {
    the_clock().run_until(the_clock().realtime_ns() + length_ns);
}

}  // namespace card_verbs
