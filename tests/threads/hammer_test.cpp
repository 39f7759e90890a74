// Everything at once: two threads hand over packets, four operators query, report, clear, set, trace, capture, upload
// and change trunks, and the monitor task runs its periods of one second on a thread of its own. Meant for the thread
// sanitizer; in any build the counts, the rule ids, the chip and the memory must be true afterwards. Bounded by numbers
// of steps; packets go on until what the test is about has happened; no length of time is asserted.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <functional>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "actions.h"
#include "anti_cpu/anti_cpu.h"
#include "chip/chip.h"
#include "frames.h"
#include "os/os.h"
#include "services/services.h"

namespace {

constexpr uint32_t kOperators = 4;
constexpr uint32_t kPacketThreads = 2;
constexpr uint32_t kActions = 2000;        // of each operator beside traffic with clears
constexpr uint32_t kQuietActions = 300;    // of each beside traffic without clears
constexpr uint32_t kQuietPackets = 60000;  // of each packet thread
constexpr uint32_t kArp = 6;

// Packets by port or VLAN. Both packet threads count in the same two.
using Counts = std::array<std::atomic<uint64_t>, kPorts + 1>;
Counts g_ports;
Counts g_vlans;

// Whether frames are handed over that the chip would stop: what it has been left with could keep from the module all
// that the test waits for.
std::atomic<bool> g_past_the_chip = false;

// Log lines that the test waits for.
std::atomic<uint32_t> g_alarms = 0;
std::atomic<uint32_t> g_failed_uploads = 0;

void see_log(const card::LogMessage &message) {
    g_alarms += message.text.find("over fast period limit") != message.text.npos ? 1 : 0;
    g_failed_uploads += message.text.starts_with("Failed to upload") ? 1 : 0;
}

// Frames of every class from four sources, on every port and VLAN in turn, each thread from a place of its own. A frame
// that the chip stops is not handed over. Big frames fill captures.
void send_packets(uint32_t thread, const std::function<bool(uint32_t done)> &goes_on) {
    constexpr uint32_t sources = 4;
    std::array<std::vector<Frame>, ATC_PROTOCOL_COUNT + 1> frames;
    for (uint16_t protocol = 1; protocol <= ATC_PROTOCOL_COUNT; ++protocol) {
        for (uint32_t source = 1; source <= sources; ++source) {
            Frame frame = frame_of_class(protocol).pad(source == sources ? 1500 : 60);
            frames[protocol].push_back(protocol == ATC_PROTOCOL_COUNT - 1 ? frame : frame.from(source));
        }
    }
    for (uint32_t done = 0; goes_on(done); ++done) {
        const uint32_t n = thread * 1000 + done;
        const uint32_t port = n / ATC_PROTOCOL_COUNT % kPorts + 1;
        const uint32_t vlan = n / ATC_PROTOCOL_COUNT / kPorts % kVlans + 1;
        const Frame &frame = frames[n % ATC_PROTOCOL_COUNT + 1][n / 7 % sources];
        if (!card::Chip::instance().denies(frame.data(), frame.size(), port, vlan) || g_past_the_chip) {
            atc_api_receive_packet(frame.data(), frame.size(), port, vlan);
            ++g_ports[port];
            ++g_vlans[vlan];
        }
        if (n % 16 == 0) {
            atc_api_global_send_packet(frame.data(), frame.size());
        }
    }
}

// Packets on their threads while each operator runs on its own, then 'finish', and until goes_on() says no.
void hammer(std::vector<Operator> *operators, const std::function<void(Operator &)> &operate,
            const std::function<void()> &finish, const std::function<bool(uint32_t done)> &goes_on) {
    std::vector<std::thread> packets, management;
    for (uint32_t i = 0; i < kPacketThreads; ++i) {
        packets.emplace_back(send_packets, i, goes_on);
    }
    for (Operator &one : *operators) {
        management.emplace_back(operate, std::ref(one));
    }
    for (std::thread &thread : management) {
        thread.join();
    }
    finish();
    for (std::thread &thread : packets) {
        thread.join();
    }
}

// Whatever the operators left behind: from the next period's end on a capture of ARP records, uploaded when full.
void let_a_capture_fill() {
    atc_api_set_global_enable(1);
    atc_api_set_protocol_fp_limit(kArp, 1);
    atc_api_set_protocol_hw_deny_enable(kArp, 0);
    atc_api_set_protocol_src_hw_deny_enable(kArp, 0);
    atc_api_set_protocol_cap_enable(kArp, 1);
    atc_api_set_auto_cap_clear();
}

// The first two columns of every line but the header; returns the sum.
uint64_t expect_counts(int (*report)(char **text), const Counts &handed) {
    char *text = nullptr;
    EXPECT_EQ(report(&text), 0);
    std::istringstream lines(text);
    atc_api_free_buffer(text);
    uint64_t sum = 0;
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line)) {
        uint64_t key = 0, count = 0;
        std::istringstream(line) >> key >> count;
        EXPECT_EQ(count, handed.at(key)) << line;
        sum += count;
    }
    return sum;
}

