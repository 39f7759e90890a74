#include "packet_flow.h"

#include <cstring>

#include "atc/parser.h"
#include "atc/protocol.h"

namespace host {

namespace {

constexpr uint32_t kVlanMask = 0xfff;  // IEEE 802.1Q 9.6
constexpr size_t kSourceOffset = 6;    // of a frame; IEEE 802.3 3.2

}  // namespace

// As the module takes a received packet.
FlowKey PacketFlow::of(const Packet &packet, uint32_t logical_port) const {
    atc_pkt_info_t info;
    atc_packet_begin(&info, ATC_DIRECTION_RX, logical_port, vlan_ & kVlanMask);
    if (packet.len >= kSourceOffset + device_.size() &&
        std::memcmp(packet.data + kSourceOffset, device_.data(), device_.size()) == 0) {
        info.protocol = ATC_SELF;
    } else {
        atc_packet_parser(packet.data, packet.len, &info);
    }
    return {logical_port, info.vlan, info.protocol};
}

}  // namespace host
