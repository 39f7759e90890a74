// card_clock_test.cpp: the card's clock and its waits against what a replay relies on.
//
// Tests of live time come first: once simulated, the process stays so. Threads of a simulation are the card's own; they
// end before their test does, so that the next one starts with nobody waiting (but the trunk service).
#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "anti_cpu/platform.h"
#include "card_verbs.h"
#include "os/os.h"
#include "services/services.h"

namespace {

using namespace card_verbs;
using card::kNanosecondsPerSecond;

int64_t since_start() {
    return the_clock().realtime_ns() - kStart;
}

int64_t read(clockid_t id) {
    timespec time = {};
    EXPECT_EQ(clock_gettime(id, &time), 0);
    EXPECT_GE(time.tv_nsec, 0);
    return time.tv_sec * kNanosecondsPerSecond + time.tv_nsec;
}

// ---- Live time --------------------------------------------------------------------------------------------------

TEST(CardLive, QueueHandsOverBetweenThreads) {
    ASSERT_FALSE(the_clock().is_simulated());
    const uint32_t there = new_queue(3);
    const uint32_t back = new_queue(3);
    std::thread echo([=] {
        for (int i = 0; i < 2000; ++i) {
            EXPECT_EQ(send(back, static_cast<uint32_t>(receive(there, -1)), 1, -1), 0);
        }
    });
    std::thread feeder([=] {
        for (uint32_t i = 0; i < 2000; ++i) {
            EXPECT_EQ(send(there, i, 1, -1), 0);  // waits while the queue is full
        }
    });
    for (int64_t i = 0; i < 2000; ++i) {
        ASSERT_EQ(receive(back, -1), i);
    }
    echo.join();
    feeder.join();
    const int64_t before = read(CLOCK_MONOTONIC);
    EXPECT_EQ(receive(back, 2), -1);
    EXPECT_GE(read(CLOCK_MONOTONIC), before + 2 * kMs) << "it came back before its time-out";
}

TEST(CardLive, WaiterIsTakenOverByASimulation) {
    constexpr int64_t kHour = 3600 * kNanosecondsPerSecond;
    const uint32_t answer = new_queue(1);
    std::atomic<bool> asked = false;
    std::atomic<int64_t> woken_at = 0;
    std::thread waiter([&, answer] {
        the_clock().wait_for(kHour, [&asked] {
            asked = true;
            asked.notify_one();
            return false;
        });
        woken_at = since_start();
        send(answer, 2);
    });
    asked.wait(false);  // under the clock's lock, which it gives up only when it waits
    the_clock().simulate(kStart);
    EXPECT_EQ(receive(answer, 7'200'000), 2);
    EXPECT_GT(woken_at, kHour / 2);
    EXPECT_LE(woken_at, kHour);
    waiter.join();
}

// ---- Simulated time ---------------------------------------------------------------------------------------------

// A simulation of its own for each test, driven by the test's thread.
class CardClock : public testing::Test {
protected:
    CardClock() { the_clock().simulate(kStart); }
    ~CardClock() override { the_clock().set_driver_sleep(nullptr); }
};

TEST_F(CardClock, OwnsTheProcessTime) {
    run(1500 * kMs);
    for (const clockid_t id : {CLOCK_REALTIME, CLOCK_REALTIME_COARSE}) {
        EXPECT_EQ(read(id), kStart + 1500 * kMs);
    }
    for (const clockid_t id : {CLOCK_MONOTONIC, CLOCK_MONOTONIC_RAW, CLOCK_MONOTONIC_COARSE, CLOCK_BOOTTIME}) {
        EXPECT_EQ(read(id), 2500 * kMs);
    }
    EXPECT_GT(read(CLOCK_PROCESS_CPUTIME_ID), 0) << "the system's";
    {
        const card::RealTimeScope scope;
        EXPECT_GT(read(CLOCK_REALTIME), kStart + 1500 * kMs);
        bep_taskDelayEx(1);
        EXPECT_FALSE(the_clock().is_driver());
    }
    the_clock().run_until(kStart);
    EXPECT_EQ(read(CLOCK_REALTIME), kStart + 1500 * kMs) << "time went back";
    the_clock().simulate(-1);
    EXPECT_EQ(read(CLOCK_REALTIME), -1) << "before 1970";
}

using Events = std::vector<std::pair<char, int64_t>>;  // who, at which simulated millisecond

Events interleaved_waits() {
    the_clock().simulate(kStart);
    auto events = std::make_shared<Events>();  // no lock: one thread at a time runs
    const auto sleeper = [&](char name, uint32_t ticks, int times) {
        card::start_thread("sleeper", 0, [=] {
            for (int i = 0; i < times; ++i) {
                bep_taskDelayEx(ticks);
                events->emplace_back(name, since_start() / kMs);
            }
        });
    };
    sleeper('a', 30, 4);
    sleeper('b', 40, 3);
    sleeper('c', 60, 2);
    for (int64_t ms = 7; ms <= 140; ms += 7) {
        the_clock().run_until(kStart + ms * kMs);
        EXPECT_EQ(since_start(), ms * kMs);
    }
    return *events;
}

TEST_F(CardClock, WaitersRunInOrderOfTheirDeadlinesEveryTime) {
    const Events expected = {{'a', 30}, {'b', 40},  {'c', 60},  {'a', 60}, {'b', 80},
                             {'a', 90}, {'c', 120}, {'b', 120}, {'a', 120}};
    EXPECT_EQ(interleaved_waits(), expected);
    EXPECT_EQ(interleaved_waits(), expected);
}

TEST_F(CardClock, MessageIsHandledAtTheTimeItWasSent) {
    const uint32_t queue = new_queue(4);
    auto events = std::make_shared<Events>();
    card::start_thread("receiver", 0, [=] {
        int64_t message = 0;
        while (message != 9) {
            message = receive(queue, 1000);
            events->emplace_back(message < 0 ? '-' : static_cast<char>('0' + message), since_start() / kMs);
        }
    });
    run(300 * kMs);
    send(queue, 1);
    send(queue, 2);
    EXPECT_TRUE(events->empty()) << "nobody runs until the driver waits";
    run(1200 * kMs);
    std::thread([queue] { send(queue, 9); }).join();  // from outside the rendezvous
    the_clock().settle();
    EXPECT_EQ(*events, (Events{{'1', 300}, {'2', 300}, {'-', 1300}, {'9', 1500}}));
}

TEST_F(CardClock, DriverSleepsByItsHookAndNeverLess) {
    bep_taskDelayEx(250);
    EXPECT_EQ(since_start(), 250 * kMs);
    std::vector<int64_t> asked;
    the_clock().set_driver_sleep([&](int64_t length_ns) {
        asked.push_back(length_ns);
        run(length_ns / 4);
    });
    bep_taskDelayEx(1000);
    bep_taskDelayEx(0);
    EXPECT_EQ(asked, std::vector<int64_t>{1000 * kMs});
    EXPECT_EQ(since_start(), 1250 * kMs);
}

TEST_F(CardClock, DriverWaitsForAMessageOfATask) {
    const uint32_t queue = new_queue(1);
    card::start_thread("sender", 0, [queue] {
        bep_taskDelayEx(70);
        send(queue, 5);
    });
    EXPECT_EQ(receive(queue, 20), -1);
    EXPECT_EQ(since_start(), 20 * kMs);
    EXPECT_EQ(receive(queue, -1), -1) << "without a limit the driver does not move time";
    EXPECT_EQ(receive(queue, 1000), 5);
    EXPECT_EQ(since_start(), 70 * kMs);
}

std::atomic<uint32_t> g_task_queue = 0;

int task_entry() {
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof(name));
    send(g_task_queue, std::strcmp(name, "a-task-with-a-l") == 0 ? 1 : 0);
    bep_taskDelayEx(10);
    send(g_task_queue, 2);
    return 0;
}

