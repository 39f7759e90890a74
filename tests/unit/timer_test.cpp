// timer_test.cpp: the timer list against a sorted twin, on the fake clock.
#include "atc_timer/timer.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <random>

#include "fixture.h"

namespace {

std::vector<uintptr_t> g_fired;               // first arguments, in the order of firing
std::function<void(uintptr_t)> g_when_fired;  // what the callbacks do besides

int note(uintptr_t id, uintptr_t, uintptr_t) {
    g_fired.push_back(id);
    if (g_when_fired) {
        g_when_fired(id);
    }
    return -1;  // ignored
}

class Timers : public ::testing::Test {
protected:
    using Ids = std::vector<uintptr_t>;

    void SetUp() override {
        fake().reset();
        g_fired.clear();
        g_when_fired = nullptr;
        list = timer_list_create();
        ASSERT_NE(list, nullptr);
    }
    void TearDown() override {
        std::free(list);
        fake().release_clock();
    }

    void start(size_t id, uint32_t seconds) {
        EXPECT_EQ(timer_start(list, &timers.at(id), seconds, note, id, id + 100, id + 200), 0);
        EXPECT_EQ(timer_problems(*list), "");
    }
    void stop(size_t id) { EXPECT_EQ(timer_stop(list, &timers.at(id)), 0); }

