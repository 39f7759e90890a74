// SPDX-License-Identifier: Apache-2.0
// timer_test.cpp: the timer list against a sorted twin, on the fake clock.
#include "atc_timer/timer.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <random>

#include "fixture.h"

namespace {

using Ids = std::vector<uintptr_t>;

Ids g_fired;                                  // first arguments, in the order of firing
std::function<void(uintptr_t)> g_when_fired;  // what the callbacks do besides

int note(uintptr_t id, uintptr_t more, uintptr_t most) {
    EXPECT_EQ(more, id + 100);
    EXPECT_EQ(most, UINTPTR_MAX - id);
    g_fired.push_back(id);
    if (g_when_fired) {
        g_when_fired(id);
    }
    return -1;  // ignored
}

class Timers : public ::testing::Test {
protected:
    void SetUp() override {
        fake().reset();
        g_when_fired = nullptr;
        list = timer_list_create();
    }
    void TearDown() override {
        std::free(list);
        fake().release_clock();
    }

    void start(size_t id, uint32_t seconds) {
        EXPECT_EQ(timer_start(list, &timers.at(id), seconds, note, id, id + 100, UINTPTR_MAX - id), 0);
    }
    void restart(size_t id, uint32_t seconds) { EXPECT_EQ(timer_restart(list, &timers.at(id), seconds), 0); }
    void stop(size_t id) { EXPECT_EQ(timer_stop(list, &timers.at(id)), 0); }

    // Who fires then.
    Ids check_after(int64_t seconds) {
        fake().advance(seconds);
        g_fired.clear();
        EXPECT_EQ(timer_list_check(list), 0);
        return g_fired;
    }
    // Who is armed, earliest first.
    Ids armed() {
        Ids ids;
        atc_list_each<atc_timer_t>(&list->head, [&](atc_timer_t *timer) { ids.push_back(timer->arg1); });
        return ids;
    }

    atc_timer_list_t *list = nullptr;
    std::array<atc_timer_t, 8> timers{};  // zero-filled: valid idle timers
};

TEST_F(Timers, ExpirySaturates) {
    using Row = std::array<int64_t, 3>;  // now, seconds, expiry
    for (const auto &[now, seconds, expiry] : {Row{INT32_MAX - 10, 9, INT32_MAX - 1},
                                               {INT32_MAX - 10, 10, INT32_MAX},
                                               {INT32_MAX - 10, 11, INT32_MAX},
                                               {1000, UINT32_MAX - 999, INT32_MAX}}) {
        fake().monotonic_ns = now * ns_per_second + 5;
        start(1, static_cast<uint32_t>(seconds));
        EXPECT_EQ(timers[1].expire.seconds, expiry) << now << " + " << seconds;
    }
}

TEST_F(Timers, WithoutAListOrATimerNothingIsDone) {
    for (const auto &[of, timer] : {std::pair(list, static_cast<atc_timer_t *>(nullptr)), {nullptr, &timers[0]}}) {
        EXPECT_EQ(timer_start(of, timer, 1, note, 0, 0, 0), -1);
        EXPECT_EQ(timer_restart(of, timer, 1), -1);
        EXPECT_EQ(timer_stop(of, timer), -1);
    }
    EXPECT_EQ(timer_node_init(nullptr), -1);
}

TEST_F(Timers, CallbacksStartAndStopTimers) {
    check_after(1);
    EXPECT_EQ(fake().calls(Call::clock), 0U) << "nothing is armed";
    g_when_fired = [this](uintptr_t id) {
        if (id == 1) {
            stop(2);       // due in this very check
            start(3, 10);  // was due: not now any more
            start(4, 0);   // due at once
            stop(1);       // itself
        } else if (id == 5) {
            timers[5] = {};     // freed
            fake().advance(5);  // "now" stays the start of the check: 7 is not due
        } else if (id == 6) {
            restart(6, 4);  // periodic: missed periods are not made up for
        }
    };
    for (size_t id : {1U, 2U, 3U, 5U, 6U, 7U}) {
        start(id, id == 7 ? 10 : 4);
    }
    EXPECT_EQ(check_after(9), (Ids{1, 5, 6, 4}));
    EXPECT_EQ(check_after(10), (Ids{7, 6, 3}));
    EXPECT_EQ(timers[5].link.next, nullptr) << "touched after its callback";
}

TEST_F(Timers, RandomStepsAgainstASortedTwin) {
    const uint32_t seed = test_seed();
    std::mt19937 random(seed);
    auto below = [&](uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(random); };
    std::multimap<int64_t, uintptr_t> twin;  // ids by expiry in ns, equal ones in the order of arming
    auto ids = [&](auto last) {
        Ids until;
        std::for_each(twin.begin(), last, [&](const auto &one) { until.push_back(one.second); });
        return until;
    };
    for (int i = 0; i < 20000; ++i) {
        SCOPED_TRACE("ATC_TEST_SEED=" + std::to_string(seed) + ", step " + std::to_string(i));
        if (uint32_t action = below(4); action == 0) {
            fake().realtime_ns = (below(2'000'000'000)) * ns_per_second;  // does not matter
            fake().advance_ns(below(3) * 500'000'000LL);
            auto due = twin.upper_bound(fake().monotonic_ns);
            ASSERT_EQ(check_after(0), ids(due));
            twin.erase(twin.begin(), due);
        } else {
            size_t id = below(static_cast<uint32_t>(timers.size()));
            bool was_armed = std::erase_if(twin, [&](const auto &one) { return one.second == id; }) > 0;
            uint32_t seconds = below(6);
            if (action == 1) {
                stop(id);
            } else {
                was_armed &&action == 2 ? restart(id, seconds) : start(id, seconds);
                twin.emplace(fake().monotonic_ns + seconds * 1'000'000'000LL, id);
            }
        }
        ASSERT_EQ(armed(), ids(twin.end()));
    }
}

}  // namespace
