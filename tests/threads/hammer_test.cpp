// Everything at once: two threads hand over packets, four operators query, report, clear, set, trace, capture, upload
// and change trunks, and the monitor task runs its periods of one second on a thread of its own. Meant for the thread
// sanitizer; in any build the counts, the rule ids, the chip and the memory must be true afterwards.
//
// Bounded by numbers of steps. The packet threads go on until the operators are through and what the test is about has
// happened at least once; no length of time is asserted.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
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
constexpr uint32_t kQueries = 2;           // of each, a second each
constexpr uint32_t kQuietActions = 300;    // of each beside traffic without clears
constexpr uint32_t kQuietPackets = 60000;  // of each packet thread
constexpr uint32_t kSources = 4;
constexpr uint32_t kBigFrame = 1500;  // bytes, of the last source's frames: 68 of them fill a capture
constexpr uint32_t kArp = 6;
constexpr uint32_t kSelf = 57;

// Packets by the first column of a report: a port, a VLAN, a protocol's name, "port/vlan/protocol/NULL".
using Counts = std::map<std::string, uint64_t>;

// What the packet threads handed over, by protocol, port and VLAN; sent packets by protocol.
struct Handed {
    std::array<std::array<std::array<uint32_t, kVlans + 1>, kPorts + 1>, ATC_PROTOCOL_COUNT + 1> received{};
    std::array<uint32_t, ATC_PROTOCOL_COUNT + 1> sent{};
};

// Log lines that the test waits for.
struct Log {
    std::atomic<uint32_t> alarms = 0;
    std::atomic<uint32_t> overflows = 0;
    std::atomic<uint32_t> failed_uploads = 0;

    void add(std::string_view line);
    bool saw_all() const { return alarms > 0 && overflows > 0 && failed_uploads > 0; }
};

// Standard output goes nowhere while one of these lives: traces and dumps are of no interest here.
class SilentOutput {
public:
    SilentOutput() : saved_(dup(STDOUT_FILENO)) { turn_to(open("/dev/null", O_WRONLY)); }
    ~SilentOutput() { turn_to(saved_); }

private:
    static void turn_to(int descriptor) {
        std::fflush(stdout);
        dup2(descriptor, STDOUT_FILENO);
        close(descriptor);
    }
    const int saved_;
};

// The monitor task handles messages one by one: once it has handled one of ours, all that were posted before are done
// with. A filter on a trunk shows us that moment: when a member joins, the card is asked for that member's slot.
class Marker {
public:
    void wait_for_monitor();  // at most 8 times, the members that a trunk can have
    void port_asked(uint32_t port);
    void logged(std::string_view line);

private:
    static constexpr uint32_t kTrunk = 900;
    static constexpr uint32_t kFilter = 7777;
    enum State {
        kPosted,
        kHandled,
        kLost
    };

    void set(State state);

    std::atomic<uint32_t> member_ = 60000;  // the one that joins; another each time
    std::atomic<State> state_ = kHandled;
};

// Frames of every class from a few sources, on every port and VLAN in turn. A frame that the chip stops is not handed
// over.
class Traffic {
public:
    explicit Traffic(uint32_t thread);
    void hand_over(Handed *handed);  // one frame in, and now and then one out

private:
    std::array<std::vector<Frame>, ATC_PROTOCOL_COUNT + 1> frames_;  // by class, one of each source
    uint32_t step_;
};

class Hammer : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    Log log_;
    Marker marker_;
    uint32_t seed_ = 1;
};

std::vector<std::thread> start_packets(std::vector<Handed> *handed, std::function<bool(uint32_t done)> goes_on);
void run_operators(const std::vector<std::unique_ptr<Operator>> &operators, uint32_t actions, uint32_t queries,
                   void (Operator::*act)());
void join(std::vector<std::thread> *threads);
void let_a_capture_fill();
void expect_true_counts(const std::vector<Handed> &handed);
Counts counts_of(int (*report)(char **text), const Counts &known);
void expect_all_rule_ids_free();