    // Who fires now.
    Ids check() {
        g_fired.clear();
        EXPECT_EQ(timer_list_check(list), 0);
        EXPECT_EQ(timer_problems(*list), "");
        return g_fired;
    }
    Ids check_after(int64_t seconds) {
        fake().advance(seconds);
        return check();
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

TEST_F(Timers, FireOnceWhenDue) {
    start(1, 10);
    fake().advance_ns(9'999'999'999);
    EXPECT_EQ(check(), Ids{});
    fake().advance_ns(1);
    EXPECT_EQ(check(), Ids{1});
    EXPECT_EQ(timers[1].expire.seconds, 0);
    EXPECT_EQ(timers[1].expire.nanoseconds, 0);
    EXPECT_EQ(check_after(100), Ids{});
}

TEST_F(Timers, FireInTheOrderOfExpiryThenOfArming) {
    start(3, 20);
    start(1, 10);
    start(4, 20);
    start(2, 10);
    start(0, 30);
    EXPECT_EQ(armed(), (Ids{1, 2, 3, 4, 0}));
    start(1, 10);  // arming again is behind its equals
    EXPECT_EQ(armed(), (Ids{2, 1, 3, 4, 0}));
    EXPECT_EQ(check_after(20), (Ids{2, 1, 3, 4}));
}

TEST_F(Timers, CallbackGetsItsArguments) {
    static std::array<uintptr_t, 3> got;
    auto take = [](uintptr_t a, uintptr_t b, uintptr_t c) {
        got = {a, b, c};
        return 0;
    };
    ASSERT_EQ(timer_start(list, &timers[0], 0, take, reinterpret_cast<uintptr_t>(this), 2, UINTPTR_MAX), 0);
    EXPECT_EQ(timer_list_check(list), 0);
    EXPECT_EQ(got, (std::array<uintptr_t, 3>{reinterpret_cast<uintptr_t>(this), 2, UINTPTR_MAX}));
}

TEST_F(Timers, RestartKeepsTheCallbackAndStopForgetsIt) {
    start(1, 10);
    EXPECT_EQ(timer_restart(list, &timers[1], 20), 0);  // while armed
    EXPECT_EQ(check_after(19), Ids{});
    EXPECT_EQ(check_after(1), Ids{1});
    EXPECT_EQ(timer_restart(list, &timers[1], 5), 0);  // after it fired
    EXPECT_EQ(check_after(5), Ids{1});

    start(1, 5);
    stop(1);
    EXPECT_EQ(check_after(5), Ids{});
    EXPECT_EQ(timers[1].link.next, &timers[1].link);
    EXPECT_EQ(timers[1].fn, nullptr);
    EXPECT_EQ(timers[1].arg1 + timers[1].arg2 + timers[1].arg3, 0U);
    EXPECT_EQ(timers[1].expire.seconds, 0);
}

TEST_F(Timers, StoppingAnIdleTimerChangesNothing) {
    start(1, 10);
    stop(2);  // all zero
    stop(2);  // linked to itself
    EXPECT_EQ(armed(), Ids{1});
    EXPECT_EQ(timer_node_init(&timers[3]), 0);
    stop(3);
    EXPECT_EQ(check_after(10), Ids{1});
    stop(1);  // fired
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
    check();
    EXPECT_EQ(fake().calls(Call::clock), 0U);
    start(1, 1);
    start(2, 1);
    fake().advance(5);
    g_when_fired = [](uintptr_t) { fake().advance(100); };  // "now" is the start of the check
    uint32_t reads = fake().calls(Call::clock);
    start(3, 50);
    EXPECT_EQ(fake().calls(Call::clock), reads + 1);
    EXPECT_EQ(check(), (Ids{1, 2}));
    EXPECT_EQ(fake().calls(Call::clock), reads + 2);
}

TEST_F(Timers, WallClockDoesNotMatter) {
    start(1, 10);
    fake().set_realtime(2'000'000'000);
    EXPECT_EQ(check(), Ids{});
    fake().set_realtime(0);
    EXPECT_EQ(check_after(10), Ids{1});
}

TEST_F(Timers, ListHeadIsNotOfTheCardsMemory) {
    EXPECT_EQ(fake().calls(Call::alloc), 0U);
}

TEST_F(Timers, ExpirySaturates) {
    struct Row {
        const char *name;
        int32_t now;
        uint32_t seconds;
        int32_t expire;
    };
    const Row rows[] = {
        {"last second - 1", INT32_MAX - 10, 9, INT32_MAX - 1},
        {"last second", INT32_MAX - 10, 10, INT32_MAX},
        {"past it", INT32_MAX - 10, 11, INT32_MAX},
        {"all bits set", 1000, UINT32_MAX, INT32_MAX},
        {"sum of 2^32", 1000, UINT32_MAX - 999, INT32_MAX},
        {"beyond signed", 0, 0x80000000U, INT32_MAX},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        fake().set_monotonic(row.now, 5);
        start(1, row.seconds);
        EXPECT_EQ(timers[1].expire.seconds, row.expire);
        EXPECT_EQ(timers[1].expire.nanoseconds, 5);
        EXPECT_EQ(check(), Ids{});
    }
    stop(1);
}

TEST_F(Timers, CompareOrdersSecondsThenNanoseconds) {
    struct Row {
        timer_expire_t a;
        timer_expire_t b;
        int order;
    };
    const Row rows[] = {
        {{1, 5}, {1, 5}, 0}, {{1, 5}, {1, 6}, -1},  {{1, 6}, {1, 5}, 1},   {{1, 9}, {2, 0}, -1},
        {{2, 0}, {1, 9}, 1}, {{-1, 0}, {1, 0}, -1}, {{1, -1}, {1, 0}, -1}, {{INT32_MAX, 0}, {INT32_MIN, 0}, 1},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(timer_compare(&row.a, &row.b), row.order) << row.a.seconds << " " << row.b.seconds;
    }
}

TEST_F(Timers, PeriodicTimerFiresOnceACheck) {
    g_when_fired = [this](uintptr_t id) { timer_restart(list, &timers.at(id), 3); };
    start(1, 3);
    EXPECT_EQ(check_after(3), Ids{1});
    EXPECT_EQ(check(), Ids{});
    EXPECT_EQ(check_after(9), Ids{1});  // missed periods are not made up for
    EXPECT_EQ(check_after(2), Ids{});
    EXPECT_EQ(check_after(1), Ids{1});
    stop(1);
}

TEST_F(Timers, CallbacksStartAndStopOthers) {
    g_when_fired = [this](uintptr_t id) {
        if (id == 1) {
            stop(2);       // due in this very check
            start(3, 10);  // was due: not now any more
            start(4, 0);   // due at once
            stop(1);       // itself
        }
    };
    start(1, 5);
    start(2, 5);
    start(3, 5);
    start(5, 5);
    EXPECT_EQ(check_after(5), (Ids{1, 5, 4}));
    EXPECT_EQ(armed(), Ids{3});
    EXPECT_EQ(check_after(10), Ids{3});
}

TEST_F(Timers, CallbackMayFreeItsTimer) {
    auto owned = std::make_unique<atc_timer_t>();
    g_when_fired = [&](uintptr_t) { owned.reset(); };
    ASSERT_EQ(timer_start(list, owned.get(), 1, note, 1, 0, 0), 0);
    start(2, 1);
    EXPECT_EQ(check_after(1), (Ids{1, 2}));
}

TEST_F(Timers, RandomStepsAgainstASortedTwin) {
    struct Armed {
        int64_t expire_ns;
        uintptr_t id;
    };
    const uint32_t seed = test_seed();
    std::mt19937 random(seed);
    auto below = [&](uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(random); };
    std::vector<Armed> twin;
    auto disarm = [&](uintptr_t id) { std::erase_if(twin, [&](const Armed &one) { return one.id == id; }); };

    for (int i = 0; i < 20000; ++i) {
        SCOPED_TRACE("ATC_TEST_SEED=" + std::to_string(seed) + ", step " + std::to_string(i));
        size_t id = below(static_cast<uint32_t>(timers.size()));
        uint32_t seconds = below(6);
        if (uint32_t action = below(4); action == 0) {
            stop(id);
            disarm(id);
        } else if (action == 1) {
            fake().advance_ns(below(3) * 500'000'000LL);
            auto due = std::find_if(twin.begin(), twin.end(),
                                    [](const Armed &one) { return one.expire_ns > fake().monotonic_ns(); });
            Ids expected;
            std::for_each(twin.begin(), due, [&](const Armed &one) { expected.push_back(one.id); });
            twin.erase(twin.begin(), due);
            ASSERT_EQ(check(), expected);
        } else {
            start(id, seconds);
            disarm(id);
            Armed one{fake().monotonic_ns() + seconds * 1'000'000'000LL, id};
            twin.insert(std::upper_bound(twin.begin(), twin.end(), one,
                                         [](const Armed &a, const Armed &b) { return a.expire_ns < b.expire_ns; }),
                        one);
        }
        Ids expected;
        for (const Armed &one : twin) {
            expected.push_back(one.id);
        }
        ASSERT_EQ(armed(), expected);
    }
}

}  // namespace
