// SPDX-License-Identifier: Apache-2.0
#include "live/filter_rules.h"

#include <array>
#include <span>

#include "anti_cpu/anti_cpu.h"
#include "atc/rule_mask.h"
#include "chip/frame_key.h"

namespace host {

namespace {

constexpr uint32_t kLists = 2;

using Bytes = std::span<const uint8_t>;

// A field in the bytes of a frame, under its mask.
void put(card::KernelFilter &filter, card::Field field, Bytes value, Bytes mask) {
    const card::FieldPlace place = card::field_place(field);
    bool is_zero = true;
    for (size_t i = 0; i < value.size(); i++) {
        filter.mask.bytes[place.offset + i] = mask[i];
        filter.value.bytes[place.offset + i] = value[i] & mask[i];
        is_zero &= filter.value.bytes[place.offset + i] == 0;
    }
    if (!is_zero) {
        const auto number = static_cast<size_t>(field);
        for (kernel_key *key : {&filter.value, &filter.mask}) {
            key->presence[number / 8] |= static_cast<uint8_t>(1U << number % 8);
        }
    }
}

// Most significant byte first, as in a frame.
template <size_t size>
std::array<uint8_t, size> bytes_of(uint32_t number) {
    std::array<uint8_t, size> bytes;
    for (size_t i = size; i-- > 0; number >>= 8) {
        bytes[i] = static_cast<uint8_t>(number);
    }
    return bytes;
}

void put_u16(card::KernelFilter &filter, card::Field field, uint16_t value, uint16_t mask) {
    put(filter, field, bytes_of<2>(value), bytes_of<2>(mask));
}

void put_u32(card::KernelFilter &filter, card::Field field, uint32_t value, uint32_t mask) {
    put(filter, field, bytes_of<4>(value), bytes_of<4>(mask));
}

bool may_match(const atc_filter_rule_t &rule) {
    const bool acts = rule.action == ATC_ACTION_PERMIT || rule.action == ATC_ACTION_DENY;
    return acts && (rule.direction == 0 || rule.direction == ATC_DIRECTION_RX) && rule.aux_match == 0 &&
           rule.protocol < KERNEL_CLASSES && rule.pkt_len < KERNEL_NEVER - 1;
}

}  // namespace

std::optional<card::KernelFilter> kernel_filter(const atc_filter_rule_t &rule) {
    if (!may_match(rule)) {
        return std::nullopt;
    }
    atc_filter_rule_t mask{};
    atc_rule_mask(&rule, &mask);
    card::KernelFilter filter;
    put(filter, card::Field::kSourceMac, rule.src_mac, mask.src_mac);
    put(filter, card::Field::kDestinationMac, rule.dst_mac, mask.dst_mac);
    put_u16(filter, card::Field::kVlan, rule.vlan, mask.vlan);
    put_u16(filter, card::Field::kEtherType, rule.eth_type, mask.eth_type);
    put_u16(filter, card::Field::kSourcePort, rule.src_port, mask.src_port);
    put_u16(filter, card::Field::kDestinationPort, rule.dst_port, mask.dst_port);
    put_u32(filter, card::Field::kSourceIpv4, rule.src_ipv4, mask.src_ipv4);
    put_u32(filter, card::Field::kDestinationIpv4, rule.dst_ipv4, mask.dst_ipv4);
    put(filter, card::Field::kSourceIpv6, rule.src_ipv6, mask.src_ipv6);
    put(filter, card::Field::kDestinationIpv6, rule.dst_ipv6, mask.dst_ipv6);
    if (rule.protocol != 0) {
        filter.mask.bytes[FILTER_CLASS] = 0xff;
        filter.value.bytes[FILTER_CLASS] = static_cast<uint8_t>(rule.protocol);
    }
    if (rule.port != 0) {
        filter.mask.bytes[FILTER_PORT] = 0xff;
        filter.value.bytes[FILTER_PORT] = 1;
        filter.port = rule.port;
    }
    filter.permits = rule.action == ATC_ACTION_PERMIT;
    filter.from = rule.pkt_len == 0 ? 0 : rule.pkt_len + 1;
    return filter;
}

std::vector<card::KernelFilter> filter_rules() {
    std::vector<card::KernelFilter> filters;
    for (uint32_t list = 0; list < kLists; list++) {
        const atc_filter_node_t *first = atc_api_cfg_filter_rule_get_first(list);
        // The head of the circle, in front of the first, is no rule.
        const atc_filter_node_t *head = first->prev;
        for (const atc_filter_node_t *node = first; node != head; node = node->next) {
            if (const auto filter = kernel_filter(node->rule)) {
                filters.push_back(*filter);
            }
        }
    }
    return filters;
}

}  // namespace host
