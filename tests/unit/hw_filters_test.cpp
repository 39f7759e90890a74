// The operator's hardware filters: what goes to the chip, and keeping the list and the chip in step.
#include <cstring>

#include "chip_text.h"
#include "fixture.h"

namespace {

using HwFilters = ModuleTest;

atc_filter_rule_t filter(uint32_t id, uint32_t port = 7) {
    atc_filter_rule_t rule = {};
    rule.id = id;
    rule.port = port;
    rule.action = ATC_HW_ACTION_DENY;
    return rule;
}

TEST_F(HwFilters, SendsEveryMemberUnderItsMask) {
    using rule_t = atc_filter_rule_t;
    const struct {
        const char *name;
        void (*change)(rule_t *);
        const char *chip;
    } rows[] = {
        {"port alone", [](rule_t *) {}, "| 100 113:80002 | 7"},
        {"action 3", [](rule_t *rule) { rule->action = 3; }, "| 106 113:80004 | 7"},
        {"address without prefix", [](rule_t *rule) { rule->src_mac[5] = 1; }, "0=000000000001/0 | 100 113:80002 | 7"},
        {"everything",
         [](rule_t *rule) {
             std::memset(rule->src_mac, 1, 6);
             std::memset(rule->dst_mac, 2, 6);
             std::memset(rule->src_ipv6, 3, 16);
             std::memset(rule->dst_ipv6, 4, 16);
             rule->src_ipv4 = 0x01020304, rule->src_ipv4_masklen = 32;
             rule->dst_ipv4 = 0x05060708, rule->dst_ipv4_masklen = 31;
             rule->src_mac_masklen = 48, rule->dst_mac_masklen = 1;
             rule->src_ipv6_masklen = 128, rule->dst_ipv6_masklen = 127;
             rule->vlan = 4095, rule->eth_type = 0x86dd, rule->ip_protocol = 255;
             rule->src_port = 1, rule->dst_port = 65535;
         },
         "0=010101010101/48 1=020202020202/1 4=4095 5=34525 2=01020304/32 3=05060708/31 "
         "2=03030303030303030303030303030303/128 3=04040404040404040404040404040404/127 6=255 9=1 10=65535 "
         "| 100 113:80002 | 7"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        atc_filter_rule_t rule = filter(5);
        row.change(&rule);
        ASSERT_EQ(atc_api_cfg_hw_filter_rule_add(&rule), 0);
        EXPECT_EQ(chip_texts(), std::vector<std::string>{row.chip});
        EXPECT_EQ(rule.sdk_id, fake().chip().at(0).entry_id);
        EXPECT_EQ(atc_api_cfg_hw_filter_rule_del(5), 0);
        EXPECT_TRUE(fake().chip().empty());
    }
}

TEST_F(HwFilters, RefusesWithoutAskingTheChip) {
    atc_filter_rule_t first = filter(5);
    ASSERT_EQ(atc_api_cfg_hw_filter_rule_add(&first), 0);
    void (*const rows[])(atc_filter_rule_t *) = {
        [](atc_filter_rule_t *rule) { rule->id = 5; },  // in use
        [](atc_filter_rule_t *rule) { rule->action = 0; },
        [](atc_filter_rule_t *rule) { rule->action = 4; },
        [](atc_filter_rule_t *rule) { rule->src_mac_masklen = 49; },
        [](atc_filter_rule_t *rule) { rule->dst_ipv4_masklen = 33; },
        [](atc_filter_rule_t *rule) { rule->dst_ipv6_masklen = 256 + 64; },  // fits in a byte
    };
    for (const auto &change : rows) {
        atc_filter_rule_t rule = filter(6, 8);
        change(&rule);
        EXPECT_EQ(atc_api_cfg_hw_filter_rule_add(&rule), -1) << "row " << &change - rows;
    }
    EXPECT_EQ(fake().calls(Call::chip_set), 1U);
    EXPECT_TRUE(alarms().empty());
}

TEST_F(HwFilters, FailuresLeaveListAndChipInStep) {
    for (Call kind : {Call::alloc, Call::chip_set, Call::chip_delete, Call::chip_entry_id}) {
        sweep(kind, [] {
            bool all = true;
            for (uint32_t id : {1U, 2U, 3U}) {
                atc_filter_rule_t rule = filter(id, id);
                all = atc_api_cfg_hw_filter_rule_add(&rule) == 0 && rule.sdk_id != 0 && all;
            }
            return atc_api_cfg_hw_filter_rule_del(2) == 0 && all;
        });
    }
}

}  // namespace
