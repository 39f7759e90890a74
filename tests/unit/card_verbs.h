// card_verbs.h: the card's mutex, queue and clock in few words, for the tests of the card.
#pragma once

#include <cstdint>

#include "anti_cpu/platform.h"
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

inline int take(uint32_t mutex, int timeout) {
    return bep_semTakeEx(mutex, timeout, __FILE__, __LINE__);
}

inline int give(uint32_t mutex) {
    return bep_semGiveEx(mutex, __FILE__, __LINE__);
}

inline uint32_t new_queue(uint32_t max_messages, uint32_t size = sizeof(uint32_t)) {
    return bep_msgQCreateEx(max_messages, size, 0, __FILE__, __LINE__);
}

inline int send(uint32_t queue, uint32_t message, uint32_t priority = 1, int timeout = 0) {
    return bep_msgQSendEx(queue, &message, sizeof(message), timeout, priority, __FILE__, __LINE__);
}

// The message, or -1 when none came.
inline int64_t receive(uint32_t queue, int timeout = 0) {
    uint32_t message = 0;
    const int length = bep_msgQReceiveEx(queue, &message, sizeof(message), timeout, __FILE__, __LINE__);
    return length == sizeof(message) ? static_cast<int64_t>(message) : -1;
}

}  // namespace card_verbs
