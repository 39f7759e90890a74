// What one packet counts, when sources are told apart, and how a period is closed.
#include "atc/accounting.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>

#include "fixture.h"
#include "frames.h"

namespace {

class AccountingTest : public ModuleTest {
protected:
    // ARP flows get a threshold of 10 packets a period, their sources too.
    void SetUp() override {
        ModuleTest::SetUp();
        atc_api_set_fast_period_time(10);
        atc_api_set_protocol_fp_limit(ATC_ARP, 1);
        atc_api_set_protocol_src_fp_limit(ATC_ARP, 1);
    }

    uint32_t sources(uint32_t port, uint32_t vlan, uint32_t protocol) {
        const atc_entry_t *flow = entry(port, vlan, protocol);
        return flow == nullptr ? 0 : atc_avl_numnodes(&flow->src_tree);
    }

    std::vector<uint32_t> entries_per_index() {
        const State state;
        return {atc_avl_numnodes(&state->vlan_tree), atc_avl_numnodes(&state->port_tree),
                atc_avl_numnodes(&state->rx_protocol_tree), atc_avl_numnodes(&state->entry_tree),
                atc_avl_numnodes(&state->tx_protocol_tree)};
    }
};

TEST_F(AccountingTest, APacketCountsInEveryIndexOfItsDirection) {
    struct {
        const char *name;
        std::function<int()> packet;
        std::vector<uint32_t> entries;  // per index: VLAN, port, protocol, flow, sent protocol
        uint32_t received, sent;
    } const rows[] = {
        {"received", [this] { return rx(arp(), 3, 100); }, {1, 1, 1, 1, 0}, 1, 0},
        {"received again", [this] { return rx(arp(), 3, 100); }, {1, 1, 1, 1, 0}, 2, 0},
        {"other VLAN", [this] { return rx(arp(), 3, 101); }, {2, 1, 1, 2, 0}, 3, 0},
        {"the tag goes before the host's VLAN", [this] { return rx(arp().tag(100), 3, 7); }, {2, 1, 1, 2, 0}, 4, 0},
        {"the host's VLAN has 12 bits", [this] { return rx(arp(), 3, 0x1064); }, {2, 1, 1, 2, 0}, 5, 0},
        {"other port", [this] { return rx(arp(), 4, 101); }, {2, 2, 1, 3, 0}, 6, 0},
        {"other protocol", [this] { return rx(lldp(), 4, 101); }, {2, 2, 2, 4, 0}, 7, 0},
        {"VLAN 4089 counts in total and per VLAN", [this] { return rx(icmp(), 9, 4089); }, {3, 2, 2, 4, 0}, 8, 0},
        {"sent", [this] { return tx(arp()); }, {3, 2, 2, 4, 1}, 8, 1},
        {"sent, other protocol", [this] { return tx(lldp().tag(5)); }, {3, 2, 2, 4, 2}, 8, 2},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.packet(), 0);
        EXPECT_EQ(entries_per_index(), row.entries);
        EXPECT_EQ(state()->rx_stat.count, row.received);
        EXPECT_EQ(state()->tx_stat.count, row.sent);
    }
    EXPECT_EQ(entry(3, 100, ATC_ARP)->stat.count, 4u);
}

TEST_F(AccountingTest, SourcesAreToldApartFromTheThresholdOn) {
    rx_n(9, arp(), 3, 100);
    EXPECT_EQ(sources(3, 100, ATC_ARP), 0u);
    rx(arp(), 3, 100);
    ASSERT_EQ(sources(3, 100, ATC_ARP), 1u);
    const atc_src_entry_t *src = mac_source(3, 100, ATC_ARP, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55});
    ASSERT_NE(src, nullptr);
    EXPECT_EQ(src->stat.count, 1u);
    EXPECT_EQ(src->stat.fp_threshold, 10u);

    pass_seconds(10);  // 10 packets are not over the limit: no alarm, and a new period begins
    rx(arp().from(7), 3, 100);
    EXPECT_EQ(sources(3, 100, ATC_ARP), 1u);

    rx_n(10, arp(), 3, 100);
    pass_seconds(10);  // 11 packets: from now on the alarm keeps sources apart below the threshold too
    rx(arp().from(8), 3, 100);
    EXPECT_EQ(sources(3, 100, ATC_ARP), 2u);
}

TEST_F(AccountingTest, ASourceIsKnownByTheAddressOfItsKind) {
    atc_api_set_protocol_fp_limit(ATC_ICMPV4, 1);
    atc_api_set_protocol_fp_limit(ATC_ICMPV6_NS, 1);
    rx_n(10, arp(), 1, 1);
    rx_n(10, icmp().src_ip("10.0.0.1"), 1, 1);
    rx_n(10, icmpv6(135).src_ip("2001:db8::7"), 1, 1);
    const uint8_t ipv6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7};
    EXPECT_NE(mac_source(1, 1, ATC_ARP, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}), nullptr);
    EXPECT_NE(ipv4_source(1, 1, ATC_ICMPV4, 0x0a000001), nullptr);
    EXPECT_NE(source(1, 1, ATC_ICMPV6_NS, ATC_SRC_IPV6, ipv6), nullptr);
    EXPECT_EQ(ipv4_source(1, 1, ATC_ICMPV4, 0x0100000a), nullptr);
    EXPECT_EQ(source(1, 1, ATC_ICMPV6_NS, ATC_SRC_NONE, nullptr), nullptr);

    rx_n(1000, frame_of_class(ATC_SELF), 1, 1);  // the device's own packets have no source
    EXPECT_EQ(sources(1, 1, ATC_SELF), 0u);
}

