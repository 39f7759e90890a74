// SPDX-License-Identifier: Apache-2.0
#include "atc/rule_match.h"

#include <arpa/inet.h>
#include <string.h>

#include "atc/state/context.h"

namespace {

constexpr uint32_t BITS_MAX = 128;  // of the longest address

bool any_rule_matches(uint32_t action, const atc_pkt_info_t *pkt) ATC_REQUIRES(g_atc_lock);
template <uint32_t size>
bool prefix_matches(const uint8_t (&rule)[size], const uint8_t *pkt, uint32_t bits);
bool ipv4_matches(uint32_t rule, uint32_t pkt, uint32_t bits);

// A member that the rule leaves at 0 matches any packet.
template <typename value_t>
bool value_matches(value_t rule, value_t pkt) {
    return rule == 0 || rule == pkt;
}

}  // namespace

int atc_filter_rule_check_ex(const atc_filter_rule_t *rule, const atc_pkt_info_t *pkt) {
    return atc_rule_match(rule, pkt) && (rule->pkt_len == 0 || rule->pkt_len < pkt->pkt_len) ? 1 : 0;
}

bool atc_rule_match(const atc_filter_rule_t *rule, const atc_pkt_info_t *pkt) {
    return value_matches(rule->direction, pkt->direction) && value_matches(rule->vlan, pkt->vlan) &&
           value_matches(rule->port, pkt->port) && value_matches(rule->protocol, pkt->protocol) &&
           value_matches(rule->eth_type, pkt->eth_type) && value_matches(rule->aux_match, pkt->aux_match) &&
           prefix_matches(rule->src_mac, pkt->src_mac, rule->src_mac_masklen) &&
           prefix_matches(rule->dst_mac, pkt->dst_mac, rule->dst_mac_masklen) &&
           ipv4_matches(rule->src_ipv4, pkt->src_ipv4, rule->src_ipv4_masklen) &&
           ipv4_matches(rule->dst_ipv4, pkt->dst_ipv4, rule->dst_ipv4_masklen) &&
           prefix_matches(rule->src_ipv6, pkt->src_ipv6, rule->src_ipv6_masklen) &&
           prefix_matches(rule->dst_ipv6, pkt->dst_ipv6, rule->dst_ipv6_masklen) &&
           value_matches(rule->dst_port, pkt->dst_port) && value_matches(rule->src_port, pkt->src_port);
}

bool atc_rule_masks_fit(const atc_filter_rule_t *rule) {
    return rule->src_mac_masklen <= sizeof(rule->src_mac) * 8 && rule->dst_mac_masklen <= sizeof(rule->dst_mac) * 8 &&
           rule->src_ipv4_masklen <= sizeof(rule->src_ipv4) * 8 &&
           rule->dst_ipv4_masklen <= sizeof(rule->dst_ipv4) * 8 &&
           rule->src_ipv6_masklen <= sizeof(rule->src_ipv6) * 8 && rule->dst_ipv6_masklen <= sizeof(rule->dst_ipv6) * 8;
}

int atc_filter_rule_check_permit(const atc_pkt_info_t *pkt) {
    return any_rule_matches(ATC_ACTION_PERMIT, pkt) ? 1 : 0;
}

int atc_filter_rule_check_deny(const atc_pkt_info_t *pkt) {
    return any_rule_matches(ATC_ACTION_DENY, pkt) ? 1 : 0;
}

int atc_cmp_by_masklen(const uint8_t *a, const uint8_t *b, uint32_t bits) {
    if (bits > BITS_MAX) {
        return -1;
    }
    const uint32_t whole = bits / 8;
    for (uint32_t i = 0; i < whole; i++) {
        if (a[i] != b[i]) {
            return a[i] > b[i] ? 1 : -1;
        }
    }
    const uint8_t mask = atc_partial_mask(bits);
    if (mask == 0) {
        return 0;  // the byte behind the prefix may not exist
    }
    const int left = a[whole] & mask;
    const int right = b[whole] & mask;
    return (left > right) - (left < right);
}

namespace {

// The verdict is the same in whatever order the rules are asked.
bool any_rule_matches(uint32_t action, const atc_pkt_info_t *pkt) {
    const auto is_match = [pkt](const atc_filter_record_t *record) {
        return atc_filter_rule_check_ex(&record->rule, pkt) == 1;
    };
    atc_rule_index_t *index = atc_rule_index_of(action);
    if (atc_rule_index_is_whole(index)) [[likely]] {
        return atc_rule_index_find(index, pkt, is_match) != nullptr;
    }
    for (atc_list_t &head : g_atc_global.filter_list) {
        const auto *rule =
            atc_list_find<atc_filter_record_t>(&head, [action, is_match](const atc_filter_record_t *record) {
                return record->rule.action == action && is_match(record);
            });
        if (rule != nullptr) {
            return true;
        }
    }
    return false;
}

// An address of all zero bytes matches any, whatever its mask; a mask of 0 bits asks for the whole address; one that is
// longer than the address matches nothing.
template <uint32_t size>
bool prefix_matches(const uint8_t (&rule)[size], const uint8_t *pkt, uint32_t bits) {
    static constexpr uint8_t any[size] = {};
    if (memcmp(rule, any, size) == 0) {
        return true;
    }
    if (bits > size * 8) {
        return false;
    }
    return atc_cmp_by_masklen(rule, pkt, bits == 0 ? size * 8 : bits) == 0;
}

bool ipv4_matches(uint32_t rule, uint32_t pkt, uint32_t bits) {
    if (rule == 0) {
        return true;
    }
    const uint32_t numbers[] = {htonl(rule), htonl(pkt)};
    uint8_t bytes[2][sizeof(uint32_t)];
    memcpy(bytes, numbers, sizeof(bytes));
    return prefix_matches(bytes[0], bytes[1], bits);
}

}  // namespace
