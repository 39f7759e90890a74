// statistics_test.cpp: queries and clears against counts that the test knows because it sent the packets.
#include <algorithm>
#include <cstring>
#include <numeric>
#include <set>
#include <sstream>
#include <utility>

#include "atc/entries.h"
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
    size_t null_at = SIZE_MAX;  // the word that is given as null
    bool takes_times = true;
    char fp_peak_time[65] = {};
    char lp_peak_time[65] = {};

    bool is_untouched() const { return words == Words(words.size(), UNTOUCHED); }

    // Calls query(key..., outputs in their order).
    template <typename query_t, typename... key_t>
    int ask(query_t query, key_t... key) {
        const auto call = [&]<size_t... a, size_t... b, size_t... c>(
            std::index_sequence<a...>, std::index_sequence<b...>, std::index_sequence<c...>) {
            return query(key..., word(a)..., takes_times ? fp_peak_time : nullptr, word(Before + b)...,
                         takes_times ? lp_peak_time : nullptr, word(Before + Middle + c)...);
        };
        return call(std::make_index_sequence<Before>(), std::make_index_sequence<Middle>(),
                    std::make_index_sequence<Behind>());
    }

private:
    uint32_t *word(size_t i) { return i == null_at ? nullptr : &words[i]; }
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
    bool is_lasting;  // what it asks for never goes away
} sums[] = {
    {"received", [](auto &out) { return out.ask(atc_api_get_global_statistic, RX); }, true},
    {"sent", [](auto &out) { return out.ask(atc_api_get_global_statistic, TX); }, true},
    {"no direction is sent", [](auto &out) { return out.ask(atc_api_get_global_statistic, 0U); }, true},
    {"port", [](auto &out) { return out.ask(atc_api_get_port_statistic, RX, PORT); }, false},
    {"VLAN", [](auto &out) { return out.ask(atc_api_get_vlan_statistic, RX, VLAN); }, false},
    {"protocol received", [](auto &out) { return out.ask(atc_api_get_protocol_statistic, RX, ARP); }, false},
    {"protocol sent", [](auto &out) { return out.ask(atc_api_get_protocol_statistic, TX, ARP); }, false},
    {"protocol in no direction", [](auto &out) { return out.ask(atc_api_get_protocol_statistic, 9U, ARP); }, false},
};

// The figures of one kind of period, computed the naive way: from all counts of closed periods.
Words period_figures(const Words &periods, uint32_t seconds, std::optional<uint32_t> threshold = std::nullopt) {
    const size_t kept = std::min<size_t>(periods.size(), 12);
    const Words last(periods.end() - static_cast<std::ptrdiff_t>(kept), periods.end());
    Words counts = {last.back(), *std::min_element(last.begin(), last.end()),
                    *std::max_element(last.begin(), last.end()),
                    std::accumulate(last.begin(), last.end(), 0U) / static_cast<uint32_t>(kept)};
    if (threshold) {
        counts.push_back(*threshold);
    }
    counts.push_back(*std::max_element(periods.begin(), periods.end()));
    Words figures;
    for (uint32_t count : counts) {
        figures.push_back(count);
        figures.push_back(count / seconds);
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
    }
    void TearDown() override {
        fake().on_delay = nullptr;
        ModuleTest::TearDown();
    }

    // What happens in the second in which a query waits.
    void meanwhile(std::function<void()> action) { fake().on_delay = std::move(action); }
};

