// statistics_test.cpp: queries and clears against counts that the test knows because it sent the packets.
#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <memory>
#include <numeric>
#include <sstream>
#include <utility>

#include "atc/entries.h"
#include "fixture.h"
#include "frames.h"

namespace {

constexpr uint32_t RX = ATC_DIRECTION_RX;
constexpr uint32_t TX = ATC_DIRECTION_TX;
constexpr uint32_t ARP = 6;
constexpr uint32_t LDP = 42;
constexpr uint32_t PORT = 3;
constexpr uint32_t VLAN = 100;
constexpr uint32_t UNTOUCHED = 0xEEEEEEEE;
constexpr uint8_t SENDER[] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};  // of the frames, unless they say otherwise

// A row of output words of one query with its two time texts. 'Before' is how many words come before the first time
// text; the words between the two texts, and for a flow behind them, follow.
template <size_t Size, size_t Before, size_t Middle>
struct Outputs {
    std::array<uint32_t, Size> words;
    std::array<uint32_t *, Size> pointers;
    char fp_peak_time[65] = {};
    char lp_peak_time[65] = {};

    Outputs() {
        words.fill(UNTOUCHED);
        for (size_t i = 0; i < Size; ++i) {
            pointers[i] = &words[i];
        }
    }

    bool is_untouched() const {
        return std::all_of(words.begin(), words.end(), [](uint32_t word) { return word == UNTOUCHED; });
    }

    // Calls query(key..., outputs in their order).
    template <typename query_t, typename... key_t>
    int ask(query_t query, key_t... key) {
        return expand(query, std::make_index_sequence<Before>{}, std::make_index_sequence<Middle>{},
                      std::make_index_sequence<Size - Before - Middle>{}, key...);
    }

private:
    template <typename query_t, size_t... a, size_t... b, size_t... c, typename... key_t>
    int expand(query_t query, std::index_sequence<a...>, std::index_sequence<b...>, std::index_sequence<c...>,
               key_t... key) {
        return query(key..., pointers[a]..., fp_peak_time, pointers[Before + b]..., lp_peak_time,
                     pointers[Before + Middle + c]...);
    }
};

using SumOutputs = Outputs<22, 12, 10>;
using FlowOutputs = Outputs<30, 14, 12>;

int ask_flow(FlowOutputs &out, uint32_t src_type = ATC_SRC_NONE, const void *src_addr = nullptr) {
    return out.ask(atc_api_get_statistic, RX, VLAN, PORT, ARP, src_type, src_addr);
}

// The figures of one kind of period, computed the naive way: from all counts of closed periods.
std::vector<uint32_t> period_figures(const std::vector<uint32_t> &periods, uint32_t seconds,
                                     std::optional<uint32_t> threshold = std::nullopt) {
    const size_t kept = std::min<size_t>(periods.size(), 12);
    const std::vector<uint32_t> last(periods.end() - static_cast<std::ptrdiff_t>(kept), periods.end());
    std::vector<uint32_t> counts = {last.back(), *std::min_element(last.begin(), last.end()),
                                    *std::max_element(last.begin(), last.end()),
                                    std::accumulate(last.begin(), last.end(), 0U) / static_cast<uint32_t>(kept)};
    if (threshold) {
        counts.push_back(*threshold);
    }
    counts.push_back(*std::max_element(periods.begin(), periods.end()));
    std::vector<uint32_t> figures;
    for (uint32_t count : counts) {
        figures.push_back(count);
        figures.push_back(count / seconds);
    }
    return figures;
}

