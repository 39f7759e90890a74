// SPDX-License-Identifier: Apache-2.0
#include "sample_frames.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <span>

#include "atc/protocol.h"

namespace host {

namespace {

enum Layer : uint8_t {
    kEthernet,
    kLlc,
    kIpv4,
    kIpv6,
};

enum Trait : uint8_t {
    kPlain,
    kSyn,       // TCP's flag
    kFragment,  // IPv4, more fragments
    kNoSource,  // 0.0.0.0 or ::
    kFromSelf,  // the device's own MAC address
    kCut,       // in the middle of the EtherType
};

// Destinations. IEEE 802.1Q table 8-1, IEEE 802.3 57A.3, ISO 10589 8.4.8.
constexpr uint64_t kDevice = 0x020000000001;  // the card's own address, unless it is set
constexpr uint64_t kEveryone = 0xffffffffffff;
constexpr uint64_t kBridges = 0x0180c2000000;
constexpr uint64_t kSlow = 0x0180c2000002;
constexpr uint64_t kPortAccess = 0x0180c2000003;
constexpr uint64_t kNearestBridge = 0x0180c200000e;
constexpr uint64_t kIsisRouters = 0x0180c2000014;
constexpr uint64_t kOam = 0x0180c2000035;

constexpr uint64_t kStation = 0x001122334455;  // sends all of them
constexpr uint8_t kStationIpv4[] = {10, 0, 0, 1};
constexpr uint8_t kDeviceIpv4[] = {10, 0, 0, 2};
constexpr uint8_t kStationIpv6[] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
constexpr uint8_t kDeviceIpv6[] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};

constexpr uint8_t kTcp = 6;
constexpr uint8_t kUdp = 17;
constexpr uint8_t kIcmpv6 = 58;
constexpr size_t kShortestFrame = 60;  // bytes, without FCS

constexpr uint32_t ports(uint16_t source, uint16_t destination) {
    return uint32_t{source} << 16 | destination;
}
constexpr uint32_t from_client(uint16_t server_port) {
    return ports(40000, server_port);
}
constexpr uint32_t icmp_type(uint8_t type) {
    return uint32_t{type} << 24;
}

struct Row {  // NOLINT(clang-analyzer-optin.performance.Padding): the rows read best in this order
    uint16_t protocol;
    Layer layer;
    uint16_t type;   // EtherType, DSAP, IP protocol or next header
    uint32_t words;  // the four bytes behind those headers
    uint64_t destination = kDevice;
    Trait trait = kPlain;
    const char *kind = "";
};

constexpr Row kRows[] = {
    {ATC_STP, kLlc, 0x42, 0x00000000, kBridges},
    {ATC_RSTP, kLlc, 0x42, 0x00000202, kBridges},
    {ATC_MSTP, kLlc, 0x42, 0x00000302, kBridges},
    {ATC_LLDP, kEthernet, 0x88cc, 0x02070400, kNearestBridge},
    {ATC_ISIS, kLlc, 0xfe, 0x831b0100, kIsisRouters},
    {ATC_ARP, kEthernet, 0x0806, 0x00010800, kEveryone},
    {ATC_PPPOE, kEthernet, 0x8863, 0x11090000, kEveryone},
    {ATC_PPPOE, kEthernet, 0x8864, 0x11000001, kDevice, kPlain, "session"},
    {ATC_DOT1X, kEthernet, 0x888e, 0x02010000, kPortAccess},
    {ATC_LACP, kEthernet, 0x8809, 0x01010000, kSlow},
    {ATC_DOT3AH, kEthernet, 0x8809, 0x03010000, kSlow},
    {ATC_APS, kEthernet, 0x8902, 0xa0270000, kOam},
    {ATC_ERPS, kEthernet, 0x8902, 0xa0280000, kOam},
    {ATC_Y1731, kEthernet, 0x8902, 0xa0010000, kOam},
    {ATC_UNKNOWN_IPV4, kIpv4, 50, 0},
    {ATC_UNKNOWN_IPV6, kIpv6, 44, 0},
    {ATC_UNKNOWN_IP_FRAGMENT, kIpv4, 50, 0, kDevice, kFragment},
    {ATC_OSPFV2, kIpv4, 89, 0},
    {ATC_OSPFV3, kIpv6, 89, 0},
    {ATC_PIM4, kIpv4, 103, 0},
    {ATC_PIM6, kIpv6, 103, 0},
    {ATC_ICMPV4, kIpv4, 1, icmp_type(8)},
    {ATC_IGMP, kIpv4, 2, 0},
    {ATC_IGMP, kIpv4, 2, 0, kDevice, kNoSource, "from 0.0.0.0"},
    {ATC_RSVP, kIpv4, 46, 0},
    {ATC_VRRP, kIpv4, 112, 0},
    {ATC_UNKNOWN_ICMPV6, kIpv6, kIcmpv6, icmp_type(1)},
    {ATC_MLD_QUERY, kIpv6, kIcmpv6, icmp_type(130)},
    {ATC_MLD_V1REPORT, kIpv6, kIcmpv6, icmp_type(131)},
    {ATC_MLD_V1LEAVE, kIpv6, kIcmpv6, icmp_type(132)},
    {ATC_MLD_V2REPORT, kIpv6, kIcmpv6, icmp_type(143)},
    {ATC_MLD_V2REPORT, kIpv6, kIcmpv6, icmp_type(143), kDevice, kNoSource, "from ::"},
    {ATC_ICMPV6_REQUEST, kIpv6, kIcmpv6, icmp_type(128)},
    {ATC_ICMPV6_REPLY, kIpv6, kIcmpv6, icmp_type(129)},
    {ATC_ICMPV6_RS, kIpv6, kIcmpv6, icmp_type(133)},
    {ATC_ICMPV6_RS, kIpv6, kIcmpv6, icmp_type(133), kDevice, kNoSource, "from ::"},
    {ATC_ICMPV6_RA, kIpv6, kIcmpv6, icmp_type(134)},
    {ATC_ICMPV6_NS, kIpv6, kIcmpv6, icmp_type(135)},
    {ATC_ICMPV6_NS, kIpv6, kIcmpv6, icmp_type(135), kDevice, kNoSource, "from ::"},
    {ATC_ICMPV6_NA, kIpv6, kIcmpv6, icmp_type(136)},
    {ATC_ICMPV6_REDIRECT, kIpv6, kIcmpv6, icmp_type(137)},
    {ATC_UNKNOWN_UDP, kIpv4, kUdp, from_client(40001)},
    {ATC_UNKNOWN_UDP, kIpv6, kUdp, from_client(40001), kDevice, kPlain, "over IPv6"},
    {ATC_NTP, kIpv4, kUdp, ports(123, 123)},
    {ATC_RADIUS, kIpv4, kUdp, from_client(1812)},
    {ATC_DHCP, kIpv4, kUdp, ports(68, 67)},
    {ATC_DHCP, kIpv4, kUdp, ports(68, 67), kEveryone, kNoSource, "from 0.0.0.0"},
    {ATC_DHCPV6, kIpv6, kUdp, ports(546, 547)},
    {ATC_LDP, kIpv4, kUdp, ports(646, 646)},
    {ATC_LDP, kIpv4, kTcp, from_client(646), kDevice, kPlain, "over TCP"},
    {ATC_BFD, kIpv4, kUdp, ports(49152, 3784)},
    {ATC_SNMP, kIpv4, kUdp, from_client(161)},
    {ATC_TFTP, kIpv4, kUdp, from_client(69)},
    {ATC_TACACS, kIpv4, kTcp, from_client(49)},
    {ATC_TACACS, kIpv4, kUdp, from_client(49), kDevice, kPlain, "over UDP"},
    {ATC_MPLSOAM, kIpv4, kUdp, from_client(3503)},
    {ATC_RIP, kIpv4, kUdp, ports(520, 520)},
    {ATC_RIPNG, kIpv6, kUdp, ports(521, 521)},
    {ATC_DNS, kIpv4, kUdp, from_client(53)},
    {ATC_UNKNOWN_TCP, kIpv4, kTcp, from_client(40001)},
    {ATC_UNKNOWN_TCP, kIpv6, kTcp, from_client(40001), kDevice, kPlain, "over IPv6"},
    {ATC_TCP_SYN, kIpv4, kTcp, from_client(80), kDevice, kSyn},
    {ATC_TCP_SYN, kIpv6, kTcp, from_client(80), kDevice, kSyn, "over IPv6"},
    {ATC_BGP, kIpv4, kTcp, from_client(179)},
    {ATC_BGP, kIpv4, kTcp, ports(179, 40000), kDevice, kPlain, "from port 179"},
    {ATC_TELNET, kIpv4, kTcp, from_client(23)},
    {ATC_SSH, kIpv4, kTcp, from_client(22)},
    {ATC_FTP, kIpv4, kTcp, from_client(21)},
    {ATC_SELF, kEthernet, 0x0806, 0x00010800, kEveryone, kFromSelf},
    {ATC_UNKNOWN_PACKET, kEthernet, 0x1234, 0},
    {ATC_UNKNOWN_PACKET, kLlc, 0x42, 0x00000900, kBridges, kPlain, "BPDU of another version"},
    {ATC_UNKNOWN_PACKET, kEthernet, 0x8809, 0x0a000000, kSlow, kPlain, "slow protocol of another subtype"},
    {ATC_UNKNOWN_PACKET, kEthernet, 0x8902, 0xa0630000, kOam, kPlain, "OAM of another opcode"},
    {ATC_UNKNOWN_PACKET, kEthernet, 0x1234, 0, kDevice, kCut, "cut in front of the EtherType"},
};

consteval bool every_class_has_rows_in_order() {
    uint16_t last = 0;
    for (const Row &row : kRows) {
        const bool is_plain = *row.kind == '\0';
        if (row.protocol != last + (is_plain ? 1 : 0)) {
            return false;
        }
        last = row.protocol;
    }
    return last == ATC_PROTOCOL_COUNT;
}
static_assert(every_class_has_rows_in_order(), "a plain row for each class, with its other kinds behind it");

using Bytes = std::vector<uint8_t>;

void append(Bytes &bytes, uint64_t value, int size) {
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<uint8_t>(value >> shift));
    }
}

