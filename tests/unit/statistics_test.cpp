// SPDX-License-Identifier: Apache-2.0
// Queries of what is not there, or goes away while they wait.
#include <algorithm>
#include <cstring>
#include <utility>

#include "atc_api/statistics.h"
#include "fixture.h"
#include "frames.h"

namespace {

using StatisticsTest = ModuleTest;
using Words = std::vector<uint32_t>;

constexpr uint32_t RX = ATC_DIRECTION_RX, TX = ATC_DIRECTION_TX, ARP = ATC_ARP;
constexpr uint32_t PORT = 3, VLAN = 100;
constexpr uint32_t UNTOUCHED = 0xEEEEEEEE;

// The output words of one query, and its two time texts: one behind 'Before' words, one behind 'Middle' more.
template <size_t Before, size_t Middle, size_t Behind>
struct Outputs {
    Words words = Words(Before + Middle + Behind, UNTOUCHED);
    size_t null_at = SIZE_MAX;  // the word that is given as null; behind the last word: both times
    char fp_peak_time[65] = {}, lp_peak_time[65] = {};

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

TEST_F(StatisticsTest, WhatIsNotThereIsRefused) {
    rx(arp(), PORT, VLAN);
    tx(arp());
    SumOutputs sum;
    EXPECT_EQ(sum.ask(atc_api_get_port_statistic, TX, PORT), -1);
    EXPECT_EQ(sum.ask(atc_api_get_vlan_statistic, RX, 0x10000 + VLAN), -1);
    EXPECT_EQ(sum.ask(atc_api_get_protocol_statistic, TX, 0x10000 + ARP), -1);
    FlowOutputs flow;
    EXPECT_EQ(flow.ask(atc_api_get_statistic, TX, VLAN, PORT, ARP, ATC_SRC_NONE, nullptr), -1);
    EXPECT_EQ(flow.ask(atc_api_get_statistic, RX, VLAN, PORT, ARP, ATC_SRC_MAC, nullptr), -1);
    EXPECT_EQ(atc_api_clear_statistic(RX, VLAN, PORT, ARP, ATC_SRC_MAC, nullptr), -1);
    for (const auto &[vlan, protocol] : {std::pair{0x10000 + VLAN, ARP}, {VLAN, 0x10000 + ARP}}) {
        Words types(ATC_SOURCES_PER_FLOW);
        std::vector<atc_src_stat_t> sources(ATC_SOURCES_PER_FLOW);
        EXPECT_EQ(flow.ask(atc_api_get_statistic, RX, vlan, PORT, protocol, ATC_SRC_NONE, nullptr), -1);
        EXPECT_EQ(atc_api_clear_statistic(RX, vlan, PORT, protocol, ATC_SRC_NONE, nullptr), -1);
        EXPECT_EQ(atc_api_get_src_statistic(RX, vlan, PORT, protocol, types.data(), types.data(), sources.data()), -1);
    }
    atc_api_clear_statistic_global(RX + TX);
    EXPECT_EQ(state()->rx_stat.count + state()->tx_stat.count, 2U) << "there is no third direction";
    for (sum.null_at = 0; sum.null_at < sum.words.size(); ++sum.null_at) {
        EXPECT_EQ(sum.ask(atc_api_get_global_statistic, RX), -1) << sum.null_at;
    }
    for (flow.null_at = 0; flow.null_at < flow.words.size(); ++flow.null_at) {
        EXPECT_EQ(flow.ask(atc_api_get_statistic, RX, VLAN, PORT, ARP, ATC_SRC_NONE, nullptr), -1) << flow.null_at;
    }
    EXPECT_EQ(sum.words, Words(22, UNTOUCHED));
    EXPECT_EQ(flow.words, Words(30, UNTOUCHED));
    EXPECT_EQ(fake().calls(Call::delay), 0U) << "nobody waits for what is not there";
    EXPECT_EQ(sum.ask(atc_api_get_global_statistic, RX), 0) << "only the times may be null";
}

// What is asked for goes away during the wait, and is gone or made again when it ends.
TEST_F(StatisticsTest, RecordIsFoundAnewAfterTheWait) {
    FlowOutputs out;
    for (const uint32_t again : {0U, 12U}) {
        fake().on_delay = [&] {
            atc_api_clear_statistic_all();
            rx_n(again, arp(), PORT, VLAN);
        };
        rx_n(15, arp(), PORT, VLAN);
        EXPECT_EQ(out.ask(atc_api_get_statistic, RX, VLAN, PORT, ARP, ATC_SRC_NONE, nullptr), again == 0 ? -1 : 0);
    }
    EXPECT_EQ((Words{out.words[0], out.words[1]}), (Words{12, static_cast<uint32_t>(12 - 15)})) << "it wraps";
}

TEST_F(StatisticsTest, AverageDoesNotWrapNorTheTimesOverrun) {
    std::ranges::fill(state()->rx_stat.fp_ring, 0xF0000000U);
    state()->rx_stat.fp_cur = ATC_RING_SLOTS - 1;
    std::memset(state()->rx_stat.fp_peak_time, 'f', ATC_NAME_SIZE);
    std::memset(state()->rx_stat.lp_peak_time, 'l', ATC_NAME_SIZE);
    SumOutputs out;
    EXPECT_EQ(out.ask(atc_api_get_global_statistic, RX), 0);
    EXPECT_EQ(out.words[8], 0xF0000000U);
    EXPECT_EQ(out.fp_peak_time, std::string(63, 'f'));
    EXPECT_EQ(out.lp_peak_time, std::string(63, 'l'));
}

// Of every kind of address, the busiest first; a flow without sources has no list.
TEST_F(StatisticsTest, SourcesAreListedByTheirKind) {
    Words types(ATC_SOURCES_PER_FLOW, UNTOUCHED);
    std::vector<atc_src_stat_t> records(ATC_SOURCES_PER_FLOW);
    uint32_t count = UNTOUCHED;
    const auto list = [&](uint32_t protocol) {
        return atc_api_get_src_statistic(RX, VLAN, PORT, protocol, types.data(), &count, records.data());
    };
    set(ATC_LDP, 1, {atc_api_set_protocol_fp_limit}, 1);  // so that every source is counted
    rx_n(3, udp(646, 646).src_ip(0x0A000001), PORT, VLAN);
    rx_n(9, udp6(646, 646).src_ip("2001:db8::7"), PORT, VLAN);
    rx_n(300, udp(646, 646).src_ip(0x0A000002), PORT, VLAN);
    rx(frame_of_class(ATC_SELF), PORT, VLAN);
    EXPECT_EQ(list(ATC_SELF), -1);
    EXPECT_EQ(count, UNTOUCHED);
    records[0].addr[4] = 0xEE;
    ASSERT_EQ(list(ATC_LDP), 0);
    Words listed;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t ipv4;
        std::memcpy(&ipv4, records[i].addr, sizeof(ipv4));
        listed.insert(listed.end(),
                      {types[i], types[i] == ATC_SRC_IPV4 ? ipv4 : records[i].addr[15], records[i].count});
    }
    EXPECT_EQ(listed, (Words{ATC_SRC_IPV4, 0x0A000002, 300, ATC_SRC_IPV6, 7, 9, ATC_SRC_IPV4, 0x0A000001, 3}));
    EXPECT_EQ(atc_src_compare(&records[1], &records[1]), 0);
    EXPECT_EQ(records[0].addr[4], 0xEE) << "nothing is written behind an IPv4 address";
}

}  // namespace
