// SPDX-License-Identifier: Apache-2.0
// card_clock_test.cpp: the card's mutexes and queues, its clock, and its waits against what a replay relies on.
// Tests of live time come first: once simulated, the process stays so. Threads of a simulation end before their test.
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "anti_cpu/platform.h"
#include "card_verbs.h"
#include "os/os.h"
#include "services/services.h"

namespace {

using namespace card_verbs;

int take(uint32_t mutex, int timeout) {
    return bep_semTakeEx(mutex, timeout, __FILE__, __LINE__);
}

int give(uint32_t mutex) {
    return bep_semGiveEx(mutex, __FILE__, __LINE__);
}

uint32_t new_queue(uint32_t max_messages) {
    return bep_msgQCreateEx(max_messages, sizeof(uint32_t), 0, __FILE__, __LINE__);
}

int send(uint32_t queue, uint32_t message, uint32_t priority = 1, uint32_t size = sizeof(uint32_t)) {
    return bep_msgQSendEx(queue, &message, size, 0, priority, __FILE__, __LINE__);
}

// The message, or -1 when none came.
int64_t receive(uint32_t queue, int timeout = 0) {
    uint32_t message = 0;
    const int length = bep_msgQReceiveEx(queue, &message, sizeof(message), timeout, __FILE__, __LINE__);
    return length == sizeof(message) ? static_cast<int64_t>(message) : -1;
}

// Milliseconds.
int64_t since_start() {
    return (the_clock().realtime_ns() - kStart) / kMs;
}

// The process dies when the calling thread asks for it: it may be set while somebody waits.
void forbid_the_wall_clock() {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clock_gettime, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, CLOCK_REALTIME, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{std::size(filter), filter};
    EXPECT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    EXPECT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

// Threads that hold it long enough for others to fall asleep, some of which give up: nobody is left behind.
TEST(CardLive, MutexExcludesOtherThreads) {
    const uint32_t mutex = bep_semMCreateEx(1, __FILE__, __LINE__);
    uint32_t count = 0;  // unprotected but for the mutex
    std::atomic<uint32_t> takes = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < 5000; ++round) {
                const bool patient = i != 0 || round % 2 == 0;
                const bool taken = take(mutex, patient ? -1 : 1) == 0;
                EXPECT_TRUE(taken || !patient);
                if (taken) {
                    ++count;
                    ++takes;
                    if (round % 64 == 0) {
                        std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    }
                    EXPECT_EQ(give(mutex), 0);
                }
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(count, takes);
    ASSERT_EQ(take(mutex, 0), 0);
    std::thread([mutex] {
        EXPECT_EQ(take(mutex, 1), -1) << "held by another thread";
        EXPECT_EQ(give(mutex), -1) << "not its own";
    }).join();
    EXPECT_EQ(take(mutex, -1), -1) << "already its own";
    EXPECT_EQ(give(mutex), 0);
}

// A thread that gives the mutex and takes it again at once is always quicker than one that has yet to wake up.
TEST(CardLive, WaiterGetsTheMutexFromWhoTakesItAgainAtOnce) {
    const uint32_t mutex = bep_semMCreateEx(1, __FILE__, __LINE__);
    ASSERT_EQ(take(mutex, -1), 0);
    std::atomic<bool> seen = false;
    std::thread modest([&] {
        forbid_the_wall_clock();
        EXPECT_EQ(take(mutex, -1), 0);
        while (!seen) {
            std::this_thread::yield();
        }
        EXPECT_EQ(give(mutex), 0);
    });
    int rounds = 0;
    do {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));  // longer than a waiter's patience
        EXPECT_EQ(give(mutex), 0);
    } while (take(mutex, 0) == 0 && ++rounds < 200);
    EXPECT_LT(rounds, 200);
    seen = true;
    if (rounds == 200) {
        EXPECT_EQ(give(mutex), 0);
    }
    modest.join();
    EXPECT_EQ(take(mutex, -1), 0);
    EXPECT_EQ(give(mutex), 0);
}

TEST(CardLive, QueueKeepsOrderAndBounds) {
    const uint32_t queue = new_queue(4);
    for (const uint32_t round : {10u, 20u}) {  // slots are used again
        for (uint32_t i = 1; i <= 4; ++i) {
            EXPECT_EQ(send(queue, round + i, i <= 2 ? 1 : 7), 0);
        }
        EXPECT_NE(send(queue, 99), 0) << "full";
        for (const int64_t expected : {3, 4, 1, 2}) {
            EXPECT_EQ(receive(queue), round + expected);
        }
    }
    EXPECT_NE(send(queue, 1, 1, sizeof(uint32_t) - 1), 0) << "of another size";
    EXPECT_EQ(receive(queue, 2), -1) << "empty";
}

// A message wakes all three; two find that another one was faster, and wait on.
TEST(CardLive, ReceiversWaitUntilTheirOwnTimeIsUp) {
    constexpr int64_t kLast = 1000;
    const uint32_t queue = new_queue(4);
    std::atomic<int64_t> received = 0;
    std::vector<std::thread> threads;
    for (const int timeout : {-1, -1, 3600 * 1000}) {
        threads.emplace_back([&, timeout] {
            while (received < kLast) {
                const int64_t message = receive(queue, timeout);
                EXPECT_NE(message, -1) << "came back before its time-out of " << timeout;
                ++received;
            }
        });
    }
    for (int64_t sent = 0; sent < kLast + 2; ++sent) {  // two more: the others shall end too
        while (sent < kLast && received < sent) {
            std::this_thread::yield();
        }
        EXPECT_EQ(send(queue, 7), 0);
    }
    for (auto &thread : threads) {
        thread.join();
    }
}

