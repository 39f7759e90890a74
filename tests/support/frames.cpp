// SPDX-License-Identifier: Apache-2.0
#include "frames.h"

#include "sample_frames.h"

namespace {

using Bytes = Frame::Bytes;

Bytes operator+(Bytes left, const Bytes &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// Any frame from the sender to the device.
Frame framed(uint32_t type, const Bytes &payload, uint32_t payload_at = 14, uint32_t l4 = 0) {
    Frame frame(Bytes(12) + Bytes{high(type), low(type)} + payload, payload_at, l4);
    return frame.from(SENDER_MAC).to(OWN_MAC);
}

Bytes udp_header(uint32_t sport, uint32_t dport) {
    return Bytes{high(sport), low(sport), high(dport), low(dport), 0, 18} + Bytes(12);
}

Bytes tcp_header(uint32_t sport, uint32_t dport, uint8_t flags) {
    return {high(sport), low(sport), high(dport), low(dport), 0, 0, 0, 1, 0, 0, 0, 2, 0x50, flags, 2, 0, 0, 0, 0, 0};
}

}  // namespace

void PrintTo(const Frame &frame, std::ostream *out) {
    *out << frame.size() << " bytes";
    char text[4];
    for (uint32_t i = 0; i < frame.size(); ++i) {
        std::snprintf(text, sizeof text, " %02x", frame.data()[i]);
        *out << text;
    }
}

Frame eth(uint32_t type, const Bytes &payload) {
    return framed(type, payload);
}

Frame llc(uint8_t dsap, const Bytes &payload) {
    return framed(static_cast<uint32_t>(payload.size() + 3), Bytes{dsap, dsap, 3} + payload, 17);
}

Frame bpdu(uint8_t version) {
    const Bytes head = {0, 0, version, static_cast<uint8_t>(version == 0 ? 0 : 2)};
    return llc(0x42, head + Bytes(version == 0 ? 31 : 32)).to("01:80:c2:00:00:00");
}

Frame slow(uint8_t subtype) {
    return eth(0x8809, Bytes{subtype, 1} + Bytes(108)).to("01:80:c2:00:00:02");
}

Frame cfm(uint8_t opcode) {
    return eth(0x8902, Bytes{0xA0, opcode} + Bytes(73)).to("01:80:c2:00:00:35");
}

Frame arp() {
    const Bytes sender = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 10, 0, 0, 1};
    return eth(0x0806, Bytes{0, 1, 8, 0, 6, 4, 0, 1} + sender + Bytes{0, 0, 0, 0, 0, 0, 10, 0, 0, 2})
        .to("ff:ff:ff:ff:ff:ff");
}

Frame lldp() {
    return eth(0x88CC, {2, 7, 4, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 4, 2, 7, 0x31, 6, 2, 0, 0x78, 0, 0})
        .to("01:80:c2:00:00:0e");
}

Frame ipv4(uint8_t proto, const Bytes &payload) {
    const auto length = static_cast<uint32_t>(payload.size() + 20);
    const Bytes header = {0x45, 0, high(length), low(length), 0, 1, 0, 0, 64, proto, 0, 0, 10, 0, 0, 1, 10, 0, 0, 2};
    return framed(0x0800, header + payload, 14, 34);
}

Frame ipv6(uint8_t next_header, const Bytes &payload) {
    const auto length = static_cast<uint32_t>(payload.size());
    const Bytes header = {0x60, 0, 0, 0, high(length), low(length), next_header, 64};
    return framed(0x86DD, header + Bytes(32) + payload, 14, 54).src_ip("2001:db8::1").dst_ip("2001:db8::2");
}

Frame udp(uint32_t sport, uint32_t dport) {
    return ipv4(17, udp_header(sport, dport));
}

Frame udp6(uint32_t sport, uint32_t dport) {
    return ipv6(17, udp_header(sport, dport));
}

Frame tcp(uint32_t sport, uint32_t dport, uint8_t flags) {
    return ipv4(6, tcp_header(sport, dport, flags));
}

Frame tcp6(uint32_t sport, uint32_t dport, uint8_t flags) {
    return ipv6(6, tcp_header(sport, dport, flags));
}

Frame icmp(uint8_t type, uint8_t code) {
    return ipv4(1, {type, code, 0, 0, 0, 1, 0, 1});
}

Frame icmpv6(uint8_t type, uint8_t code) {
    return ipv6(58, Bytes{type, code} + Bytes(22));
}

Frame frame_of_class(uint16_t protocol) {
    const Bytes bytes = host::sample_frame(protocol).bytes;
    const uint32_t type = bytes.at(12) * 256U + bytes.at(13);
    return Frame(bytes, type < 1536 ? 17 : 14, type == 0x0800 ? 34 : type == 0x86DD ? 54 : 0);
}