TEST_F(StatisticsTest, FiguresAreThoseOfTheInputBeyondTheRings) {
    Words fast;
    Words slow;
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
    meanwhile([&] {
        rx_n(7, arp(), PORT, VLAN);
        tx_n(7, arp());
    });
    for (const auto &row : sums) {
        SumOutputs out;
        EXPECT_EQ(row.ask(out), 0) << row.name;
        total += 7;
        EXPECT_EQ(out.words, (Words{total, 7} + period_figures(fast, FAST) + period_figures(slow, LONG))) << row.name;
        EXPECT_STREQ(out.fp_peak_time, "2021-09-02 03:46:40") << row.name << ": at the end of the second period";
        EXPECT_STREQ(out.lp_peak_time, "2021-09-02 03:46:50") << row.name;
    }
    FlowOutputs out;
    const int64_t start = fake().monotonic_ns();
    EXPECT_EQ(ask_flow(out), 0);
    EXPECT_EQ(fake().monotonic_ns() - start, 1'000'000'000);
    EXPECT_EQ(out.words, (Words{total + 7, 7} + period_figures(fast, FAST, 100 * FAST) +
                          period_figures(slow, LONG, 50 * LONG) + Words{0, 0, 0, 0}));
    EXPECT_STREQ(out.fp_peak_time, "2021-09-02 03:46:40");
    EXPECT_STREQ(out.lp_peak_time, "2021-09-02 03:46:50");
}

TEST_F(StatisticsTest, ExtremesNeitherWrapNorOverrun) {
    rx(arp(), PORT, VLAN);
    {
        State global;
        atc_stat_t &stat = global->rx_stat;
        stat.count = 0xFFFFFFFE;
        std::fill(std::begin(stat.fp_ring), std::end(stat.fp_ring), 0xF0000000U);
        stat.fp_head = 5;
        stat.fp_cur = 4;
        std::memset(stat.fp_peak_time, 'f', ATC_NAME_SIZE);
        std::memset(stat.lp_peak_time, 'l', ATC_NAME_SIZE);
        global->fast_period_time = 0;
    }
    meanwhile([&] { rx_n(5, arp(), PORT, VLAN); });
    SumOutputs out;
    EXPECT_EQ(sums[0].ask(out), 0);
    EXPECT_EQ(Words(out.words.begin(), out.words.begin() + 4), (Words{3, 5, 0xF0000000, 0})) << "no rate in 0 seconds";
    EXPECT_EQ(out.words[8], 0xF0000000U) << "the average";
    EXPECT_EQ(out.fp_peak_time, std::string(63, 'f'));
    EXPECT_EQ(out.lp_peak_time, std::string(63, 'l'));
    state()->fast_period_time = FAST;
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
    EXPECT_EQ(ask_flow(out, ATC_SRC_MAC), 0);
    const uint32_t captured = 24 + 2 * (16 + arp().size());
    EXPECT_EQ(out.words, (Words{27, 2} + period_figures({25}, FAST, 2 * FAST) +
                          Words{0, 0, 0, 0, 0, 0, 0, 0, 50 * LONG, 50, 0, 0, 1, captured, 1, 1}));
}

TEST_F(StatisticsTest, WhatIsNotThereIsRefused) {
    atc_api_set_protocol_fp_limit(ARP, 1);
    rx_n(15, arp(), PORT, VLAN);
    tx(arp());
    SumOutputs sum;
    EXPECT_EQ(sum.ask(atc_api_get_port_statistic, TX, PORT), -1);
    EXPECT_EQ(sum.ask(atc_api_get_port_statistic, RX, PORT + 1), -1);
    EXPECT_EQ(sum.ask(atc_api_get_vlan_statistic, TX, VLAN), -1);
    EXPECT_EQ(sum.ask(atc_api_get_vlan_statistic, RX, 0x10000 + VLAN), -1);
    EXPECT_EQ(sum.ask(atc_api_get_protocol_statistic, TX, 0x10000 + ARP), -1);
    EXPECT_EQ(atc_api_clear_statistic_port(TX, PORT), -1);
    EXPECT_EQ(atc_api_clear_statistic_vlan(RX, VLAN + 1), -1);
    EXPECT_EQ(atc_api_clear_statistic_protocol(RX, ARP + 1), -1);
    EXPECT_TRUE(sum.is_untouched());
    const struct {
        const char *name;
        uint32_t direction, vlan, port, src_type;
        const void *src_addr;
    } flows[] = {
        {"sent flow", TX, VLAN, PORT, ATC_SRC_NONE, nullptr},
        {"VLAN and port exchanged", RX, PORT, VLAN, ATC_SRC_NONE, nullptr},
        {"another source", RX, VLAN, PORT, ATC_SRC_MAC, "abcdefabcdefabc"},
        {"null address of a source", RX, VLAN, PORT, ATC_SRC_MAC, nullptr},
        {"unknown source type", RX, VLAN, PORT, 4, SENDER},
    };
    for (const auto &[name, direction, vlan, port, src_type, src_addr] : flows) {
        FlowOutputs out;
        EXPECT_EQ(out.ask(atc_api_get_statistic, direction, vlan, port, ARP, src_type, src_addr), -1) << name;
        EXPECT_EQ(atc_api_clear_statistic(direction, vlan, port, ARP, src_type, src_addr), -1) << name;
        EXPECT_TRUE(out.is_untouched()) << name;
    }
    EXPECT_EQ(fake().calls(Call::delay), 0U) << "nobody waits for what is not there";
}

TEST_F(StatisticsTest, OnlyTheTimesMayBeNull) {
    rx(arp(), PORT, VLAN);
    tx(arp());
    FlowOutputs flow;
    for (flow.null_at = 0; flow.null_at < flow.words.size(); ++flow.null_at) {
        EXPECT_EQ(ask_flow(flow), -1) << flow.null_at;
    }
    EXPECT_TRUE(flow.is_untouched());
    for (const auto &row : sums) {
        SumOutputs out;
        for (out.null_at = 0; out.null_at < out.words.size(); ++out.null_at) {
            EXPECT_EQ(row.ask(out), -1) << row.name << out.null_at;
        }
        EXPECT_TRUE(out.is_untouched()) << row.name;
        out.takes_times = false;
        EXPECT_EQ(row.ask(out), 0) << row.name;
    }
    EXPECT_EQ(fake().calls(Call::delay), std::size(sums)) << "a refusal does not wait";
}

// What is asked for goes away during the wait, and is gone or made again when it ends.
TEST_F(StatisticsTest, RecordIsFoundAnewAfterTheWait) {
    atc_api_set_protocol_fp_limit(ARP, 1);
    meanwhile([] { atc_api_clear_statistic_all(); });
    for (const auto &row : sums) {
        rx(arp(), PORT, VLAN);
        tx(arp());
        SumOutputs out;
        EXPECT_EQ(row.ask(out), row.is_lasting ? 0 : -1) << row.name;
    }
    // A source is counted from the flow's tenth packet on.
    const std::pair<uint32_t, uint32_t> rows[] = {{ATC_SRC_NONE, 12}, {ATC_SRC_MAC, 3}};
    for (const auto &[src_type, counted] : rows) {
        meanwhile([] { atc_api_clear_statistic_all(); });
        rx_n(15, arp(), PORT, VLAN);
        FlowOutputs out;
        EXPECT_EQ(ask_flow(out, src_type), -1);
        meanwhile([this] {
            atc_api_clear_statistic_all();
            rx_n(12, arp(), PORT, VLAN);
        });
        rx_n(15, arp(), PORT, VLAN);
        EXPECT_EQ(ask_flow(out, src_type), 0);
        EXPECT_EQ(out.words[0], counted);
        EXPECT_EQ(out.words[1], static_cast<uint32_t>(12 - 15)) << "the difference wraps";
        atc_api_clear_statistic_all();
    }
}

class SourceListTest : public StatisticsTest {
protected:
    Words types = Words(ATC_SOURCES_PER_FLOW, UNTOUCHED);
    std::vector<atc_src_stat_t> records = std::vector<atc_src_stat_t>(ATC_SOURCES_PER_FLOW);
    uint32_t count = UNTOUCHED;

    // Every packet is over the limit, so that every source is counted.
    void SetUp() override {
        StatisticsTest::SetUp();
        atc_api_set_fast_period_time(1);
        atc_api_set_protocol_fp_limit(ARP, 1);
        atc_api_set_protocol_fp_limit(ATC_LDP, 1);
    }
    int list(uint32_t protocol) {
        return atc_api_get_src_statistic(RX, VLAN, PORT, protocol, types.data(), &count, records.data());
    }
};

TEST_F(SourceListTest, BusiestFirstWithTheirTypes) {
    rx_n(3, udp(646, 646).src_ip(0x0A000001), PORT, VLAN);
    rx_n(9, udp6(646, 646).src_ip("2001:db8::7"), PORT, VLAN);
    rx_n(300, udp(646, 646).src_ip(0x0A000002), PORT, VLAN);
    EXPECT_EQ(list(ATC_ARP), -1) << "no flow";
    EXPECT_EQ(atc_api_get_src_statistic(RX, VLAN, PORT, ATC_LDP, nullptr, &count, records.data()), -1);
    EXPECT_EQ(atc_api_get_src_statistic(RX, VLAN, PORT, ATC_LDP, types.data(), nullptr, records.data()), -1);
    EXPECT_EQ(atc_api_get_src_statistic(RX, VLAN, PORT, ATC_LDP, types.data(), &count, nullptr), -1);
    rx(frame_of_class(ATC_SELF), PORT, VLAN);
    EXPECT_EQ(list(ATC_SELF), -1) << "a flow without sources";
    EXPECT_EQ(count, UNTOUCHED);

    std::memset(records.data(), 0xEE, records.size() * sizeof(records[0]));
    ASSERT_EQ(list(ATC_LDP), 0);
    std::ostringstream listing;  // with the byte behind an IPv4 address, which stays as it was
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t ipv4;
        std::memcpy(&ipv4, records[i].addr, sizeof(ipv4));
        listing << types[i] << ' ' << std::hex << (types[i] == ATC_SRC_IPV4 ? ipv4 : records[i].addr[15]) << std::dec
                << ' ' << records[i].count << ' ' << (records[i].addr[4] == 0xEE) << '\n';
    }
    EXPECT_EQ(listing.str(), "2 a000002 300 1\n3 7 9 0\n2 a000001 3 1\n");
    EXPECT_EQ(types[3], UNTOUCHED);
}

