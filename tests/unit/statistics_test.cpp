// statistics_test.cpp: queries and clears against counts that the test knows because it sent the packets.
#include <algorithm>
#include <cstring>
#include <numeric>
#include <utility>

#include "fixture.h"
#include "frames.h"

namespace {

using Words = std::vector<uint32_t>;

constexpr uint32_t RX = ATC_DIRECTION_RX;
constexpr uint32_t TX = ATC_DIRECTION_TX;
constexpr uint32_t ARP = ATC_ARP;
constexpr uint32_t PORT = 3;
constexpr uint32_t VLAN = 100;
constexpr uint32_t FAST = 10;  // seconds
constexpr uint32_t LONG = 30;
constexpr uint32_t UNTOUCHED = 0xEEEEEEEE;
constexpr uint8_t SENDER[] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};  // of the frames, unless they say otherwise

// The output words of one query, and its two time texts: one behind 'Before' words, one behind 'Middle' more.
template <size_t Before, size_t Middle, size_t Behind>
struct Outputs {
    Words words = Words(Before + Middle + Behind, UNTOUCHED);
    size_t null_at = SIZE_MAX;  // the word that is given as null; behind the last word: both times
    char fp_peak_time[65] = {};
    char lp_peak_time[65] = {};

    // Calls query(key..., outputs in their order).
    template <typename query_t, typename... key_t>
    int ask(query_t query, key_t... key) {
        const auto word = [this](size_t i) { return i == null_at ? nullptr : &words[i]; };
        const auto time = [this](char *text) { return null_at == words.size() ? nullptr : text; };
        return [&]<size_t... a, size_t... b, size_t... c>(std::index_sequence<a...>, std::index_sequence<b...>,
                                                          std::index_sequence<c...>) {
            return query(key..., word(a)..., time(fp_peak_time), word(Before + b)..., time(lp_peak_time),
                         word(Before + Middle + c)...);
        }
        (std::make_index_sequence<Before>(), std::make_index_sequence<Middle>(), std::make_index_sequence<Behind>());
    }
};
using SumOutputs = Outputs<12, 10, 0>;
using FlowOutputs = Outputs<14, 12, 4>;

int ask_flow(FlowOutputs &out, uint32_t src_type = ATC_SRC_NONE) {
    return out.ask(atc_api_get_statistic, RX, VLAN, PORT, ARP, src_type, src_type == ATC_SRC_NONE ? nullptr : SENDER);
}

// Every query of a sum that an ARP packet on PORT and VLAN, and a sent one, are in.
const struct {
    const char *name;
    int (*ask)(SumOutputs &out);
} sums[] = {
    {"received", [](auto &out) { return out.ask(atc_api_get_global_statistic, RX); }},
    {"no direction is sent", [](auto &out) { return out.ask(atc_api_get_global_statistic, 0U); }},
    {"port", [](auto &out) { return out.ask(atc_api_get_port_statistic, RX, PORT); }},
    {"VLAN", [](auto &out) { return out.ask(atc_api_get_vlan_statistic, RX, VLAN); }},
    {"protocol received", [](auto &out) { return out.ask(atc_api_get_protocol_statistic, RX, ARP); }},
    {"protocol sent", [](auto &out) { return out.ask(atc_api_get_protocol_statistic, TX, ARP); }},
};

// The figures of one kind of period, computed the naive way: from all counts of closed periods.
Words period_figures(const Words &periods, uint32_t seconds, std::optional<uint32_t> threshold = std::nullopt) {
    const Words last(periods.end() - std::min<std::ptrdiff_t>(std::ssize(periods), 12), periods.end());
    Words counts = {last.back(), std::ranges::min(last), std::ranges::max(last),
                    std::accumulate(last.begin(), last.end(), 0U) / static_cast<uint32_t>(last.size())};
    if (threshold) {
        counts.push_back(*threshold);
    }
    counts.push_back(std::ranges::max(periods));
    Words figures;
    for (uint32_t count : counts) {
        figures.insert(figures.end(), {count, count / seconds});
    }
    return figures;
}

Words operator+(Words a, const Words &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class StatisticsTest : public ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        atc_api_set_fast_period_time(FAST);
        atc_api_set_long_period_time(LONG);
    }  // What happens in the second in which a query waits.
    void meanwhile(std::function<void()> action) { fake().on_delay = std::move(action); }
};