TEST_F(AccountingTest, AFullFlowFollowsItsOwnDeny) {
    atc_api_set_protocol_deny_enable(ATC_ARP, 1);
    for (uint32_t n = 0; n < ATC_SOURCES_PER_FLOW + 9; n++) {
        EXPECT_EQ(rx(arp().from(n), 1, 1), 0);
    }
    EXPECT_EQ(sources(1, 1, ATC_ARP), ATC_SOURCES_PER_FLOW);
    EXPECT_EQ(rx(arp().from(999999), 1, 1), 0);
    EXPECT_EQ(sources(1, 1, ATC_ARP), ATC_SOURCES_PER_FLOW);
    pass_seconds(10);
    EXPECT_EQ(rx(arp().from(999999), 1, 1), -1);  // unknown, beyond the last source
    EXPECT_EQ(rx(arp().from(100), 1, 1), -1);     // known
    EXPECT_EQ(entry(1, 1, ATC_ARP)->stat.count, ATC_SOURCES_PER_FLOW + 12);
}

TEST_F(AccountingTest, CountersWrapWithoutLosingThePeriod) {
    rx(arp(), 1, 1);
    {
        const State state;
        atc_entry_t *flow = atc_entry_get(ATC_DIRECTION_RX, 1, 1, ATC_ARP);
        flow->stat.count = UINT32_MAX - 4;
        flow->stat.fp_last = UINT32_MAX - 4;
    }
    rx_n(9, arp(), 1, 1);
    EXPECT_EQ(sources(1, 1, ATC_ARP), 0u);
    rx(arp(), 1, 1);
    EXPECT_EQ(sources(1, 1, ATC_ARP), 1u);
    EXPECT_EQ(entry(1, 1, ATC_ARP)->stat.count, 5u);
}

// The block that period closes are tried on, with what should be in its ring.
class PeriodTest : public ModuleTest {
protected:
    void close(uint32_t packets) {
        stat.count += packets;
        const State state;
        atc_stat_process(&stat, ATC_PERIOD_FAST);
    }

    std::vector<uint32_t> ring() const {
        std::vector<uint32_t> packets = {stat.fp_ring[stat.fp_head]};
        for (uint32_t slot = stat.fp_head; slot != stat.fp_cur;) {
            slot = (slot + 1) % ATC_RING_SLOTS;
            packets.push_back(stat.fp_ring[slot]);
        }
        return packets;
    }

    atc_stat_t stat{};
};

TEST_F(PeriodTest, TheRingHoldsTheLatestTwelvePeriods) {
    std::mt19937 generator(20210902);
    const auto random = [&generator] { return static_cast<uint32_t>(generator()); };
    stat.count = stat.fp_last = UINT32_MAX - 1000;  // wraps on the way
    std::deque<uint32_t> twin;
    uint32_t peak = 0;
    for (int i = 0; i < 200; i++) {
        const uint32_t packets = random() % 3 == 0 ? 0 : random() % 100000;
        close(packets);
        if (twin.size() == 1 && twin[0] == 0) {
            twin.clear();  // while only zeros were recorded, the first slot is written again
        }
        twin.push_back(packets);
        if (twin.size() > ATC_RING_SLOTS) {
            twin.pop_front();
        }
        peak = std::max(peak, packets);
        ASSERT_EQ(ring(), std::vector<uint32_t>(twin.begin(), twin.end())) << "after " << i << " periods";
        ASSERT_EQ(stat.fp_peak, peak);
        ASSERT_EQ(stat.fp_last, stat.count);
    }
    EXPECT_EQ(stat.lp_ring[0], 0u);
}

TEST_F(PeriodTest, APeakKeepsTheTimeOfItsLatestRecord) {
    const struct {
        uint32_t packets, peak;
        const char *time;
    } rows[] = {
        {5, 5, "2021-09-02 03:46:21"}, {4, 5, "2021-09-02 03:46:21"}, {5, 5, "2021-09-02 03:46:23"},
        {6, 6, "2021-09-02 03:46:24"}, {0, 6, "2021-09-02 03:46:24"},
    };
    for (const auto &row : rows) {
        fake().advance(1);
        close(row.packets);
        EXPECT_EQ(stat.fp_peak, row.peak);
        EXPECT_STREQ(stat.fp_peak_time, row.time);
    }
}

TEST(Arithmetic, ThresholdsSaturateAndRatesTruncate) {
    const struct {
        uint32_t seconds, limit, threshold;
    } thresholds[] = {{300, 100, 30000},
                      {0, 100, 0},
                      {65536, 65535, 4294901760u},
                      {65536, 65536, UINT32_MAX},
                      {UINT32_MAX, UINT32_MAX, UINT32_MAX}};
    for (const auto &row : thresholds) {
        EXPECT_EQ(atc_threshold(row.seconds, row.limit), row.threshold) << row.seconds << " s x " << row.limit;
    }
    EXPECT_EQ(atc_rate(30001, 300), 100u);
    EXPECT_EQ(atc_rate(299, 300), 0u);
    EXPECT_EQ(atc_rate(299, 0), 0u);
}

TEST_F(AccountingTest, NoMemoryDropsThePacketAndKeepsTheCounts) {
    sweep(Call::alloc, [this] {
        bool passed = tx(arp()) == 0;
        for (int n = 0; n < 12; n++) {  // the flow and its aggregates, then sources
            passed &= rx(arp().from(static_cast<uint32_t>(n)), 2, 20) == 0;
        }
        return passed;
    });
}

}  // namespace
