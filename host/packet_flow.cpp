// SPDX-License-Identifier: Apache-2.0
#include "packet_flow.h"

#include <cstring>

#include "atc/parser.h"
#include "atc/protocol.h"

namespace host {

namespace {

constexpr uint32_t kVlanMask = 0xfff;  // IEEE 802.1Q 9.6
constexpr size_t kSourceOffset = 6;    // of a frame; IEEE 802.3 3.2

Source source_of(uint32_t type, const void *bytes, size_t size) {
    Source source;
    source.type = type;
    std::memcpy(source.bytes.data(), bytes, size);
    return source;
}

Source address_of(const atc_pkt_info_t &info) {
    switch (info.src_type) {
        case ATC_SRC_MAC:
            return source_of(ATC_SRC_MAC, info.src_mac, sizeof(info.src_mac));
        case ATC_SRC_IPV4:
            return source_of(ATC_SRC_IPV4, &info.src_ipv4, sizeof(info.src_ipv4));
        case ATC_SRC_IPV6:
            return source_of(ATC_SRC_IPV6, info.src_ipv6, sizeof(info.src_ipv6));
        default:
            return {};
    }
}

}  // namespace

bool is_from(const Packet &packet, const MacAddress &address) {
    return packet.len >= kSourceOffset + address.size() &&
           std::memcmp(packet.data + kSourceOffset, address.data(), address.size()) == 0;
}

// As the module takes a received packet.
SeenPacket PacketFlow::look(const Packet &packet, uint32_t logical_port) const {
    atc_pkt_info_t info;
    atc_packet_begin(&info, ATC_DIRECTION_RX, logical_port, vlan_ & kVlanMask);
    SeenPacket seen;
    const bool has_mac = packet.len >= kSourceOffset + device_.size();
    if (has_mac) {
        seen.mac = source_of(ATC_SRC_MAC, packet.data + kSourceOffset, device_.size());
    }
    if (is_from(packet, device_)) {
        info.protocol = ATC_SELF;
    } else {
        atc_packet_parser(packet.data, packet.len, &info);
    }
    seen.flow = {logical_port, info.vlan, info.protocol};
    seen.address = address_of(info);
    return seen;
}

}  // namespace host