TEST(CardClock, OwnsTheProcessTime) {
    the_clock().simulate(kStart);
    run(1500 * kMs);
    timespec time = {};
    EXPECT_EQ(clock_gettime(CLOCK_MONOTONIC, &time), 0);
    EXPECT_EQ(time.tv_sec * 1000 + time.tv_nsec / kMs, 2500);
    the_clock().run_until(kStart);
    EXPECT_EQ(since_start(), 1500) << "time went back";
    the_clock().set_driver_sleep([](int64_t length_ns) { run(length_ns / 4); });
    bep_taskDelayEx(1000);
    EXPECT_EQ(since_start(), 2500) << "the driver sleeps no less than it was asked to";
    the_clock().set_driver_sleep(nullptr);
    the_clock().run_until(card::time_after(kStart, INT64_MAX - kStart));
    EXPECT_EQ(the_clock().realtime_ns(), card::kEndOfTimeNs);
}

TEST(CardClock, WaitersRunInOrderOfTheirDeadlines) {
    for (const int64_t step : {7, 140}) {
        the_clock().simulate(kStart);
        auto events = std::make_shared<std::string>();  // who, when; no lock: one thread at a time runs
        for (const auto &[name, ticks, times] : {std::tuple("a", 30u, 4), {"b", 40u, 3}, {"c", 60u, 2}}) {
            card::start_thread(name, 0, [=, name = name, ticks = ticks, times = times] {
                for (int i = 0; i < times; ++i) {
                    bep_taskDelayEx(ticks);
                    *events += name + std::to_string(since_start()) + " ";
                }
            });
        }
        for (int64_t ms = step; ms <= 140; ms += step) {
            the_clock().run_until(kStart + ms * kMs);
            EXPECT_EQ(since_start(), ms);
        }
        EXPECT_EQ(*events, "a30 b40 c60 a60 b80 a90 c120 b120 a120 ") << "in steps of " << step;
    }
}

// Who is asked whether to stop is who moves time.
TEST(CardClock, IdleTaskNeedsNoDriver) {
    the_clock().simulate(kStart);
    const uint32_t queue = new_queue(1);
    card::start_thread("idle", 0, [queue] {
        while (receive(queue, 1000) == -1) {
        }
    });
    int of_driver = 0, of_task = 0;
    const auto stop = [&, driver = std::this_thread::get_id()] {
        ++(std::this_thread::get_id() == driver ? of_driver : of_task);
        return since_start() == 86'400'000;
    };
    EXPECT_FALSE(the_clock().run_until(kStart + 90'000'000 * kMs, stop));
    EXPECT_EQ(since_start(), 86'400'000);
    EXPECT_GE(of_task, 86'000);
    EXPECT_LE(of_driver, 10);
    send(queue, 1);
    the_clock().settle();
}

TEST(CardClock, MessageIsHandledAtTheTimeItWasSent) {
    the_clock().simulate(kStart);
    const uint32_t queue = new_queue(4), answers = new_queue(4);
    auto events = std::make_shared<std::string>();
    card::start_thread("receiver", 0, [=] {
        for (int64_t message = 0; message != 9;) {
            message = receive(queue, 1000);
            *events += std::to_string(message) + " at " + std::to_string(since_start()) + "; ";
        }
        bep_taskDelayEx(70);
        send(answers, 5);
    });
    run(300 * kMs);
    send(queue, 1);
    send(queue, 2);
    EXPECT_EQ(*events, "") << "nobody runs until the driver waits";
    run(1200 * kMs);
    std::thread([queue] { send(queue, 9); }).join();  // from outside the rendezvous
    the_clock().settle();
    EXPECT_EQ(*events, "1 at 300; 2 at 300; -1 at 1300; 9 at 1500; ");
    EXPECT_EQ(receive(answers, 20), -1);
    EXPECT_EQ(since_start(), 1520);
    EXPECT_EQ(receive(answers, 1000), 5);
    EXPECT_EQ(since_start(), 1570);
}

std::thread::id g_trunk_thread;
std::string g_trunk_calls;

int trunk_handler(uint32_t, uint32_t trunk, uint32_t member, uint32_t op) {
    g_trunk_thread = std::this_thread::get_id();
    g_trunk_calls += std::to_string(trunk) + " " + std::to_string(member) + " " + std::to_string(op) + "; ";
    return 0;
}

TEST(CardClock, TrunkHandlerRunsOnAThreadOfItsOwn) {
    the_clock().simulate(kStart);
    EXPECT_FALSE(card::trunk_change(1, 2, true)) << "nobody has registered";
    ASSERT_EQ(hal_register_trunk_handler(trunk_handler), 0);
    EXPECT_TRUE(card::trunk_change(7, 65, true));
    EXPECT_EQ(g_trunk_calls, "7 65 1; ") << "it came back before the handler";
    EXPECT_NE(g_trunk_thread, std::this_thread::get_id());
}

}  // namespace
