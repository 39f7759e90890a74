// SPDX-License-Identifier: Apache-2.0
// What one packet counts, what remembers where, and how periods are closed.
#include "atc/accounting.h"

#include <deque>
#include <random>

#include "fixture.h"
#include "frames.h"

namespace {

using AccountingTest = ModuleTest;

TEST_F(AccountingTest, CountersWrapWithoutLosingThePeriod) {
    set(ATC_ARP, 1, {atc_api_set_protocol_fp_limit});
    rx(arp());
    entry(1, 1, ATC_ARP)->stat.count = entry(1, 1, ATC_ARP)->stat.fp_last = UINT32_MAX - 4;
    rx_n(9, arp());
    EXPECT_EQ(mac_source(1, 1, ATC_ARP), nullptr);
    rx(arp());
    EXPECT_NE(mac_source(1, 1, ATC_ARP), nullptr);
    EXPECT_EQ(entry(1, 1, ATC_ARP)->stat.count, 5u);
}

TEST_F(AccountingTest, TheRingHoldsTheLatestTwelvePeriods) {
    std::mt19937 random(test_seed());
    atc_stat_t stat{};
    stat.count = stat.fp_last = UINT32_MAX - 1000;  // wraps on the way
    std::deque<uint32_t> twin;
    uint32_t peak = 0;
    for (int i = 0; i < 200; i++) {
        const auto packets = static_cast<uint32_t>(random() % 3 == 0 ? 0 : random() % 100000);
        stat.count += packets;
        atc_stat_process(&stat, ATC_PERIOD_FAST);
        if (twin.size() == 1 && twin[0] == 0) {
            twin.clear();  // while only zeros were recorded, the first slot is written again
        }
        twin.push_back(packets);
        if (twin.size() > ATC_RING_SLOTS) {
            twin.pop_front();
        }
        peak = std::max(peak, packets);
        std::deque<uint32_t> ring = {stat.fp_ring[stat.fp_head]};
        for (uint32_t slot = stat.fp_head; slot != stat.fp_cur;) {
            slot = (slot + 1) % ATC_RING_SLOTS;
            ring.push_back(stat.fp_ring[slot]);
        }
        ASSERT_EQ(ring, twin) << "after " << i << " periods";
        ASSERT_EQ(stat.fp_peak, peak);
    }
    EXPECT_EQ(stat.lp_ring[0] + stat.lp_peak, 0u);
    EXPECT_EQ(atc_rate(299, 0), 0u);
}

TEST_F(AccountingTest, NoMemoryDropsThePacketAndKeepsTheCounts) {
    set(ATC_ARP, 1, {atc_api_set_protocol_fp_limit});
    sweep({Call::alloc}, [this] {
        const int sent = tx(arp());
        bool passed = told(sent, !atc_avl_is_empty(&state()->tx_protocol_tree));
        for (uint32_t n = 0; n < 12; n++) {  // the flow and its sums, then sources
            const int verdict = rx(arp().from(n), 2, 20);
            const atc_entry_t *flow = entry(2, 20, ATC_ARP);
            const bool has_source = mac_source(2, 20, ATC_ARP, {6, 0, 0, 0, 0, static_cast<uint8_t>(n)}) != nullptr;
            passed &= told(verdict, flow != nullptr && (flow->stat.count < 10 || has_source));
        }
        return passed;
    });
}

// Entries that are discarded and made again are counted in their new records, however they were discarded.
TEST_F(AccountingTest, NothingThatWasDiscardedIsReachedAgain) {
    set(ATC_LLDP, 12, {atc_api_set_protocol_fp_limit});
    const struct {
        int (*clear_it)();
        std::array<uint32_t, 3> counts;  // of the port, the VLAN and the flow, with 150 packets more
    } rows[] = {
        {atc_api_clear_statistic_all, {150, 150, 150}},
        {[] { return atc_api_clear_statistic_port(ATC_DIRECTION_RX, 3); }, {150, 450, 450}},
        {[] { return atc_api_clear_statistic_vlan(ATC_DIRECTION_RX, 100); }, {450, 150, 450}},
        {[] { return atc_api_clear_statistic(ATC_DIRECTION_RX, 100, 3, ATC_LLDP, 0, nullptr); }, {450, 450, 150}},
    };
    for (const auto &row : rows) {
        for (const uint32_t no_sources : {0U, 1U}) {  // a flood without memory for sources is remembered too
            clear();
            rx_n(119, lldp(), 3, 100);
            fake().fail(Call::alloc, no_sources, true);
            rx_n(181, lldp(), 3, 100);
            fake().fail_none();
            EXPECT_EQ(row.clear_it(), 0);
            fake().advance(86400);
            pass_seconds(1);
            rx_n(150, lldp(), 3, 100);
            const auto first = [](atc_avl_tree_t *tree) {
                return static_cast<atc_entry_t *>(atc_avl_first(tree))->stat.count;
            };
            const std::array counts{first(&state()->port_tree), first(&state()->vlan_tree),
                                    first(&state()->entry_tree)};
            EXPECT_EQ(counts, row.counts) << "row " << &row - rows << ", sources " << no_sources;
        }
    }
}

TEST_F(AccountingTest, SumsThatWereClearedGoWithTheDayAndComeAnew) {
    for (const uint32_t port : {3U, 70000U}) {  // remembered, and not
        rx(arp(), port, 100);
        tx(arp());
        EXPECT_EQ(atc_api_clear_statistic_port(ATC_DIRECTION_RX, port), 0);
        EXPECT_EQ(atc_api_clear_statistic_vlan(ATC_DIRECTION_RX, 100), 0);
        for (const uint32_t direction : {ATC_DIRECTION_RX, ATC_DIRECTION_TX}) {
            EXPECT_EQ(atc_api_clear_statistic_protocol(direction, ATC_ARP), 0);
        }
        atc_avl_tree_t *const trees[] = {&state()->port_tree, &state()->vlan_tree, &state()->rx_protocol_tree,
                                         &state()->tx_protocol_tree};
        static constexpr uint32_t kGone = UINT32_MAX;
        const auto counts = [&trees] {
            std::vector<uint32_t> all;
            for (atc_avl_tree_t *tree : trees) {
                const auto *entry = static_cast<atc_entry_t *>(atc_avl_first(tree));
                all.push_back(entry != nullptr ? entry->stat.count : kGone);
            }
            return all;
        };
        fake().advance(86400);
        pass_seconds(1);
        EXPECT_EQ(counts(), (std::vector<uint32_t>{kGone, kGone, kGone, kGone})) << port;
        rx(arp(), port, 100);
        tx(arp());
        EXPECT_EQ(counts(), (std::vector<uint32_t>{1, 1, 1, 1})) << port;
        clear();
    }
}

}  // namespace