void append(Bytes &bytes, std::span<const uint8_t> more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

// The addresses of an IP header.
void append_addresses(Bytes &bytes, const Row &row, std::span<const uint8_t> source, std::span<const uint8_t> target) {
    append(bytes, source);
    if (row.trait == kNoSource) {
        std::fill(bytes.end() - static_cast<ptrdiff_t>(source.size()), bytes.end(), 0);
    }
    append(bytes, target);
}

// What stands behind the IP header.
Bytes transport(const Row &row) {
    constexpr size_t size = 24;
    constexpr size_t offset_place = 12;
    Bytes bytes;
    append(bytes, row.words, 4);
    bytes.resize(size);
    if (row.type == kTcp) {
        bytes[offset_place] = 0x50;
        bytes[offset_place + 1] = row.trait == kSyn ? 0x02 : 0x10;
    } else if (row.type == kUdp) {
        bytes[5] = size;
    }
    return bytes;
}

Bytes frame(const Row &row) {
    Bytes bytes;
    append(bytes, row.destination, 6);
    append(bytes, row.trait == kFromSelf ? kDevice : kStation, 6);
    const Bytes segment = transport(row);
    switch (row.layer) {
        case kEthernet:
            append(bytes, row.type, 2);
            append(bytes, row.words, 4);
            break;
        case kLlc:
            append(bytes, kShortestFrame - 14, 2);
            append(bytes, row.type, 1);
            append(bytes, row.type, 1);
            append(bytes, 0x03, 1);
            append(bytes, row.words, 4);
            break;
        case kIpv4:
            append(bytes, 0x08004500, 4);
            append(bytes, 20 + segment.size(), 2);
            append(bytes, row.trait == kFragment ? 0x00012000 : 0x00010000, 4);
            append(bytes, 0x4000 | row.type, 2);
            append(bytes, 0, 2);
            append_addresses(bytes, row, kStationIpv4, kDeviceIpv4);
            append(bytes, segment);
            break;
        case kIpv6:
            append(bytes, 0x86dd60000000, 6);
            append(bytes, segment.size(), 2);
            append(bytes, uint64_t{row.type} << 8 | 0xff, 2);
            append_addresses(bytes, row, kStationIpv6, kDeviceIpv6);
            append(bytes, segment);
            break;
    }
    bytes.resize(row.trait == kCut ? 13 : std::max(bytes.size(), kShortestFrame));
    return bytes;
}

}  // namespace

