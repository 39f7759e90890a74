// timer_test.cpp: the timer list against a sorted twin, on the fake clock.
#include "atc_timer/timer.h"

#include <algorithm>
#include <array>
#include <cstdlib>
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
        EXPECT_EQ(fake().calls(Call::alloc), 0U) << "the list's head is not of the card's memory";
    }
    void TearDown() override {
        std::free(list);
        fake().release_clock();
    }

    void start(size_t id, uint32_t seconds) {
        EXPECT_EQ(timer_start(list, &timers.at(id), seconds, note, id, id + 100, UINTPTR_MAX - id), 0);
    }
    void stop(size_t id) { EXPECT_EQ(timer_stop(list, &timers.at(id)), 0); }

    // Who fires then.
    Ids check_after(int64_t seconds) {
        fake().advance(seconds);
        g_fired.clear();
        EXPECT_EQ(timer_list_check(list), 0);
        EXPECT_EQ(timer_problems(*list), "");
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

TEST_F(Timers, RestartKeepsTheCallbackAndStopForgetsIt) {
    const Bytes idle(sizeof(atc_timer_t) - sizeof(atc_list_t));  // all behind the link
    const auto *behind_link = reinterpret_cast<const uint8_t *>(&timers[1].expire);
    start(1, 10);
    EXPECT_EQ(timer_restart(list, &timers[1], 20), 0);  // while armed
    EXPECT_EQ(check_after(19), Ids{});
    EXPECT_EQ(check_after(1), Ids{1});
    EXPECT_EQ(timers[1].expire.seconds, 0);
    EXPECT_EQ(timer_restart(list, &timers[1], 5), 0);  // after it fired
    EXPECT_EQ(check_after(5), Ids{1});
    start(1, 5);
    stop(1);
    EXPECT_EQ(check_after(5), Ids{});
    EXPECT_EQ(timers[1].link.next, &timers[1].link);
    EXPECT_EQ(Bytes(behind_link, behind_link + idle.size()), idle);
}

TEST_F(Timers, NullIsRefused) {
    start(1, 10);
    EXPECT_EQ(timer_node_init(nullptr), -1);
    EXPECT_EQ(timer_start(nullptr, &timers[1], 1, note, 9, 0, 0), -1);
    EXPECT_EQ(timer_start(list, nullptr, 1, note, 9, 0, 0), -1);
    EXPECT_EQ(timer_restart(nullptr, &timers[1], 1), -1);
    EXPECT_EQ(timer_restart(list, nullptr, 1), -1);
    EXPECT_EQ(timer_stop(nullptr, &timers[1]), -1);
    EXPECT_EQ(timer_stop(list, nullptr), -1);
    EXPECT_EQ(check_after(9), Ids{});
    EXPECT_EQ(check_after(1), Ids{1});
}

TEST_F(Timers, CheckReadsTheClockOnceAndForAnEmptyListNever) {
    check_after(1);
    EXPECT_EQ(fake().calls(Call::clock), 0U);
    for (size_t id : {1U, 2U, 3U}) {
        start(id, id == 3 ? 50 : 1);
    }
    g_when_fired = [](uintptr_t) { fake().advance(100); };  // "now" is the start of the check
    EXPECT_EQ(check_after(5), (Ids{1, 2}));
    EXPECT_EQ(fake().calls(Call::clock), 4U);
}

TEST_F(Timers, ExpirySaturates) {
    const struct {
        const char *name;
        int32_t now;
        uint32_t seconds;
        int32_t expire;
    } rows[] = {
        {"last second - 1", INT32_MAX - 10, 9, INT32_MAX - 1},
        {"last second", INT32_MAX - 10, 10, INT32_MAX},
        {"past it", INT32_MAX - 10, 11, INT32_MAX},
        {"sum of 2^32", 1000, UINT32_MAX - 999, INT32_MAX},
    };
    for (const auto &row : rows) {
        fake().set_monotonic(row.now, 5);
        start(1, row.seconds);
        EXPECT_EQ(timers[1].expire.seconds, row.expire) << row.name;
        EXPECT_EQ(timers[1].expire.nanoseconds, 5) << row.name;
    }
}

TEST_F(Timers, CompareOrdersSecondsThenNanoseconds) {
    const timer_expire_t ascending[] = {{INT32_MIN, 9}, {-1, 0}, {1, 5}, {1, 6}, {2, 0}, {INT32_MAX, 0}};
    for (const auto &a : ascending) {
        for (const auto &b : ascending) {
            EXPECT_EQ(timer_compare(&a, &b), (&a > &b) - (&a < &b)) << a.seconds << " " << b.seconds;
        }
    }
}

TEST_F(Timers, CallbacksStartAndStopTimers) {
    g_when_fired = [this](uintptr_t id) {
        if (id == 1) {
            stop(2);       // due in this very check
            start(3, 10);  // was due: not now any more
            start(4, 0);   // due at once
            stop(1);       // itself
        } else if (id == 5) {
            timers[5] = {};  // freed
        } else if (id == 6) {
            timer_restart(list, &timers[6], 4);  // periodic: missed periods are not made up for
        }
    };
    for (size_t id : {1U, 2U, 3U, 5U, 6U}) {
        start(id, 4);
    }
    EXPECT_EQ(check_after(9), (Ids{1, 5, 6, 4}));
    EXPECT_EQ(armed(), (Ids{6, 3}));
    EXPECT_EQ(check_after(10), (Ids{6, 3}));
    EXPECT_EQ(timers[5].link.next, nullptr) << "touched after its callback";
}

TEST_F(Timers, RandomStepsAgainstASortedTwin) {
    const uint32_t seed = test_seed();
    std::mt19937 random(seed);
    auto below = [&](uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(random); };
    std::vector<std::pair<int64_t, uintptr_t>> twin;  // expiry in ns, id; by expiry, then by arming
    auto ids = [&](auto first, auto last) {
        Ids expected;
        std::for_each(first, last, [&](const auto &one) { expected.push_back(one.second); });
        return expected;
    };
    for (int i = 0; i < 20000; ++i) {
        SCOPED_TRACE("ATC_TEST_SEED=" + std::to_string(seed) + ", step " + std::to_string(i));
        size_t id = below(static_cast<uint32_t>(timers.size()));
        uint32_t action = below(4);
        if (action == 0) {
            fake().set_realtime(below(2'000'000'000));  // does not matter
            fake().advance_ns(below(3) * 500'000'000LL);
            auto due = std::ranges::find_if(twin, [](auto &one) { return one.first > fake().monotonic_ns(); });
            ASSERT_EQ(check_after(0), ids(twin.begin(), due));
            twin.erase(twin.begin(), due);
        } else {
            std::erase_if(twin, [&](const auto &one) { return one.second == id; });
            uint32_t seconds = below(6);
            action == 1 ? stop(id) : start(id, seconds);
            int64_t expire = fake().monotonic_ns() + seconds * 1'000'000'000LL;
            auto behind = std::ranges::find_if(twin, [&](auto &one) { return one.first > expire; });
            if (action != 1) {
                twin.insert(behind, {expire, id});
            }
        }
        ASSERT_EQ(armed(), ids(twin.begin(), twin.end()));
        ASSERT_EQ(timer_problems(*list), "");
    }
}

}  // namespace