void expect_all_rule_ids_free() {
    atc_filter_rule_t rule = {};
    for (uint32_t id = 1; id <= ATC_RULE_ID_MAX; ++id) {
        rule.id = 0;
        ASSERT_EQ(atc_api_filter_rule_add(&rule), 0);
        ASSERT_EQ(rule.id, id) << "an id is not free again";
    }
    for (uint32_t id = 1; id <= ATC_RULE_ID_MAX; ++id) {
        EXPECT_EQ(atc_api_filter_rule_del(id), 0);
    }
}

TEST(Hammer, EveryOperationBesideTrafficAndTheMonitorTask) {
    card::set_log_sink(see_log);
    ASSERT_EQ(atc_init(), 0);
    atc_api_set_fast_period_time(1);
    const int64_t blocks = card::live_blocks() + 2;  // trunks are never freed
    for (const uint32_t trunk : {kFirstTrunk, kPorts}) {
        card::trunk_change(trunk, 9, true);  // never leaves
    }

    std::vector<Operator> operators;
    for (uint32_t i = 0; i < kOperators; ++i) {
        operators.emplace_back(i, 1);
    }
    std::fflush(stdout);
    const int output = dup(STDOUT_FILENO);  // traces and dumps go nowhere
    ASSERT_NE(std::freopen("/dev/null", "w", stdout), nullptr);

    std::atomic<bool> enough = false;
    const auto act_and_clear = [](Operator &one) {
        for (uint32_t n = 0; n < kActions; ++n) {
            n % 8 == 0 ? one.clear() : one.act();
            if (n % (kActions / 2) == 0) {
                one.query();
            }
        }
    };
    const auto finish = [&] {
        let_a_capture_fill();
        g_past_the_chip = true;
        enough = true;
    };
    hammer(&operators, act_and_clear, finish,
           [&](uint32_t) { return !enough || g_alarms == 0 || g_failed_uploads == 0; });
    g_past_the_chip = false;
    atc_api_clear_statistic_all();
    const auto act = [](Operator &one) {
        for (uint32_t n = 0; n < kQuietActions; ++n) {
            one.act();
        }
    };
    for (Counts *counts : {&g_ports, &g_vlans}) {
        std::fill(counts->begin(), counts->end(), 0);
    }
    hammer(
        &operators, act, [] {}, [](uint32_t done) { return done < kQuietPackets; });

    std::fflush(stdout);
    dup2(output, STDOUT_FILENO);
    close(output);
    const uint64_t handed = std::accumulate(g_ports.begin(), g_ports.end(), uint64_t{0});
    EXPECT_GT(handed, kQuietPackets / 10) << "the chip stopped nearly everything: the test shows little";
    EXPECT_EQ(received_in_all(), handed);
    EXPECT_EQ(expect_counts(atc_api_get_rx_port_stat_brief, g_ports), handed);
    EXPECT_EQ(expect_counts(atc_api_get_rx_vlan_stat_brief, g_vlans), handed);
    for (Operator &one : operators) {
        one.take_back();
    }
    expect_all_rule_ids_free();
    atc_api_set_cap_disable();
    atc_api_set_cap_clear();
    for (int i = 0; i < 60 && card::live_blocks() != blocks; ++i) {
        received_in_all();  // takes a second, in which the monitor task gets through its messages
        atc_api_clear_statistic_all();
    }
    EXPECT_EQ(card::live_blocks(), blocks);
    for (const card::ChipRule &rule : card::Chip::instance().rules()) {
        ADD_FAILURE() << "left in the chip: " << rule.description;
    }
    // The monitor task goes on for the life of the process: nothing of this test may be called from now on.
    atc_api_set_global_enable(0);
    card::set_log_sink([](const card::LogMessage &) {});
}

}  // namespace