TEST_F(StatisticsTest, FiguresAreThoseOfTheInputBeyondTheRings) {
    Words fast;
    Words slow;
    for (uint32_t period = 1; period <= 43; ++period) {
        // The first two stand out, and have left both rings at the end; the last is one short of 5 packets a second.
        const uint32_t n = period <= 2 ? 500 + period : period == 43 ? 5 * FAST - 1 : period * 37 % 90 + 5;
        rx_n(n, arp(), PORT, VLAN);
        tx_n(n, arp());
        pass_seconds(FAST);
        fast.push_back(n);
        if (period % 3 == 0) {
            slow.push_back(fast[period - 3] + fast[period - 2] + n);
        }
    }
    uint32_t total = std::accumulate(fast.begin(), fast.end(), 0U);
    meanwhile([&] {
        rx_n(7, arp(), PORT, VLAN);
        tx_n(7, arp());
        total += 7;
    });
    for (const auto &row : sums) {
        SumOutputs out;
        EXPECT_EQ(row.ask(out), 0) << row.name;
        EXPECT_EQ(out.words, (Words{total, 7} + period_figures(fast, FAST) + period_figures(slow, LONG))) << row.name;
        EXPECT_STREQ(out.fp_peak_time, "2021-09-02 03:46:40") << row.name << ": at the end of the second period";
        EXPECT_STREQ(out.lp_peak_time, "2021-09-02 03:46:50") << row.name;
    }
    FlowOutputs out;
    const int64_t start = fake().monotonic_ns();
    EXPECT_EQ(ask_flow(out), 0);
    EXPECT_EQ(fake().monotonic_ns() - start, 1'000'000'000);
    EXPECT_EQ(out.words, (Words{total, 7} + period_figures(fast, FAST, 100 * FAST) +
                          period_figures(slow, LONG, 50 * LONG) + Words{0, 0, 0, 0}));
}

TEST_F(StatisticsTest, AverageDoesNotWrapNorTheTimeOverrun) {
    {
        State global;
        std::ranges::fill(global->rx_stat.fp_ring, 0xF0000000U);
        global->rx_stat.fp_cur = ATC_RING_SLOTS - 1;
        std::memset(global->rx_stat.fp_peak_time, 'f', ATC_NAME_SIZE);
    }
    SumOutputs out;
    EXPECT_EQ(sums[0].ask(out), 0);
    EXPECT_EQ(out.words[8], 0xF0000000U);
    EXPECT_EQ(out.fp_peak_time, std::string(63, 'f'));
}

TEST_F(StatisticsTest, WhatIsNotThereIsRefused) {
    rx(arp(), PORT, VLAN);
    tx(arp());
    SumOutputs sum;
    EXPECT_EQ(sum.ask(atc_api_get_port_statistic, TX, PORT), -1);
    EXPECT_EQ(sum.ask(atc_api_get_vlan_statistic, RX, 0x10000 + VLAN), -1);
    EXPECT_EQ(sum.ask(atc_api_get_protocol_statistic, TX, 0x10000 + ARP), -1);
    FlowOutputs flow;
    EXPECT_EQ(flow.ask(atc_api_get_statistic, RX, PORT, VLAN, ARP, ATC_SRC_NONE, nullptr), -1);
    EXPECT_EQ(flow.ask(atc_api_get_statistic, RX, VLAN, PORT, ARP, ATC_SRC_MAC, nullptr), -1);
    EXPECT_EQ(atc_api_clear_statistic(RX, VLAN, PORT, ARP, ATC_SRC_MAC, nullptr), -1);
    for (sum.null_at = 0; sum.null_at < sum.words.size(); ++sum.null_at) {
        EXPECT_EQ(sums[0].ask(sum), -1) << sum.null_at;
    }
    for (flow.null_at = 0; flow.null_at < flow.words.size(); ++flow.null_at) {
        EXPECT_EQ(ask_flow(flow), -1) << flow.null_at;
    }
    EXPECT_EQ(sum.words + flow.words, Words(22 + 30, UNTOUCHED));
    EXPECT_EQ(fake().calls(Call::delay), 0U) << "nobody waits for what is not there";
    EXPECT_EQ(sums[0].ask(sum), 0) << "only the times may be null";
}

// What is asked for goes away during the wait, and is gone or made again when it ends.
TEST_F(StatisticsTest, RecordIsFoundAnewAfterTheWait) {
    FlowOutputs out;
    for (const uint32_t again : {0U, 12U}) {
        meanwhile([&] {
            atc_api_clear_statistic_all();
            rx_n(again, arp(), PORT, VLAN);
        });
        rx_n(15, arp(), PORT, VLAN);
        EXPECT_EQ(ask_flow(out), again == 0 ? -1 : 0);
    }
    EXPECT_EQ((Words{out.words[0], out.words[1]}), (Words{12, static_cast<uint32_t>(12 - 15)})) << "it wraps";
}

TEST_F(StatisticsTest, SourcesAreListedBusiestFirstUpToAllOfAFlow) {
    Words types(ATC_SOURCES_PER_FLOW, UNTOUCHED);
    std::vector<atc_src_stat_t> records(ATC_SOURCES_PER_FLOW);
    uint32_t count = UNTOUCHED;
    const auto list = [&](uint32_t protocol) {
        return atc_api_get_src_statistic(RX, VLAN, PORT, protocol, types.data(), &count, records.data());
    };
    atc_api_set_fast_period_time(1);
    atc_api_set_protocol_fp_limit(ATC_LDP, 1);  // so that every source is counted
    rx_n(3, udp(646, 646).src_ip(0x0A000001), PORT, VLAN);
    rx_n(9, udp6(646, 646).src_ip("2001:db8::7"), PORT, VLAN);
    rx_n(300, udp(646, 646).src_ip(0x0A000002), PORT, VLAN);
    rx(frame_of_class(ATC_SELF), PORT, VLAN);
    EXPECT_EQ(list(ATC_SELF), -1) << "a flow without sources";
    EXPECT_EQ(count, UNTOUCHED);

    records[0].addr[4] = 0xEE;
    ASSERT_EQ(list(ATC_LDP), 0);
    const Words expected = {ATC_SRC_IPV4, 0x0A000002, 300, ATC_SRC_IPV6, 7, 9, ATC_SRC_IPV4, 0x0A000001, 3};
    Words listed;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t ipv4;
        std::memcpy(&ipv4, records[i].addr, sizeof(ipv4));
        listed.insert(listed.end(),
                      {types[i], types[i] == ATC_SRC_IPV4 ? ipv4 : records[i].addr[15], records[i].count});
    }
    EXPECT_EQ(listed, expected);
    EXPECT_EQ(records[0].addr[4], 0xEE) << "nothing is written behind an IPv4 address";

    for (uint32_t n = 4; n <= ATC_SOURCES_PER_FLOW + 1; ++n) {  // one too many
        rx(udp(646, 646).src_ip(n), PORT, VLAN);
    }
    ASSERT_EQ(list(ATC_LDP), 0);
    EXPECT_EQ(count, uint32_t{ATC_SOURCES_PER_FLOW});
    EXPECT_EQ(records.back().count, 1U);
}

