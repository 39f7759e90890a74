// The way of one packet: who is processed at all, and which verdict wins.
#include <gtest/gtest.h>

#include "fixture.h"
#include "frames.h"

namespace {

class PipelineTest : public ModuleTest {};

TEST_F(PipelineTest, NothingHappensUnlessTheModuleRuns) {
    atc_api_set_global_enable(0);
    EXPECT_EQ(rx(arp()), 0);
    atc_api_set_global_enable(2);
    EXPECT_EQ(tx(arp()), 0);
    atc_api_set_global_enable(1);
    g_atc_init = 0;
    EXPECT_EQ(rx(arp()), 0);
    g_atc_init = 1;
    EXPECT_EQ(atc_api_receive_packet(nullptr, 60, 1, 1), 0);
    EXPECT_EQ(atc_api_global_send_packet(nullptr, 60), 0);
    EXPECT_EQ(state()->rx_stat.count, 0u);
    EXPECT_EQ(state()->tx_stat.count, 0u);
}

TEST_F(PipelineTest, OwnPacketsAreKnownByTheirSourceAlone) {
    struct {
        const char *name;
        Frame frame;
        bool received;
        uint16_t protocol;
    } const rows[] = {
        {"ARP from the device", arp().from(OWN_MAC), true, ATC_SELF},
        {"SYN from the device, tagged", tcp(1, 2, SYN).from(OWN_MAC).tag(9), true, ATC_SELF},
        {"cut behind the addresses", arp().from(OWN_MAC).cut(12), true, ATC_SELF},
        {"cut inside them", arp().from(OWN_MAC).cut(11), true, ATC_UNKNOWN_PACKET},
        {"to the device", arp().to(OWN_MAC), true, ATC_ARP},
        {"sent by the device", arp().from(OWN_MAC), false, ATC_ARP},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        clear();
        row.received ? rx(row.frame, 2, 3) : tx(row.frame);
        const State state;
        const auto *seen = static_cast<const atc_entry_t *>(
            atc_avl_first(row.received ? &state->rx_protocol_tree : &state->tx_protocol_tree));
        ASSERT_NE(seen, nullptr);
        EXPECT_EQ(seen->protocol, row.protocol);
    }
    EXPECT_EQ(rx(arp().from(OWN_MAC).tag(9), 2, 3), 0);
    EXPECT_NE(entry(2, 3, ATC_SELF), nullptr) << "its tag is not read";
}

TEST_F(PipelineTest, PermitBeatsDenyBeatsTheLimiter) {
    atc_api_set_fast_period_time(10);
    atc_api_set_protocol_deny_enable(ATC_LLDP, 1);
    rx_n(121, lldp(), 1, 1);
    pass_seconds(10);
    atc_filter_rule_t rule = {};
    rule.protocol = ATC_LLDP;
    const struct {
        const char *name;
        uint32_t action;  // of the rule added before
        int over_limit, within_limit;
    } rows[] = {{"no rule", 0, -1, 0}, {"deny", ATC_ACTION_DENY, -1, -1}, {"and permit", ATC_ACTION_PERMIT, 0, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        if (row.action != 0) {
            rule.id++;
            rule.action = row.action;
            ASSERT_EQ(atc_api_cfg_filter_rule_add(&rule, rule.id % 2), 0);
        }
        EXPECT_EQ(rx(lldp(), 1, 1), row.over_limit);
        EXPECT_EQ(rx(lldp(), 2, 1), row.within_limit);
    }
    EXPECT_EQ(entry(1, 1, ATC_LLDP)->stat.count, 124u) << "dropped packets count";
}

TEST_F(PipelineTest, NoMemoryForTheManualCaptureEndsThePacket) {
    const atc_filter_rule_t any = {};
    fake().fail(Call::alloc, 1, true);
    EXPECT_EQ(atc_api_set_cap_start(&any, 5), 0);
    EXPECT_EQ(rx(arp()), -1);
    EXPECT_EQ(state()->rx_stat.count, 0u);
    fake().fail_none();
    EXPECT_EQ(rx(arp()), 0);
    EXPECT_EQ(state()->rx_stat.count, 1u);
    EXPECT_EQ(state()->cap_count, 4u);
}

TEST_F(PipelineTest, AManualCaptureThatIsClearedBeginsANewFile) {
    const atc_filter_rule_t any = {};
    atc_api_set_cap_start(&any, 4);
    rx_n(2, arp());
    EXPECT_EQ(atc_api_set_cap_clear(), 0);
    EXPECT_EQ(atc_api_get_cap_is_exist(), 0);
    rx(arp());
    EXPECT_EQ(atc_api_get_cap_is_exist(), 1);
    EXPECT_EQ(state()->cap_len, 24 + 16 + arp().size());
    rx_n(2, arp());
    EXPECT_EQ(state()->cap_len, 24 + 2 * (16 + arp().size())) << "the budget was four";
    EXPECT_EQ(state()->cap_enable, 0);
}

TEST_F(PipelineTest, AKnownFlowAllocatesNothing) {
    rx(arp(), 1, 1);
    tx(arp());
    const uint32_t before = fake().calls(Call::alloc);
    rx_n(100, arp(), 1, 1);
    tx_n(100, arp());
    EXPECT_EQ(fake().calls(Call::alloc), before);
}

}  // namespace
