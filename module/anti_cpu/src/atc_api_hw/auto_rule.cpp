// SPDX-License-Identifier: Apache-2.0
// auto_rule.cpp: which members of a packet an automatic deny rule matches, and the rule's way into and out of the chip.
//
// Per-source rules carry the source's address besides what names the protocol. Client ports are left out, so that a
// flood from ever new client ports is one rule.
#include "atc_api_hw/auto_rule.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "atc/protocol.h"
#include "atc_api_hw/driver_lists.h"

namespace {

enum condition_t : uint8_t {
    NEVER,
    SET,
    SOURCE,  // set, and the rule is one source's
    KNOWN,   // a transport port by which the parser tells protocols apart
};

// Every member of an automatic rule, in the order in which its items are sent.
constexpr atc_hw_member_t MEMBERS[] = {
    ATC_HW_RULE_DST_MAC,  ATC_HW_RULE_SRC_MAC,     ATC_HW_RULE_VLAN,     ATC_HW_RULE_ETH_TYPE, ATC_HW_RULE_SRC_IPV4,
    ATC_HW_RULE_SRC_IPV6, ATC_HW_RULE_IP_PROTOCOL, ATC_HW_RULE_SRC_PORT, ATC_HW_RULE_DST_PORT,
};

struct group_t {
    uint16_t first;  // protocol ids
    uint16_t last;
    condition_t conditions[std::size(MEMBERS)];
};

// The first row that holds a protocol counts.
constexpr group_t GROUPS[] = {
    // clang-format off
    //                                       dst_mac src_mac vlan eth    src_ipv4 src_ipv6 ip_proto src_port dst_port
    {ATC_STP,          ATC_ISIS,            {SET,    SOURCE, SET, NEVER, NEVER,   NEVER,   NEVER,   NEVER,   NEVER}},
    {ATC_ARP,          ATC_Y1731,           {NEVER,  SOURCE, SET, SET,   NEVER,   NEVER,   NEVER,   NEVER,   NEVER}},
    {ATC_UNKNOWN_IPV4, ATC_UNKNOWN_ICMPV6,  {NEVER,  NEVER,  SET, SET,   SOURCE,  SOURCE,  SET,     NEVER,   NEVER}},
    {ATC_MLD_QUERY,    ATC_ICMPV6_REDIRECT, {NEVER,  NEVER,  SET, SET,   SOURCE,  SOURCE,  SET,     SET,     NEVER}},
    {ATC_UNKNOWN_UDP,  ATC_UNKNOWN_UDP,     {NEVER,  NEVER,  SET, SET,   SOURCE,  SOURCE,  SET,     NEVER,   NEVER}},
    {ATC_UNKNOWN_TCP,  ATC_TCP_SYN,         {NEVER,  NEVER,  SET, SET,   SOURCE,  SOURCE,  SET,     NEVER,   NEVER}},
    {0,                UINT16_MAX,          {NEVER,  NEVER,  SET, SET,   SOURCE,  SOURCE,  SET,     KNOWN,   KNOWN}},
    // clang-format on
};

// Operations of every automatic rule, in order, before that of its kind. What they ask of the chip is the driver's own.
constexpr uint16_t OPERATIONS[] = {100, 121};
constexpr uint32_t KIND_AUTOMATIC = 80001;

int build(atc_hw_lists_t *lists, const atc_filter_rule_t *rule, atc_hw_port_kind_t kind, atc_filter_rule_t *matched)
    ATC_REQUIRES(g_atc_lock);
const group_t *group_of(uint16_t protocol);
bool holds(condition_t condition, const atc_hw_member_t *member, const atc_filter_rule_t *rule);
void copy_member(atc_filter_rule_t *to, const atc_filter_rule_t *from, const atc_hw_member_t *member);

}  // namespace

int atc_hw_filter_add(atc_filter_rule_t *rule) {
    const atc_filter_rule_t packet = *rule;
    *rule = {};
    rule->src_rule = packet.src_rule;
    rule->protocol = packet.protocol;

    atc_hw_lists_t lists;
    if (build(&lists, &packet, ATC_HW_INSTALL, rule) != 0) {
        return -1;
    }
    rule->port = packet.port;
    const int result = atc_hw_lists_install(&lists);
    if (result >= 0) {
        rule->sdk_id = atc_hw_lists_entry_id(&lists);
        rule->stat_id = atc_hw_lists_stat_id(&lists);
    }
    return result;
}

int atc_hw_filter_del(atc_filter_rule_t *rule) {
    atc_hw_lists_t lists;
    if (build(&lists, rule, ATC_HW_DELETE, nullptr) != 0) {
        return -1;
    }
    const int result = atc_hw_lists_delete(&lists);
    if (result >= 0) {
        rule->sdk_id = 0;
    }
    return result;
}

namespace {

// Builds the description of 'rule' and copies the members that it matches into '*matched' (when given). Returns 0, or
// -1 when the port has no usable members.
int build(atc_hw_lists_t *lists, const atc_filter_rule_t *rule, atc_hw_port_kind_t kind, atc_filter_rule_t *matched) {
    atc_hw_lists_init(lists);
    const group_t *group = group_of(rule->protocol);
    for (size_t i = 0; i < std::size(MEMBERS); i++) {
        if (!holds(group->conditions[i], &MEMBERS[i], rule)) {
            continue;
        }
        atc_hw_lists_match(lists, &MEMBERS[i], rule, ATC_HW_MASK_EXACT);
        if (matched != nullptr) {
            copy_member(matched, rule, &MEMBERS[i]);
        }
    }
    for (uint16_t operation : OPERATIONS) {
        atc_hw_lists_op(lists, operation, nullptr);
    }
    atc_hw_lists_op(lists, ATC_HW_OP_KIND, &KIND_AUTOMATIC);
    return atc_hw_fill_port(lists->port, &lists->port_len, rule->port, kind);
}

const group_t *group_of(uint16_t protocol) {
    return std::ranges::find_if(
        GROUPS, [protocol](const group_t &group) { return protocol >= group.first && protocol <= group.last; });
}

bool holds(condition_t condition, const atc_hw_member_t *member, const atc_filter_rule_t *rule) {
    switch (condition) {
        case NEVER:
            return false;
        case SET:
            return atc_hw_member_is_set(member, rule);
        case SOURCE:
            return rule->src_rule == 1 && atc_hw_member_is_set(member, rule);
        case KNOWN:
            break;
    }
    uint16_t port;
    memcpy(&port, reinterpret_cast<const uint8_t *>(rule) + member->offset, sizeof(port));
    return atc_l4port_match(port) == 1;
}

void copy_member(atc_filter_rule_t *to, const atc_filter_rule_t *from, const atc_hw_member_t *member) {
    memcpy(reinterpret_cast<uint8_t *>(to) + member->offset, reinterpret_cast<const uint8_t *>(from) + member->offset,
           member->len);
}

}  // namespace
