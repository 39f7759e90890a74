// SPDX-License-Identifier: Apache-2.0
// The operator's hardware filters: what goes to the chip, and keeping the list and the chip in step.
#include <algorithm>
#include <cstring>

#include "atc/trunk.h"
#include "fixture.h"

namespace {

using HwFilters = ModuleTest;
using Change = void (*)(atc_filter_rule_t *rule);

atc_filter_rule_t filter(uint32_t id, uint32_t port = 7) {
    atc_filter_rule_t rule = {};
    rule.id = id;
    rule.port = port;
    rule.action = ATC_HW_ACTION_DENY;
    return rule;
}

bool is_listed(uint32_t id) {
    return atc_list_find<atc_hw_cfg_filter_t>(
               &g_atc_global.hw_cfg_filter_list,
               [id](const atc_hw_cfg_filter_t *record) { return record->rule.id == id; }) != nullptr;
}

bool is_in_chip(uint32_t port) {
    return std::ranges::any_of(
        fake().rules, [end = "| " + std::to_string(port)](const auto &rule) { return rule.first.ends_with(end); });
}

TEST_F(HwFilters, SendsEveryMemberUnderItsMask) {
    const std::pair<Change, const char *> rows[] = {
        {[](auto *) {}, "| 100 113:80002 | 7"},
        {[](auto *rule) { rule->action = 2; }, "| 101 113:80003 | 7"},
        {[](auto *rule) { rule->action = 3; }, "| 106 113:80004 | 7"},
        {[](auto *rule) { rule->src_mac[5] = 1; }, "0=000000000001/0 | 100 113:80002 | 7"},  // no prefix
        {[](auto *rule) {
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
    for (const auto &[change, chip] : rows) {
        SCOPED_TRACE(chip);
        atc_filter_rule_t rule = filter(5);
        change(&rule);
        ASSERT_EQ(atc_api_cfg_hw_filter_rule_add(&rule), 0);
        EXPECT_EQ(chip_texts(), Lines{chip});
        EXPECT_EQ(rule.sdk_id, fake().chip().at(0).entry_id);
        fake().fail(Call::chip_delete, 1);
        EXPECT_EQ(atc_api_cfg_hw_filter_rule_del(5), -1) << "the chip keeps it, and so does the list";
        EXPECT_EQ(atc_api_cfg_hw_filter_rule_del(5), 0);
        EXPECT_TRUE(fake().rules.empty());
    }
}

TEST_F(HwFilters, RefusesWithoutAskingTheChip) {
    atc_filter_rule_t first = filter(5);
    ASSERT_EQ(atc_api_cfg_hw_filter_rule_add(&first), 0);
    EXPECT_EQ(atc_trunk_add_pro(40, 3), 0);
    atc_trunk_del_pro(40, 3);
    const Change rows[] = {
        [](auto *rule) { rule->id = 5; },  // in use
        [](auto *rule) { rule->action = 0; },
        [](auto *rule) { rule->action = 4; },
        [](auto *rule) { rule->src_mac_masklen = 49; },
        [](auto *rule) { rule->dst_ipv4_masklen = 33; },
        [](auto *rule) { rule->dst_ipv6_masklen = 256 + 64; },  // fits in a byte
        [](auto *rule) { rule->port = 40; },                    // a trunk without members
    };
    for (const Change &change : rows) {
        atc_filter_rule_t rule = filter(6, 8);
        change(&rule);
        EXPECT_EQ(atc_api_cfg_hw_filter_rule_add(&rule), -1) << "row " << &change - rows;
    }
    EXPECT_EQ(atc_api_cfg_hw_filter_rule_add(nullptr), -1);
    EXPECT_EQ(atc_api_cfg_hw_filter_rule_del(6), -1);
    EXPECT_EQ(fake().calls(Call::chip_set), 1U);
    EXPECT_EQ(alarms(), Lines{});
}

TEST_F(HwFilters, FailuresLeaveListAndChipInStep) {
    sweep({Call::alloc, Call::chip_set, Call::chip_delete, Call::chip_entry_id}, [] {
        bool all = true;
        for (uint32_t id : {1U, 2U, 3U}) {
            atc_filter_rule_t rule = filter(id, id);
            const int result = atc_api_cfg_hw_filter_rule_add(&rule);
            all = told(result, is_listed(id)) && told(result, is_in_chip(id)) && rule.sdk_id != 0 && all;
        }
        const bool was_listed = is_listed(2);
        const int result = atc_api_cfg_hw_filter_rule_del(2);
        return told(result, was_listed && !is_listed(2)) && all;
    });
}

}  // namespace