std::vector<uint32_t> operator+(std::vector<uint32_t> a, const std::vector<uint32_t> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

template <typename outputs_t>
std::vector<uint32_t> words(const outputs_t &out) {
    return {out.words.begin(), out.words.end()};
}

class StatisticsTest : public ModuleTest {
protected:
    static constexpr uint32_t FAST = 10;  // seconds
    static constexpr uint32_t LONG = 30;

    void SetUp() override {
        ModuleTest::SetUp();
        atc_api_set_fast_period_time(FAST);
        atc_api_set_long_period_time(LONG);
    }

    // What happens in the second in which a query waits.
    void TearDown() override {
        fake().on_delay = nullptr;
        ModuleTest::TearDown();
    }
    void meanwhile(std::function<void()> action) { fake().on_delay = std::move(action); }
};

TEST_F(StatisticsTest, FiguresAreThoseOfTheInputBeyondTheRings) {
    std::vector<uint32_t> fast;
    std::vector<uint32_t> slow;
    uint32_t total = 0;
    for (uint32_t period = 1; period <= 43; ++period) {
        // The first two stand out, and have left both rings at the end; the last is one short of 5 packets a second.
        const uint32_t n = period <= 2 ? 500 + period : period == 43 ? 5 * FAST - 1 : period * 37 % 90 + 5;
        rx_n(n, arp(), PORT, VLAN);
        tx_n(n, arp());
        pass_seconds(FAST);
        total += n;
        fast.push_back(n);
        if (period % 3 == 0) {
            slow.push_back(fast[period - 3] + fast[period - 2] + n);
        }
    }
    ASSERT_EQ(slow.size(), 14U);
    const std::string fast_time = "2021-09-02 03:46:40";  // 20 s after the start: the end of the second period
    const std::string slow_time = "2021-09-02 03:46:50";

    const std::vector<uint32_t> expected =
        std::vector<uint32_t>{total + 7, 7} + period_figures(fast, FAST) + period_figures(slow, LONG);
    EXPECT_EQ(period_figures(fast, FAST)[1], 4U);
    const struct {
        const char *name;
        std::function<int(SumOutputs &)> query;
    } sums[] = {
        {"received", [](auto &out) { return out.ask(atc_api_get_global_statistic, RX); }},
        {"sent", [](auto &out) { return out.ask(atc_api_get_global_statistic, TX); }},
        {"no direction is sent", [](auto &out) { return out.ask(atc_api_get_global_statistic, 0U); }},
        {"port", [](auto &out) { return out.ask(atc_api_get_port_statistic, RX, PORT); }},
        {"VLAN", [](auto &out) { return out.ask(atc_api_get_vlan_statistic, RX, VLAN); }},
        {"protocol received", [](auto &out) { return out.ask(atc_api_get_protocol_statistic, RX, ARP); }},
        {"protocol sent", [](auto &out) { return out.ask(atc_api_get_protocol_statistic, TX, ARP); }},
        {"protocol in no direction", [](auto &out) { return out.ask(atc_api_get_protocol_statistic, 9U, ARP); }},
    };
    uint32_t earlier = 0;  // packets that the waits before have added
    meanwhile([&] {
        rx_n(7, arp(), PORT, VLAN);
        tx_n(7, arp());
    });
    for (const auto &row : sums) {
        SumOutputs out;
        const int64_t start = fake().monotonic_ns();
        EXPECT_EQ(row.query(out), 0) << row.name;
        EXPECT_EQ(fake().monotonic_ns() - start, 1'000'000'000) << row.name;
        out.words[0] -= earlier;
        EXPECT_EQ(words(out), expected) << row.name;
        EXPECT_EQ(out.fp_peak_time, fast_time) << row.name;
        EXPECT_EQ(out.lp_peak_time, slow_time) << row.name;
        earlier += 7;
    }

    FlowOutputs out;
    EXPECT_EQ(ask_flow(out), 0);
    EXPECT_EQ(words(out), (std::vector<uint32_t>{total + earlier + 7, 7} + period_figures(fast, FAST, 100 * FAST) +
                           period_figures(slow, LONG, 50 * LONG) + std::vector<uint32_t>{0, 0, 0, 0}));
    EXPECT_EQ(out.fp_peak_time, fast_time);
    EXPECT_EQ(out.lp_peak_time, slow_time);
}

TEST_F(StatisticsTest, OnePeriodIsLatestSmallestLargestAndAverage) {
    rx_n(25, arp(), PORT, VLAN);
    SumOutputs out;
    EXPECT_EQ(out.ask(atc_api_get_port_statistic, RX, PORT), 0);
    EXPECT_EQ(words(out), (std::vector<uint32_t>{25} + std::vector<uint32_t>(21, 0))) << "before any period ended";

    pass_seconds(FAST - 1);  // the wait was a second of the period
    pass_seconds(1);
    EXPECT_EQ(out.ask(atc_api_get_port_statistic, RX, PORT), 0);
    EXPECT_EQ(words(out),
              (std::vector<uint32_t>{25, 0, 25, 2, 25, 2, 25, 2, 25, 2, 25, 2} + std::vector<uint32_t>(10, 0)));
}

TEST_F(StatisticsTest, AverageOfHugePeriodsDoesNotWrap) {
    rx(arp(), PORT, VLAN);
    {
        State global;
        atc_stat_t &stat = global->rx_stat;
        std::fill(std::begin(stat.fp_ring), std::end(stat.fp_ring), 0xF0000000U);
        stat.fp_head = 5;
        stat.fp_cur = 4;
    }
    SumOutputs out;
    EXPECT_EQ(out.ask(atc_api_get_global_statistic, RX), 0);
    EXPECT_EQ(out.words[8], 0xF0000000U);
}

TEST_F(StatisticsTest, SourceShowsThresholdsCaptureAndDenies) {
    atc_api_set_protocol_fp_limit(ARP, 1);
    atc_api_set_protocol_src_fp_limit(ARP, 2);
    atc_api_set_protocol_src_deny_enable(ARP, 1);
    atc_api_set_protocol_src_cap_enable(ARP, 1);
    atc_api_set_protocol_src_hw_deny_enable(ARP, 1);
    rx_n(10 + 24, arp(), PORT, VLAN);  // the source is counted from the packet on that reaches the flow's threshold
    ASSERT_EQ(fake().chip().size(), 1U);
    fake().set_packets(fake().chip()[0].stat_id, 500);  // so that the rule stays
    pass_seconds(FAST);                                 // 25 packets of the source, 20 allowed

    FlowOutputs out;
    meanwhile([&] { rx_n(2, arp(), PORT, VLAN); });
    EXPECT_EQ(ask_flow(out, ATC_SRC_MAC, SENDER), 0);
    const uint32_t captured = 24 + 2 * (16 + arp().size());
    EXPECT_EQ(words(out), (std::vector<uint32_t>{27, 2} + period_figures({25}, FAST, 2 * FAST) +
                           std::vector<uint32_t>{0, 0, 0, 0, 0, 0, 0, 0, 50 * LONG, 50, 0, 0} +
                           std::vector<uint32_t>{1, captured, 1, 1}));
}

TEST_F(StatisticsTest, WhatIsNotThereIsRefused) {
    rx(arp(), PORT, VLAN);
    tx(arp());
    const struct {
        const char *name;
        std::function<int(SumOutputs &)> query;
    } sums[] = {
        {"sent by port", [](auto &out) { return out.ask(atc_api_get_port_statistic, TX, PORT); }},
        {"sent by VLAN", [](auto &out) { return out.ask(atc_api_get_vlan_statistic, TX, VLAN); }},
        {"another port", [](auto &out) { return out.ask(atc_api_get_port_statistic, RX, PORT + 1); }},
        {"another VLAN", [](auto &out) { return out.ask(atc_api_get_vlan_statistic, RX, VLAN + 1); }},
        {"VLAN beyond 16 bits", [](auto &out) { return out.ask(atc_api_get_vlan_statistic, RX, 0x10000 + VLAN); }},
        {"another protocol", [](auto &out) { return out.ask(atc_api_get_protocol_statistic, RX, ARP + 1); }},
        {"protocol beyond 16 bits",
         [](auto &out) { return out.ask(atc_api_get_protocol_statistic, TX, 0x10000 + ARP); }},
    };
    for (const auto &row : sums) {
        SumOutputs out;
        EXPECT_EQ(row.query(out), -1) << row.name;
        EXPECT_TRUE(out.is_untouched()) << row.name;
    }
    const struct {
        const char *name;
        uint32_t direction, vlan, port, protocol, src_type;
        const void *src_addr;
    } flows[] = {
        {"sent flow", TX, VLAN, PORT, ARP, ATC_SRC_NONE, nullptr},
        {"VLAN and port exchanged", RX, PORT, VLAN, ARP, ATC_SRC_NONE, nullptr},
        {"a source of a flow without sources", RX, VLAN, PORT, ARP, ATC_SRC_MAC, SENDER},
        {"null address of a source", RX, VLAN, PORT, ARP, ATC_SRC_IPV6, nullptr},
        {"unknown source type", RX, VLAN, PORT, ARP, 4, SENDER},
    };
    for (const auto &row : flows) {
        FlowOutputs out;
        EXPECT_EQ(
            out.ask(atc_api_get_statistic, row.direction, row.vlan, row.port, row.protocol, row.src_type, row.src_addr),
            -1)
            << row.name;
        EXPECT_EQ(atc_api_clear_statistic(row.direction, row.vlan, row.port, row.protocol, row.src_type, row.src_addr),
                  -1)
            << row.name;
        EXPECT_TRUE(out.is_untouched()) << row.name;
    }
    EXPECT_EQ(fake().calls(Call::delay), 0U) << "nobody waits for what is not there";
    EXPECT_EQ(atc_api_clear_statistic_port(TX, PORT), -1);
    EXPECT_EQ(atc_api_clear_statistic_vlan(TX, VLAN), -1);
    EXPECT_EQ(atc_api_clear_statistic_port(RX, PORT + 1), -1);
    EXPECT_EQ(atc_api_clear_statistic_vlan(RX, VLAN + 1), -1);
    EXPECT_EQ(atc_api_clear_statistic_protocol(RX, ARP + 1), -1);
}

TEST_F(StatisticsTest, NullOutputsAreRefusedBeforeAnythingIsWritten) {
    rx(arp(), PORT, VLAN);
    tx(arp());
    for (size_t i = 0; i < 22; ++i) {
        SumOutputs out;
        out.pointers[i] = nullptr;
        EXPECT_EQ(out.ask(atc_api_get_global_statistic, RX), -1) << i;
        EXPECT_EQ(out.ask(atc_api_get_port_statistic, RX, PORT), -1) << i;
        EXPECT_EQ(out.ask(atc_api_get_vlan_statistic, RX, VLAN), -1) << i;
        EXPECT_EQ(out.ask(atc_api_get_protocol_statistic, TX, ARP), -1) << i;
        EXPECT_TRUE(out.is_untouched()) << i;
    }
    for (size_t i = 0; i < 30; ++i) {
        FlowOutputs out;
        out.pointers[i] = nullptr;
        EXPECT_EQ(ask_flow(out), -1) << i;
        EXPECT_TRUE(out.is_untouched()) << i;
    }
    EXPECT_EQ(fake().calls(Call::delay), 0U);

    uint32_t w = 0;
    char *none = nullptr;
    EXPECT_EQ(atc_api_get_global_statistic(RX, &w, &w, &w, &w, &w, &w, &w, &w, &w, &w, &w, &w, none, &w, &w, &w, &w, &w,
                                           &w, &w, &w, &w, &w, none),
              0)
        << "only the time texts may be null";
}

TEST_F(StatisticsTest, TimeTextsOfSixtyFourBytesAreNotOverrun) {
    rx(arp(), PORT, VLAN);
    {
        State global;
        std::memset(global->rx_stat.fp_peak_time, 'f', ATC_NAME_SIZE);
        std::memset(global->rx_stat.lp_peak_time, 'l', ATC_NAME_SIZE);
    }
    SumOutputs out;
    EXPECT_EQ(out.ask(atc_api_get_global_statistic, RX), 0);
    EXPECT_EQ(out.fp_peak_time, std::string(63, 'f'));
    EXPECT_EQ(out.lp_peak_time, std::string(63, 'l'));
}

TEST_F(StatisticsTest, RecordThatGoesAwayDuringTheWaitFails) {
    atc_api_set_protocol_fp_limit(ARP, 1);
    const struct {
        const char *name;
        std::function<int()> query;
    } rows[] = {
        {"port", [] { return SumOutputs().ask(atc_api_get_port_statistic, RX, PORT); }},
        {"VLAN", [] { return SumOutputs().ask(atc_api_get_vlan_statistic, RX, VLAN); }},
        {"protocol", [] { return SumOutputs().ask(atc_api_get_protocol_statistic, RX, ARP); }},
        {"flow", [] { return ask_flow(*std::make_unique<FlowOutputs>()); }},
        {"source", [] { return ask_flow(*std::make_unique<FlowOutputs>(), ATC_SRC_MAC, SENDER); }},
    };
    for (const auto &row : rows) {
        rx_n(15, arp(), PORT, VLAN);
        meanwhile(nullptr);
        EXPECT_EQ(row.query(), 0) << row.name;
        meanwhile([] { atc_api_clear_statistic_all(); });
        EXPECT_EQ(row.query(), -1) << row.name;
    }
}

TEST_F(StatisticsTest, RecordMadeAgainDuringTheWaitIsReadAfresh) {
    atc_api_set_protocol_fp_limit(ARP, 1);
    meanwhile([&] {
        atc_api_clear_statistic_all();
        rx_n(12, arp(), PORT, VLAN);
    });
    // A flow's source is counted from its tenth packet on.
    rx_n(15, arp(), PORT, VLAN);
    SumOutputs port;
    EXPECT_EQ(port.ask(atc_api_get_port_statistic, RX, PORT), 0);
    EXPECT_EQ(port.words[0], 12U);
    EXPECT_EQ(port.words[1], static_cast<uint32_t>(12 - 15)) << "the difference wraps";
    rx_n(3, arp(), PORT, VLAN);
    FlowOutputs source;
    EXPECT_EQ(ask_flow(source, ATC_SRC_MAC, SENDER), 0);
    EXPECT_EQ(source.words[0], 3U);
    EXPECT_EQ(source.words[1], static_cast<uint32_t>(3 - 6));
}

TEST_F(StatisticsTest, CounterThatWrapsGivesTheRightRate) {
    rx(arp(), PORT, VLAN);
    state()->rx_stat.count = 0xFFFFFFFE;
    meanwhile([&] { rx_n(5, arp(), PORT, VLAN); });
    SumOutputs out;
    EXPECT_EQ(out.ask(atc_api_get_global_statistic, RX), 0);
    EXPECT_EQ(out.words[0], 3U);
    EXPECT_EQ(out.words[1], 5U);
}

TEST_F(StatisticsTest, SourcesAreListedBusiestFirstWithTheirTypes) {
    atc_api_set_fast_period_time(1);
    atc_api_set_protocol_fp_limit(LDP, 1);  // every packet is over the limit: every source is counted
    const struct {
        Frame frame;
        uint32_t packets;
        uint32_t type;
        std::vector<uint8_t> addr;
    } senders[] = {
        {udp(646, 646).src_ip(0x0A000001), 3, ATC_SRC_IPV4, {}},
        {udp6(646, 646).src_ip("2001:db8::7"), 9, ATC_SRC_IPV6, {}},
        {udp(646, 646).src_ip(0x0A000002), 300, ATC_SRC_IPV4, {}},
        {udp6(646, 646).src_ip("2001:db8::8"), 1, ATC_SRC_IPV6, {}},
    };
    for (const auto &sender : senders) {
        rx_n(sender.packets, sender.frame, PORT, VLAN);
    }
    std::vector<uint32_t> types(ATC_SOURCES_PER_FLOW, UNTOUCHED);
    std::vector<atc_src_stat_t> records(ATC_SOURCES_PER_FLOW);
    std::memset(records.data(), 0xEE, records.size() * sizeof(records[0]));
    uint32_t count = 0;
    ASSERT_EQ(atc_api_get_src_statistic(RX, VLAN, PORT, LDP, types.data(), &count, records.data()), 0);

    std::ostringstream listing;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t ipv4;
        std::memcpy(&ipv4, records[i].addr, sizeof(ipv4));
        listing << types[i] << ' ' << std::hex << (types[i] == ATC_SRC_IPV4 ? ipv4 : records[i].addr[15]) << std::dec
                << ' ' << records[i].count << ' ' << (records[i].addr[4] == 0xEE) << '\n';
    }
    EXPECT_EQ(listing.str(), "2 a000002 300 1\n3 7 9 0\n2 a000001 3 1\n3 8 1 0\n");
    EXPECT_EQ(types[4], UNTOUCHED);

    count = UNTOUCHED;
    rx(arp(), PORT, VLAN);
    EXPECT_EQ(atc_api_get_src_statistic(RX, VLAN, PORT, ARP, types.data(), &count, records.data()), -1) << "no sources";
    EXPECT_EQ(atc_api_get_src_statistic(RX, VLAN, PORT, LDP + 1, types.data(), &count, records.data()), -1);
    EXPECT_EQ(atc_api_get_src_statistic(RX, VLAN, PORT, LDP, nullptr, &count, records.data()), -1);
    EXPECT_EQ(atc_api_get_src_statistic(RX, VLAN, PORT, LDP, types.data(), nullptr, records.data()), -1);
    EXPECT_EQ(atc_api_get_src_statistic(RX, VLAN, PORT, LDP, types.data(), &count, nullptr), -1);
    EXPECT_EQ(count, UNTOUCHED);
}

TEST_F(StatisticsTest, ListingHoldsAllSourcesThatAFlowCanHave) {
    atc_api_set_fast_period_time(1);
    atc_api_set_protocol_fp_limit(ARP, 1);
    std::map<uint32_t, uint32_t> sent;  // by the last two bytes of the address
    for (uint32_t n = 0; n < ATC_SOURCES_PER_FLOW + 1; ++n) {
        const uint32_t packets = n * 7919 % 5 + 1;
        rx_n(packets, arp().from(n), PORT, VLAN);
        sent[n] = packets;
    }
    sent.erase(ATC_SOURCES_PER_FLOW);  // one too many
    std::vector<uint32_t> types(ATC_SOURCES_PER_FLOW);
    std::vector<atc_src_stat_t> records(ATC_SOURCES_PER_FLOW);
    uint32_t count = 0;
    ASSERT_EQ(atc_api_get_src_statistic(RX, VLAN, PORT, ARP, types.data(), &count, records.data()), 0);
    ASSERT_EQ(count, uint32_t{ATC_SOURCES_PER_FLOW});
    EXPECT_TRUE(
        std::is_sorted(records.begin(), records.end(), [](const auto &a, const auto &b) { return a.count > b.count; }));
    std::map<uint32_t, uint32_t> listed;
    for (const atc_src_stat_t &record : records) {
        listed[static_cast<uint32_t>(record.addr[4] << 8 | record.addr[5])] = record.count;
    }
    EXPECT_EQ(listed, sent);
}

// A flood with everything switched on, and what is known about it.
class ClearTest : public StatisticsTest {
protected:
    void SetUp() override {
        StatisticsTest::SetUp();
        atc_api_set_protocol_fp_limit(ARP, 1);
        atc_api_set_protocol_src_fp_limit(ARP, 1);
        for (auto *enable : {atc_api_set_protocol_deny_enable, atc_api_set_protocol_src_deny_enable,
                             atc_api_set_protocol_cap_enable, atc_api_set_protocol_src_cap_enable,
                             atc_api_set_protocol_hw_deny_enable, atc_api_set_protocol_src_hw_deny_enable}) {
            enable(ARP, 1);
        }
    }

    void flood() {
        rx_n(40, arp(), PORT, VLAN);
        for (const ChipRule &rule : fake().chip()) {
            fake().set_packets(rule.stat_id, 500);  // so that the rules stay
        }
        pass_seconds(FAST);
        rx(arp(), PORT, VLAN);  // into the captures
        tx_n(2, arp());
    }

    // The count of every block, largest first in the path of a packet.
    std::string counts() {
        std::ostringstream text;
        State global;
        text << "rx " << global->rx_stat.count << " tx " << global->tx_stat.count;
        for (const auto &[name, tree] : std::initializer_list<std::pair<const char *, const atc_avl_tree_t *>>{
                 {"port", &global->port_tree},
                 {"VLAN", &global->vlan_tree},
                 {"rx-protocol", &global->rx_protocol_tree},
                 {"tx-protocol", &global->tx_protocol_tree},
                 {"flow", &global->entry_tree}}) {
            const auto *first = static_cast<const atc_entry_t *>(atc_avl_first(tree));
            text << ' ' << name << ' ' << (first == nullptr ? "none" : std::to_string(first->stat.count));
        }
        const atc_src_entry_t *src = atc_src_entry_get(RX, VLAN, PORT, ARP, ATC_SRC_MAC, SENDER);
        text << " source " << (src == nullptr ? "none" : std::to_string(src->stat.count));
        return text.str();
    }
};

TEST_F(ClearTest, EachClearResetsItsOwnBlock) {
    const struct {
        const char *name;
        std::function<int()> clear;
        const char *counts;
        uint32_t captures;
    } rows[] = {
        {"nothing", [] { return 0; }, "rx 41 tx 2 port 41 VLAN 41 rx-protocol 41 tx-protocol 2 flow 41 source 32", 2},
        {"received", [] { return atc_api_clear_statistic_global(RX); },
         "rx 0 tx 2 port 41 VLAN 41 rx-protocol 41 tx-protocol 2 flow 41 source 32", 2},
        {"sent", [] { return atc_api_clear_statistic_global(TX); },
         "rx 41 tx 0 port 41 VLAN 41 rx-protocol 41 tx-protocol 2 flow 41 source 32", 2},
        {"no direction", [] { return atc_api_clear_statistic_global(3); },
         "rx 41 tx 2 port 41 VLAN 41 rx-protocol 41 tx-protocol 2 flow 41 source 32", 2},
        {"port", [] { return atc_api_clear_statistic_port(RX, PORT); },
         "rx 41 tx 2 port 0 VLAN 41 rx-protocol 41 tx-protocol 2 flow 41 source 32", 2},
        {"VLAN", [] { return atc_api_clear_statistic_vlan(RX, VLAN); },
         "rx 41 tx 2 port 41 VLAN 0 rx-protocol 41 tx-protocol 2 flow 41 source 32", 2},
        {"protocol received", [] { return atc_api_clear_statistic_protocol(RX, ARP); },
         "rx 41 tx 2 port 41 VLAN 41 rx-protocol 0 tx-protocol 2 flow 41 source 32", 2},
        {"protocol sent", [] { return atc_api_clear_statistic_protocol(TX, ARP); },
         "rx 41 tx 2 port 41 VLAN 41 rx-protocol 41 tx-protocol 0 flow 41 source 32", 2},
        {"flow", [] { return atc_api_clear_statistic(RX, VLAN, PORT, ARP, ATC_SRC_NONE, nullptr); },
         "rx 41 tx 2 port 41 VLAN 41 rx-protocol 41 tx-protocol 2 flow 0 source 32", 1},
        {"source", [] { return atc_api_clear_statistic(RX, VLAN, PORT, ARP, ATC_SRC_MAC, SENDER); },
         "rx 41 tx 2 port 41 VLAN 41 rx-protocol 41 tx-protocol 2 flow 41 source 0", 1},
    };
    for (const auto &row : rows) {
        clear();
        flood();
        const size_t blocks = fake().live_blocks();
        EXPECT_EQ(row.clear(), 0) << row.name;
        EXPECT_EQ(counts(), row.counts) << row.name;
        EXPECT_EQ(state()->protocol_cap_cnt, row.captures) << row.name;
        EXPECT_EQ(fake().live_blocks(), blocks - (2 - row.captures)) << row.name;
        EXPECT_EQ(fake().chip().size(), 2U) << row.name;
        EXPECT_EQ(state_problems(), "") << row.name;
        const auto kept = [](const atc_stat_t &stat) {
            return stat.fp_alarm == 1 && stat.sw_deny_on == 1 && stat.hw_deny_on == 1 && stat.fp_threshold == FAST;
        };
        EXPECT_TRUE(kept(entry(PORT, VLAN, ARP)->stat)) << row.name;
        EXPECT_TRUE(kept(source(PORT, VLAN, ARP, ATC_SRC_MAC, SENDER)->stat)) << row.name;
    }
}

TEST_F(ClearTest, ClearedBlockStartsAfresh) {
    flood();
    atc_api_clear_statistic(RX, VLAN, PORT, ARP, ATC_SRC_NONE, nullptr);
    FlowOutputs out;
    EXPECT_EQ(ask_flow(out), 0);
    EXPECT_EQ(words(out), (std::vector<uint32_t>{0, 0, 0, 0, 0, 0, 0, 0,         0,  0, FAST, 1, 0, 0, 0,
                                                 0, 0, 0, 0, 0, 0, 0, 50 * LONG, 50, 0, 0,    0, 0, 1, 1}));
    EXPECT_STREQ(out.fp_peak_time, "");
}

TEST_F(ClearTest, ClearAllDiscardsEverythingWithItsRulesAndCaptures) {
    const size_t blocks = fake().live_blocks();
    flood();
    rx_n(30, arp(), PORT + 1, VLAN + 1);
    EXPECT_GE(fake().chip().size(), 4U);
    EXPECT_EQ(atc_api_clear_statistic_all(), 0);
    EXPECT_EQ(counts(), "rx 0 tx 0 port none VLAN none rx-protocol none tx-protocol none flow none source none");
    EXPECT_EQ(fake().live_blocks(), blocks);
    EXPECT_TRUE(fake().chip().empty());
    EXPECT_EQ(state()->protocol_cap_cnt, 0U);
    EXPECT_EQ(state()->rule_hw_count, 0U);
    rx(arp(), PORT, VLAN);
    EXPECT_EQ(counts(), "rx 1 tx 0 port 1 VLAN 1 rx-protocol 1 tx-protocol none flow 1 source none");
}

TEST_F(ClearTest, PeriodOfZeroGivesNoRates) {
    flood();
    state()->fast_period_time = 0;
    SumOutputs out;
    EXPECT_EQ(out.ask(atc_api_get_port_statistic, RX, PORT), 0);
    EXPECT_EQ(out.words[2], 40U);
    EXPECT_EQ(out.words[3], 0U);
    state()->fast_period_time = FAST;
}

}  // namespace