TEST_F(Hammer, EveryOperationBesideTrafficAndTheMonitorTask) {
    std::vector<std::unique_ptr<Operator>> operators;
    for (uint32_t i = 0; i < kOperators; ++i) {
        operators.push_back(std::make_unique<Operator>(i, seed_ + i));
    }
    marker_.wait_for_monitor();
    const int64_t blocks = card::live_blocks();
    std::vector<Handed> handed(kPacketThreads);
    {
        const SilentOutput silent;
        std::atomic<bool> enough = false;
        std::vector<std::thread> packets = start_packets(&handed, [&](uint32_t) { return !enough || !log_.saw_all(); });
        run_operators(operators, kActions, kQueries, &Operator::act);
        let_a_capture_fill();
        enough = true;
        join(&packets);

        atc_api_clear_statistic_all();
        handed.assign(kPacketThreads, {});
        packets = start_packets(&handed, [](uint32_t done) { return done < kQuietPackets; });
        run_operators(operators, kQuietActions, 0, &Operator::act_without_clearing);
        join(&packets);
    }
    expect_true_counts(handed);

    for (const auto &one : operators) {
        one->leave();
    }
    expect_all_rule_ids_free();
    marker_.wait_for_monitor();  // uploads that were posted are done with
    atc_api_clear_statistic_all();
    atc_api_set_cap_disable();
    atc_api_set_cap_clear();
    EXPECT_EQ(card::live_blocks(), blocks);
    EXPECT_EQ(card::Chip::instance().rules().size(), 0u);
    for (const uint32_t list : {0u, 1u}) {
        const atc_filter_node_t *first = atc_api_cfg_filter_rule_get_first(list);
        EXPECT_EQ(first->next, first) << "rules are left on list " << list;
    }
}

void Hammer::SetUp() {
    if (const char *given = std::getenv("ATC_TEST_SEED"); given != nullptr) {
        seed_ = static_cast<uint32_t>(std::strtoul(given, nullptr, 10));
    }
    std::fprintf(stderr, "ATC_TEST_SEED=%u\n", seed_);
    card::set_log_sink([this](const card::LogMessage &message) {
        log_.add(message.text);
        marker_.logged(message.text);
    });
    card::set_port_map([this](uint32_t port, uint32_t *slot, uint32_t *slot_port) {
        marker_.port_asked(port);
        *slot = 1;
        *slot_port = port;
        return true;
    });
    atc_init();
    atc_api_set_fast_period_time(1);
    // Trunks are never freed: all that there will be are there before memory is counted.
    for (uint32_t trunk = kFirstTrunk; trunk <= kPorts; ++trunk) {
        card::trunk_change(trunk, kTrunkMember, true);
    }
}

// The monitor task goes on for the life of the process: nothing of this test may be called from now on.
void Hammer::TearDown() {
    atc_api_set_global_enable(0);
    card::set_log_sink([](const card::LogMessage &) {});
}

void Log::add(std::string_view line) {
    alarms += line.find("over fast period limit") != line.npos ? 1 : 0;
    overflows += line.find("diagnose buffer is overflow") != line.npos && line.find("manual") == line.npos ? 1 : 0;
    failed_uploads += line.starts_with("Failed to upload") ? 1 : 0;
}

void Marker::wait_for_monitor() {
    atc_filter_rule_t filter = {};
    filter.id = kFilter;
    filter.port = kTrunk;
    filter.eth_type = 0x9999;
    filter.action = ATC_HW_ACTION_2;
    ASSERT_EQ(atc_api_cfg_hw_filter_rule_add(&filter), 0);
    ++member_;
    do {
        state_ = kPosted;
        card::trunk_change(kTrunk, member_, true);
        state_.wait(kPosted);
    } while (state_ == kLost);  // the queue was full
    EXPECT_EQ(atc_api_cfg_hw_filter_rule_del(kFilter), 0);
}

void Marker::port_asked(uint32_t port) {
    if (port == member_) {
        set(kHandled);
    }
}

void Marker::logged(std::string_view line) {
    if (line == "anti-cpu trunk 900 member " + std::to_string(member_) + " change lost") {
        set(kLost);
    }
}

void Marker::set(State state) {
    state_ = state;
    state_.notify_all();
}

// Each thread begins at a place of its own in the same sequence.
Traffic::Traffic(uint32_t thread) : step_(thread * 1000) {
    for (uint16_t protocol = 1; protocol <= ATC_PROTOCOL_COUNT; ++protocol) {
        for (uint32_t source = 1; source <= kSources; ++source) {
            Frame frame = frame_of_class(protocol);
            if (protocol != kSelf) {
                frame.from(source);
            }
            frames_[protocol].push_back(frame.pad(source == kSources ? kBigFrame : 60));
        }
    }
}

void Traffic::hand_over(Handed *handed) {
    const uint32_t n = step_++;
    const uint32_t protocol = n % ATC_PROTOCOL_COUNT + 1;
    const uint32_t port = n / ATC_PROTOCOL_COUNT % kPorts + 1;
    const uint32_t vlan = n / ATC_PROTOCOL_COUNT / kPorts % kVlans + 1;
    const Frame &frame = frames_[protocol][n / 7 % kSources];
    if (!card::Chip::instance().denies(frame.data(), frame.size(), port, vlan)) {
        atc_api_receive_packet(frame.data(), frame.size(), port, vlan);
        handed->received[protocol][port][vlan]++;
    }
    if (n % 16 == 0 && protocol != kSelf) {  // what we send ourselves is told by what it is
        atc_api_global_send_packet(frame.data(), frame.size());
        handed->sent[protocol]++;
    }
}

