// SPDX-License-Identifier: Apache-2.0
#include "console/match_fields.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace host::console {

namespace {

constexpr uint32_t kBoth = kFieldSoftware | kFieldHardware;

// A member takes one value that is not 0: 0 stands for "any".
template <auto member>
bool store_number(atc_filter_rule_t &rule, const Value &value) {
    auto &place = rule.*member;
    if (place != 0 || value.number == 0) {
        return false;
    }
    place = static_cast<std::remove_reference_t<decltype(place)>>(value.number);
    return true;
}

bool is_zero(std::span<const uint8_t> bytes) {
    return std::ranges::all_of(bytes, [](uint8_t byte) { return byte == 0; });
}

template <typename Length>
bool store_bytes(std::span<uint8_t> place, Length &length, const Prefix &prefix) {
    if (!is_zero(place) || is_zero(std::span(prefix.address.bytes).first(place.size()))) {
        return false;
    }
    std::memcpy(place.data(), prefix.address.bytes.data(), place.size());
    length = static_cast<Length>(prefix.length);
    return true;
}

bool store_ipv4(uint32_t &place, uint8_t &length, const Prefix &prefix) {
    if (place != 0 || ipv4_number(prefix.address) == 0) {
        return false;
    }
    place = ipv4_number(prefix.address);
    length = static_cast<uint8_t>(prefix.length);
    return true;
}

bool store_source(atc_filter_rule_t &rule, const Value &value) {
    switch (value.prefix.address.type) {
        case ATC_SRC_MAC:
            return store_bytes(rule.src_mac, rule.src_mac_masklen, value.prefix);
        case ATC_SRC_IPV4:
            return store_ipv4(rule.src_ipv4, rule.src_ipv4_masklen, value.prefix);
        default:
            return store_bytes(rule.src_ipv6, rule.src_ipv6_masklen, value.prefix);
    }
}

bool store_destination(atc_filter_rule_t &rule, const Value &value) {
    switch (value.prefix.address.type) {
        case ATC_SRC_MAC:
            return store_bytes(rule.dst_mac, rule.dst_mac_masklen, value.prefix);
        case ATC_SRC_IPV4:
            return store_ipv4(rule.dst_ipv4, rule.dst_ipv4_masklen, value.prefix);
        default:
            return store_bytes(rule.dst_ipv6, rule.dst_ipv6_masklen, value.prefix);
    }
}

}  // namespace

const std::vector<MatchField> &match_fields() {
    using Rule = atc_filter_rule_t;
    static const std::vector<MatchField> fields = {
        {"direction", "direction", kFieldSoftware, "received or sent", store_number<&Rule::direction>},
        {"port", "port", kBoth, "logical port, or trunk for a hardware filter", store_number<&Rule::port>},
        {"vlan", "vlan", kBoth, "VLAN of the packet", store_number<&Rule::vlan>},
        {"protocol", "protocol", kFieldSoftware, "protocol class", store_number<&Rule::protocol>},
        {"eth-type", "eth-type", kBoth, "EtherType behind the tags", store_number<&Rule::eth_type>},
        {"ip-protocol", "byte", kFieldHardware, "IPv4 protocol or IPv6 next header", store_number<&Rule::ip_protocol>},
        {"source", "prefix", kBoth, "sender's MAC, IPv4 or IPv6 address; once each", store_source},
        {"dest", "prefix", kBoth, "receiver's MAC, IPv4 or IPv6 address; once each", store_destination},
        {"source-port", "l4-port", kBoth, "TCP or UDP port of the sender", store_number<&Rule::src_port>},
        {"dest-port", "l4-port", kBoth, "TCP or UDP port of the receiver", store_number<&Rule::dst_port>},
        {"longer-than", "bytes", kFieldSoftware, "packets of more than these bytes (rules only)",
         store_number<&Rule::pkt_len>},
        {"aux", "byte", kFieldSoftware, "a mark that no packet carries: matches none", store_number<&Rule::aux_match>},
    };
    return fields;
}

}  // namespace host::console