TEST_F(SourceListTest, HoldsAllThatAFlowCanHave) {
    for (uint32_t n = 0; n <= ATC_SOURCES_PER_FLOW; ++n) {  // one too many
        rx_n(n % 7 + 1, arp().from(n), PORT, VLAN);
    }
    ASSERT_EQ(list(ARP), 0);
    ASSERT_EQ(count, uint32_t{ATC_SOURCES_PER_FLOW});
    std::set<int> listed;
    for (const atc_src_stat_t &record : records) {
        const int n = record.addr[4] << 8 | record.addr[5];
        listed.insert(n);
        EXPECT_EQ(record.count, n % 7 + 1U);
    }
    EXPECT_EQ(listed.size(), size_t{ATC_SOURCES_PER_FLOW});
    EXPECT_EQ(*listed.rbegin(), ATC_SOURCES_PER_FLOW - 1);
}

// ---- Clears: a flood with everything switched on, and what is known about it

class ClearTest : public StatisticsTest {
protected:
    using Counts = std::vector<int64_t>;

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

    // Received, sent, port, VLAN, protocol received, protocol sent, flow, source; -1 where there is no such block.
    Counts counts() {
        State global;
        Counts found = {global->rx_stat.count, global->tx_stat.count};
        for (const atc_avl_tree_t *tree : {&global->port_tree, &global->vlan_tree, &global->rx_protocol_tree,
                                           &global->tx_protocol_tree, &global->entry_tree}) {
            const auto *first = static_cast<const atc_entry_t *>(atc_avl_first(tree));
            found.push_back(first == nullptr ? -1 : int64_t{first->stat.count});
        }
        const atc_src_entry_t *src = atc_src_entry_get(RX, VLAN, PORT, ARP, ATC_SRC_MAC, SENDER);
        found.push_back(src == nullptr ? -1 : int64_t{src->stat.count});
        return found;
    }
};