// Everything is switched on and happens; then it is cleared.
TEST_F(StatisticsTest, SourceShowsThresholdsCaptureAndDenies) {
    for (auto *enable : {atc_api_set_protocol_fp_limit, atc_api_set_protocol_src_deny_enable,
                         atc_api_set_protocol_src_cap_enable, atc_api_set_protocol_src_hw_deny_enable}) {
        enable(ARP, 1);
    }
    atc_api_set_protocol_src_fp_limit(ARP, 2);
    rx_n(10 + 24, arp(), PORT, VLAN);  // the source is counted from the packet on that reaches the flow's threshold
    fake().set_packets(fake().chip().at(0).stat_id, 500);  // so that the rule stays
    pass_seconds(FAST);                                    // 25 packets of the source, 20 allowed
    meanwhile([&] { rx_n(2, arp(), PORT, VLAN); });
    FlowOutputs out;
    EXPECT_EQ(ask_flow(out, ATC_SRC_MAC), 0);
    const Words slow = {0, 0, 0, 0, 0, 0, 0, 0, 50 * LONG, 50, 0, 0};
    EXPECT_EQ(out.words, (Words{27, 2} + period_figures({25}, FAST, 2 * FAST) + slow +
                          Words{1, 24 + 2 * (16 + arp().size()), 1, 1}));
    meanwhile(nullptr);
    EXPECT_EQ(atc_api_clear_statistic(RX, VLAN, PORT, ARP, ATC_SRC_MAC, SENDER), 0);
    EXPECT_EQ(ask_flow(out, ATC_SRC_MAC), 0);
    EXPECT_EQ(out.words, (Words(10, 0) + Words{2 * FAST, 2, 0, 0} + slow + Words{0, 0, 1, 1}));
    EXPECT_STREQ(out.fp_peak_time, "");
}

}  // namespace