std::vector<std::thread> start_packets(std::vector<Handed> *handed, std::function<bool(uint32_t done)> goes_on) {
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < kPacketThreads; ++i) {
        threads.emplace_back([mine = &(*handed)[i], goes_on, i] {
            Traffic traffic(i);
            for (uint32_t done = 0; goes_on(done); ++done) {
                traffic.hand_over(mine);
            }
        });
    }
    return threads;
}

// Each on a thread of its own; the queries come at different places for each, so that others act meanwhile.
void run_operators(const std::vector<std::unique_ptr<Operator>> &operators, uint32_t actions, uint32_t queries,
                   void (Operator::*act)()) {
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < operators.size(); ++i) {
        threads.emplace_back([=, one = operators[i].get()] {
            for (uint32_t n = 0; n < actions; ++n) {
                if (queries > 0 && n % (actions / queries) == i * actions / queries / kOperators) {
                    one->ask();
                }
                (one->*act)();
            }
        });
    }
    join(&threads);
}

void join(std::vector<std::thread> *threads) {
    for (std::thread &thread : *threads) {
        thread.join();
    }
    threads->clear();
}

// Whatever the operators left behind: from the next period's end on a capture of ARP records, and is uploaded when
// full.
void let_a_capture_fill() {
    atc_api_set_global_enable(1);
    atc_api_set_protocol_fp_limit(kArp, 1);
    atc_api_set_protocol_hw_deny_enable(kArp, 0);
    atc_api_set_protocol_src_hw_deny_enable(kArp, 0);
    atc_api_set_protocol_cap_enable(kArp, 1);
    atc_api_set_upload_server_enable(1);
    atc_api_set_auto_cap_clear();
}

void expect_true_counts(const std::vector<Handed> &handed) {
    uint64_t received = 0;
    Counts ports, vlans, protocols, flows, sent;
    for (uint32_t protocol = 1; protocol <= ATC_PROTOCOL_COUNT; ++protocol) {
        char name[ATC_NAME_SIZE];
        atc_protocol_id_to_name(protocol, name, sizeof(name));
        for (const Handed &one : handed) {
            if (one.sent[protocol] > 0) {
                sent[name] += one.sent[protocol];
            }
            for (uint32_t port = 1; port <= kPorts; ++port) {
                for (uint32_t vlan = 1; vlan <= kVlans; ++vlan) {
                    const uint32_t count = one.received[protocol][port][vlan];
                    if (count == 0) {  // no entry either
                        continue;
                    }
                    const std::string flow = std::to_string(port) + '/' + std::to_string(vlan) + '/' + name + "/NULL";
                    received += count;
                    ports[std::to_string(port)] += count;
                    vlans[std::to_string(vlan)] += count;
                    protocols[name] += count;
                    flows[flow] += count;
                }
            }
        }
    }
    EXPECT_GT(received, kQuietPackets / 10) << "the chip stopped nearly everything: the test shows little";
    EXPECT_EQ(received_in_all(), received);
    EXPECT_EQ(counts_of(atc_api_get_rx_port_stat_brief, ports), ports);
    EXPECT_EQ(counts_of(atc_api_get_rx_vlan_stat_brief, vlans), vlans);
    EXPECT_EQ(counts_of(atc_api_get_rx_protocol_stat_brief, protocols), protocols);
    EXPECT_EQ(counts_of(atc_api_get_tx_protocol_stat_brief, sent), sent);
    EXPECT_EQ(counts_of(atc_api_get_stat_brief, flows), flows);
}

// The first two columns of every line but the header; lines of sources, whose key holds a blank, are left out. A name
// that fills its column runs into the number: then a key of 'known' tells where it ends.
Counts counts_of(int (*report)(char **text), const Counts &known) {
    char *text = nullptr;
    EXPECT_EQ(report(&text), 0);
    std::istringstream lines(text);
    atc_api_free_buffer(text);
    Counts counts;
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line)) {
        // Backwards: of two keys that fit, the longer one.
        const auto key =
            std::find_if(known.rbegin(), known.rend(), [&](const auto &one) { return line.starts_with(one.first); });
        const std::string name = key != known.rend() ? key->first : line.substr(0, line.find(' '));
        const bool is_source = name.find('/') != name.npos && !name.ends_with("/NULL");
        if (!is_source) {
            counts[name] += std::strtoul(line.c_str() + name.size(), nullptr, 10);
        }
    }
    return counts;
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

}  // namespace
