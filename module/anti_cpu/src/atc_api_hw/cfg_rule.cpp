// SPDX-License-Identifier: Apache-2.0
// cfg_rule.cpp: the members, masks and operations of the operator's hardware filters.
//
// The record that installed a filter rebuilds its description, so nothing but sdk_id is ever written to it.
#include "atc_api_hw/cfg_rule.h"

#include "atc/rule_match.h"
#include "atc_api_hw/driver_lists.h"

namespace {

using masklen_fn_t = uint32_t (*)(const atc_filter_rule_t *rule);

struct cfg_item_t {
    atc_hw_member_t member;
    masklen_fn_t masklen;  // prefix length in bits; null = every bit must match
};

// In the order in which the items are sent.
constexpr cfg_item_t ITEMS[] = {
    {ATC_HW_RULE_SRC_MAC, [](const atc_filter_rule_t *rule) -> uint32_t { return rule->src_mac_masklen; }},
    {ATC_HW_RULE_DST_MAC, [](const atc_filter_rule_t *rule) -> uint32_t { return rule->dst_mac_masklen; }},
    {ATC_HW_RULE_VLAN, nullptr},
    {ATC_HW_RULE_ETH_TYPE, nullptr},
    {ATC_HW_RULE_SRC_IPV4, [](const atc_filter_rule_t *rule) -> uint32_t { return rule->src_ipv4_masklen; }},
    {ATC_HW_RULE_DST_IPV4, [](const atc_filter_rule_t *rule) -> uint32_t { return rule->dst_ipv4_masklen; }},
    {ATC_HW_RULE_SRC_IPV6, [](const atc_filter_rule_t *rule) -> uint32_t { return rule->src_ipv6_masklen; }},
    {ATC_HW_RULE_DST_IPV6, [](const atc_filter_rule_t *rule) -> uint32_t { return rule->dst_ipv6_masklen; }},
    {ATC_HW_RULE_IP_PROTOCOL, nullptr},
    {ATC_HW_RULE_SRC_PORT, nullptr},
    {ATC_HW_RULE_DST_PORT, nullptr},
};

struct cfg_action_t {
    uint32_t action;  // ATC_HW_ACTION_*
    uint16_t op;      // operation without values
    uint32_t kind;    // value of ATC_HW_OP_KIND
};

constexpr cfg_action_t ACTIONS[] = {
    {ATC_HW_ACTION_DENY, 100, 80002},
    {ATC_HW_ACTION_2, 101, 80003},
    {ATC_HW_ACTION_3, 106, 80004},
};

int build(atc_hw_lists_t *lists, const atc_filter_rule_t *rule, atc_hw_port_kind_t kind) ATC_REQUIRES(g_atc_lock);
const cfg_action_t *action_of(const atc_filter_rule_t *rule);
void add_match(atc_hw_lists_t *lists, const cfg_item_t *item, const atc_filter_rule_t *rule);

}  // namespace

int atc_hw_cfg_filter_add(atc_filter_rule_t *rule) {
    atc_hw_lists_t lists;
    if (build(&lists, rule, ATC_HW_INSTALL) != 0) {
        return -1;
    }
    const int result = atc_hw_lists_install(&lists);
    if (result >= 0) {
        rule->sdk_id = atc_hw_lists_entry_id(&lists);
    }
    return result;
}

int atc_hw_cfg_filter_del(atc_filter_rule_t *rule) {
    atc_hw_lists_t lists;
    if (build(&lists, rule, ATC_HW_DELETE) != 0) {
        return -1;
    }
    const int result = atc_hw_lists_delete(&lists);
    if (result >= 0) {
        rule->sdk_id = 0;
    }
    return result;
}

bool atc_hw_cfg_filter_is_placeable(const atc_filter_rule_t *rule) {
    atc_hw_lists_t lists;
    return build(&lists, rule, ATC_HW_INSTALL) == 0;
}

namespace {

// Returns 0, or -1 for a rule that cannot be described.
int build(atc_hw_lists_t *lists, const atc_filter_rule_t *rule, atc_hw_port_kind_t kind) {
    const cfg_action_t *action = action_of(rule);
    if (action == nullptr || !atc_rule_masks_fit(rule)) {
        return -1;
    }
    atc_hw_lists_init(lists);
    for (const cfg_item_t &item : ITEMS) {
        if (atc_hw_member_is_set(&item.member, rule)) {
            add_match(lists, &item, rule);
        }
    }
    atc_hw_lists_op(lists, action->op, nullptr);
    atc_hw_lists_op(lists, ATC_HW_OP_KIND, &action->kind);
    return atc_hw_fill_port(lists->port, &lists->port_len, rule->port, kind);
}

const cfg_action_t *action_of(const atc_filter_rule_t *rule) {
    for (const cfg_action_t &action : ACTIONS) {
        if (action.action == rule->action) {
            return &action;
        }
    }
    return nullptr;
}

void add_match(atc_hw_lists_t *lists, const cfg_item_t *item, const atc_filter_rule_t *rule) {
    if (item->masklen == nullptr) {
        atc_hw_lists_match(lists, &item->member, rule, ATC_HW_MASK_EXACT);
        return;
    }
    uint8_t mask[ATC_HW_VALUE_SIZE] = {};
    if (const uint32_t bits = item->masklen(rule); bits != 0) {
        atc_masklen_to_mask(mask, bits);
    }
    atc_hw_lists_match(lists, &item->member, rule, mask);
}

}  // namespace