TEST_F(CardClock, TaskHasReachedItsFirstWaitWhenItIsSpawned) {
    g_task_queue = new_queue(2);
    EXPECT_EQ(norv_task_spawn("a-task-with-a-long-name", 30, 8, 100, task_entry, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), 0);
    EXPECT_EQ(receive(g_task_queue), 1);
    EXPECT_EQ(receive(g_task_queue), -1);
    run(10 * kMs);
    EXPECT_EQ(receive(g_task_queue), 2);
    EXPECT_NE(norv_task_spawn("none", 30, 8, 100, nullptr, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), 0);
    EXPECT_EQ(bep_sysClkRateGetEx(), 1000u);
}

std::vector<std::tuple<std::thread::id, uint32_t, uint32_t, uint32_t>> g_trunk_calls;  // thread, trunk, member, op

int trunk_handler(uint32_t, uint32_t trunk, uint32_t member, uint32_t op) {
    g_trunk_calls.emplace_back(std::this_thread::get_id(), trunk, member, op);
    return 0;
}

TEST_F(CardClock, TrunkHandlerRunsOnAThreadOfItsOwn) {
    EXPECT_FALSE(card::trunk_change(1, 2, true)) << "nobody has registered";
    ASSERT_EQ(hal_register_trunk_handler(trunk_handler), 0);
    run(5 * kMs);
    EXPECT_TRUE(card::trunk_change(7, 65, true));
    ASSERT_EQ(g_trunk_calls.size(), 1u) << "it came back before the handler";
    EXPECT_TRUE(card::trunk_change(7, 65, false));
    EXPECT_EQ(since_start(), 5 * kMs);
    std::thread reporter([] { EXPECT_TRUE(card::trunk_change(8, 1, true)); });  // waits until the driver lets it
    while (g_trunk_calls.size() < 3) {
        run(1 * kMs);
    }
    reporter.join();
    const auto thread = std::get<0>(g_trunk_calls[0]);
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_EQ(g_trunk_calls, (decltype(g_trunk_calls){{thread, 7, 65, 1}, {thread, 7, 65, 2}, {thread, 8, 1, 1}}));
}

}  // namespace