TEST_F(ClearTest, EachClearResetsItsOwnBlock) {
    const struct {
        int (*clear)();
        size_t cleared;  // index of counts(); beyond it = nothing
        uint32_t captures;
    } rows[] = {
        {[] { return atc_api_clear_statistic_global(RX); }, 0, 2},
        {[] { return atc_api_clear_statistic_global(TX); }, 1, 2},
        {[] { return atc_api_clear_statistic_global(3); }, SIZE_MAX, 2},
        {[] { return atc_api_clear_statistic_port(RX, PORT); }, 2, 2},
        {[] { return atc_api_clear_statistic_vlan(RX, VLAN); }, 3, 2},
        {[] { return atc_api_clear_statistic_protocol(RX, ARP); }, 4, 2},
        {[] { return atc_api_clear_statistic_protocol(TX, ARP); }, 5, 2},
        {[] { return atc_api_clear_statistic(RX, VLAN, PORT, ARP, ATC_SRC_NONE, nullptr); }, 6, 1},
        {[] { return atc_api_clear_statistic(RX, VLAN, PORT, ARP, ATC_SRC_MAC, SENDER); }, 7, 1},
    };
    for (const auto &row : rows) {
        clear();
        flood();
        Counts expected = {41, 2, 41, 41, 41, 2, 41, 32};
        EXPECT_EQ(counts(), expected);
        if (row.cleared < expected.size()) {
            expected[row.cleared] = 0;
        }
        EXPECT_EQ(row.clear(), 0) << row.cleared;
        EXPECT_EQ(counts(), expected) << row.cleared;
        EXPECT_EQ(state()->protocol_cap_cnt, row.captures) << row.cleared;
    }
    atc_api_clear_statistic(RX, VLAN, PORT, ARP, ATC_SRC_NONE, nullptr);
    FlowOutputs out;
    EXPECT_EQ(ask_flow(out), 0);
    EXPECT_EQ(out.words, (Words(10, 0) + Words{FAST, 1} + Words(10, 0) + Words{50 * LONG, 50, 0, 0, 0, 0, 1, 1}));
    EXPECT_STREQ(out.fp_peak_time, "");
}

TEST_F(ClearTest, ClearAllDiscardsEverythingWithItsRulesAndCaptures) {
    const size_t blocks = fake().live_blocks();
    flood();
    rx_n(30, arp(), PORT + 1, VLAN + 1);
    EXPECT_GE(fake().chip().size(), 4U);
    EXPECT_EQ(atc_api_clear_statistic_all(), 0);
    EXPECT_EQ(counts(), (Counts{0, 0, -1, -1, -1, -1, -1, -1}));
    EXPECT_EQ(fake().live_blocks(), blocks);
    EXPECT_TRUE(fake().chip().empty());
}

}  // namespace
