// SPDX-License-Identifier: Apache-2.0
#include "atc/rule_mask.h"

#include <arpa/inet.h>
#include <string.h>

namespace {

template <uint32_t size>
void prefix_mask(const uint8_t (&rule)[size], uint8_t (&mask)[size], uint32_t bits);
uint32_t ipv4_mask(uint32_t rule, uint32_t bits);

template <typename value_t>
value_t value_mask(value_t rule) {
    return static_cast<value_t>(rule == 0 ? 0 : -1);
}

}  // namespace

void atc_rule_mask(const atc_filter_rule_t *rule, atc_filter_rule_t *mask) {
    *mask = {};
    mask->direction = value_mask(rule->direction);
    mask->vlan = value_mask(rule->vlan);
    mask->port = value_mask(rule->port);
    mask->protocol = value_mask(rule->protocol);
    mask->eth_type = value_mask(rule->eth_type);
    mask->aux_match = value_mask(rule->aux_match);
    prefix_mask(rule->src_mac, mask->src_mac, rule->src_mac_masklen);
    prefix_mask(rule->dst_mac, mask->dst_mac, rule->dst_mac_masklen);
    mask->src_ipv4 = ipv4_mask(rule->src_ipv4, rule->src_ipv4_masklen);
    mask->dst_ipv4 = ipv4_mask(rule->dst_ipv4, rule->dst_ipv4_masklen);
    prefix_mask(rule->src_ipv6, mask->src_ipv6, rule->src_ipv6_masklen);
    prefix_mask(rule->dst_ipv6, mask->dst_ipv6, rule->dst_ipv6_masklen);
    mask->dst_port = value_mask(rule->dst_port);
    mask->src_port = value_mask(rule->src_port);
}

int atc_masklen_to_mask(uint8_t *mask, uint32_t bits) {
    if (mask == nullptr) {
        return -1;
    }
    const uint32_t whole = bits / 8;
    for (uint32_t i = 0; i < whole; i++) {
        mask[i] = 0xFF;
    }
    mask[whole] = atc_partial_mask(bits);
    return 0;
}

namespace {

// The bits of an address that a rule compares: none of one that is all zero bytes, all of one with a mask of 0 bits.
template <uint32_t size>
void prefix_mask(const uint8_t (&rule)[size], uint8_t (&mask)[size], uint32_t bits) {
    static constexpr uint8_t any[size] = {};
    if (memcmp(rule, any, size) != 0) {
        uint8_t bytes[size + 1] = {};
        atc_masklen_to_mask(bytes, bits == 0 || bits > size * 8 ? size * 8 : bits);
        memcpy(mask, bytes, size);
    }
}

uint32_t ipv4_mask(uint32_t rule, uint32_t bits) {
    uint8_t bytes[sizeof(uint32_t)];
    uint8_t mask[sizeof(uint32_t)] = {};
    memcpy(bytes, &rule, sizeof(bytes));
    prefix_mask(bytes, mask, bits);
    uint32_t number;
    memcpy(&number, mask, sizeof(number));
    return ntohl(number);
}

}  // namespace
