// SPDX-License-Identifier: Apache-2.0
// Everything at once: two threads hand over packets, four operators query, report, clear, set, trace, capture, upload
// and change trunks, and the monitor task runs its periods of one second on a thread of its own. Meant for the thread
// sanitizer; in any build the counts, the rule ids, the chip and the memory must be true afterwards. Bounded by numbers
// of steps; no length of time is asserted.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "atc/state/context.h"
#include "chip/chip.h"
#include "frames.h"
#include "operator.h"
#include "os/os.h"
#include "services/services.h"

namespace {

constexpr uint32_t kOperators = 4;
constexpr uint32_t kPacketThreads = 2;
constexpr uint32_t kActions = 1000;  // of each operator, once with clears and once without
constexpr uint32_t kSources = 4;
constexpr uint32_t kFirstTrunk = Operator::kPorts - 1;

std::array<std::atomic<uint64_t>, Operator::kPorts + 1> g_handed;  // packets by port
std::atomic<uint32_t> g_alarms = 0;

// The nth packet: every class from four sources, on every port and VLAN in turn. A frame that the chip stops is not
// handed over. Big frames fill captures.
void send(uint32_t n) {
    static const std::vector<Frame> frames = [] {
        std::vector<Frame> all;
        for (uint32_t i = 0; i < kSources * ATC_PROTOCOL_COUNT; ++i) {
            const Frame frame = frame_of_class(static_cast<uint16_t>(i % ATC_PROTOCOL_COUNT + 1));
            const uint32_t source = i / ATC_PROTOCOL_COUNT;
            all.push_back(source == 0 ? Frame(frame).pad(1500) : Frame(frame).from(source));
        }
        return all;
    }();
    const Frame &frame = frames[n % frames.size()];
    const uint32_t port = n / ATC_PROTOCOL_COUNT % Operator::kPorts + 1;
    const uint32_t vlan = n / ATC_PROTOCOL_COUNT / Operator::kPorts % Operator::kVlans + 1;
    if (!card::Chip::instance().denies(frame.data(), frame.size(), port, vlan)) {
        atc_api_receive_packet(frame.data(), frame.size(), port, vlan);
        ++g_handed[port];
    }
    if (n % 16 == 0) {
        atc_api_global_send_packet(frame.data(), frame.size());
    }
}

// Packets on their threads while each operator runs on its own.
void hammer(std::vector<Operator> &operators, bool with_clears) {
    std::atomic<size_t> at_work = operators.size();
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < kPacketThreads; ++i) {
        threads.emplace_back([&at_work, i] {
            for (uint32_t n = i * 1000; at_work > 0; ++n) {
                send(n);
            }
        });
    }
    for (Operator &one : operators) {
        threads.emplace_back([&one, &at_work, with_clears] {
            for (uint32_t n = 0; n < kActions; ++n) {
                with_clears &&n % 8 == 0 ? one.clear() : one.act();
                card::trunk_change(kFirstTrunk + n % 2, 10 + n % 11, n / 2 % 2 == 0);
            }
            received_in_all();  // takes a second: periods end meanwhile
            --at_work;
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

// Compares the first two columns of every line but the header; returns the sum.
uint64_t expect_counts_by_port() {
    char *text = nullptr;
    EXPECT_EQ(atc_api_get_rx_port_stat_brief(&text), 0);
    std::istringstream lines(text);
    atc_api_free_buffer(text);
    uint64_t sum = 0, port = 0, count = 0;
    std::string line;
    for (std::getline(lines, line); std::getline(lines, line); sum += count) {
        std::istringstream(line) >> port >> count;
        EXPECT_EQ(count, g_handed.at(port)) << line;
    }
    return sum;
}

TEST(Hammer, EveryOperationBesideTrafficAndTheMonitorTask) {
    card::set_log_sink([](const card::LogMessage &message) {
        g_alarms += message.text.find("over fast period limit") != message.text.npos ? 1 : 0;
    });
    ASSERT_EQ(atc_init(), 0);
    {
        const atc_guard_t guard;
        g_atc_global.hold.limit = 1;  // the mutex is given back at every occasion
    }
    const int64_t blocks = card::live_blocks() + 2;  // trunks are never freed
    card::trunk_change(kFirstTrunk, 9, true);        // never leaves
    card::trunk_change(kFirstTrunk + 1, 9, true);
    atc_api_set_fast_period_time(1);
    for (uint32_t id = 1; id <= ATC_PROTOCOL_COUNT; ++id) {
        std::ranges::for_each(Operator::setters, [id](auto set) { set(id, 1); });
    }
    std::vector<Operator> operators;
    for (uint32_t i = 0; i < kOperators; ++i) {
        operators.emplace_back(i, [random = std::mt19937(i)](uint32_t n) mutable { return random() % n + 1; });
    }
    testing::internal::CaptureStdout();  // traces and dumps
    hammer(operators, true);
    atc_api_clear_statistic_all();
    std::ranges::fill(g_handed, 0);
    hammer(operators, false);
    EXPECT_NE(testing::internal::GetCapturedStdout(), "");

    EXPECT_GT(g_alarms, 0U);
    const uint64_t handed = expect_counts_by_port();
    EXPECT_GT(handed, 10'000U) << "the chip stopped nearly everything: the test shows little";
    EXPECT_EQ(received_in_all(), handed);
    std::ranges::for_each(operators, &Operator::take_back);
    for (uint32_t id = 1; id <= ATC_RULE_ID_MAX; ++id) {
        atc_filter_rule_t rule = {};
        EXPECT_EQ(atc_api_filter_rule_add(&rule), 0);
        ASSERT_EQ(rule.id, id) << "an id is not free again";
    }
    for (uint32_t id = 1; id <= ATC_RULE_ID_MAX; ++id) {
        EXPECT_EQ(atc_api_filter_rule_del(id), 0);
    }
    atc_api_set_cap_disable();
    atc_api_set_cap_clear();
    for (int i = 0; i < 60 && card::live_blocks() != blocks; ++i) {
        received_in_all();  // takes a second, in which the monitor task gets through its messages
        atc_api_clear_statistic_all();
    }
    EXPECT_EQ(card::live_blocks(), blocks);
    EXPECT_TRUE(card::Chip::instance().rules().empty());
    // The monitor task goes on for the life of the process: nothing of this test may be called from now on.
    atc_api_set_global_enable(0);
    card::set_log_sink([](const card::LogMessage &) {});
}

}  // namespace