std::vector<SampleFrame> sample_frames() {
    std::vector<SampleFrame> frames;
    for (const Row &row : kRows) {
        frames.push_back({row.protocol, row.kind, frame(row)});
    }
    return frames;
}

std::vector<SampleFrame> derived_frames() {
    std::vector<SampleFrame> frames;
    for (const Row &row : kRows) {
        if (row.type != kTcp && row.type != kUdp) {
            continue;
        }
        // Of these, one is the other's likeness over the other IP.
        const bool has_one_ip = row.protocol == ATC_DHCP || row.protocol == ATC_DHCPV6 || row.protocol == ATC_RIP ||
                                row.protocol == ATC_RIPNG;
        for (const Layer layer : {kIpv4, kIpv6}) {
            if (has_one_ip && layer != row.layer) {
                continue;
            }
            for (const uint32_t words : {row.words, row.words << 16 | row.words >> 16}) {
                for (const Trait trait : {kPlain, kSyn}) {
                    frames.push_back({0, "", frame({0, layer, row.type, words, row.destination, trait})});
                }
            }
        }
    }
    return frames;
}

SampleFrame sample_frame(uint16_t protocol) {
    const Row *row = std::ranges::find(kRows, protocol, &Row::protocol);
    return row != std::end(kRows) ? SampleFrame{protocol, row->kind, frame(*row)} : SampleFrame{};
}

}  // namespace host
