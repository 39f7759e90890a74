// parser.cpp: the parser's layers, from the tags down to the transport header.
//
// A layer takes the view of what is left of the frame at its header, never an address by itself: a byte is read only
// where the view says that it is there. Members are filled as soon as their bytes are there, also when the rest of the
// header is cut off. src_type follows the address that was read, so a source is never an address that is missing.
#include "atc/parser.h"

#include <array>
#include <cstring>
#include <initializer_list>

#include "atc/l4_ports.h"
#include "atc/protocol.h"

namespace {

constexpr uint32_t ETH_HEADER_SIZE = 14;
constexpr uint32_t MAX_TAGS = 4;
constexpr uint32_t MAX_LABELS = 4;

// EtherTypes (IEEE 802 numbers).
constexpr uint16_t TYPE_IPV4 = 0x0800;
constexpr uint16_t TYPE_ARP = 0x0806;
constexpr uint16_t TYPE_BPDU = 0x0842;
constexpr uint16_t TYPE_VLAN = 0x8100;
constexpr uint16_t TYPE_IPV6 = 0x86DD;
constexpr uint16_t TYPE_SLOW = 0x8809;
constexpr uint16_t TYPE_MPLS = 0x8847;
constexpr uint16_t TYPE_PPPOE_DISCOVERY = 0x8863;
constexpr uint16_t TYPE_PPPOE_SESSION = 0x8864;
constexpr uint16_t TYPE_DOT1X = 0x888E;
constexpr uint16_t TYPE_SERVICE_VLAN = 0x88A8;
constexpr uint16_t TYPE_LLDP = 0x88CC;
constexpr uint16_t TYPE_CFM = 0x8902;
constexpr uint16_t TYPE_OLD_SERVICE_VLAN = 0x9100;

// Up to this value the type is the length of an LLC frame (IEEE 802.3 clause 3.2.6).
constexpr uint16_t LLC_LENGTH_MAX = 1500;
constexpr uint16_t DSAP_BPDU = 0x42;
constexpr uint16_t DSAP_SNAP = 0xAA;
constexpr uint16_t DSAP_ISIS = 0xFE;

// IPv4 protocols and IPv6 next headers (IANA protocol numbers) that lead on to another header.
constexpr uint8_t NEXT_HOP_BY_HOP = 0;
constexpr uint8_t NEXT_TCP = 6;
constexpr uint8_t NEXT_UDP = 17;
constexpr uint8_t NEXT_ICMPV6 = 58;

constexpr uint32_t IPV4_HEADER_SIZE = 20;
constexpr uint16_t IPV4_MORE_FRAGMENTS = 0x2000;
constexpr uint32_t IPV6_HEADER_SIZE = 40;
constexpr uint32_t TCP_HEADER_SIZE = 20;
constexpr uint32_t TCP_FLAGS_OFFSET = 13;
constexpr uint8_t TCP_SYN = 0x02;
constexpr uint32_t UDP_HEADER_SIZE = 8;

// Classes by the value of one byte; NO_CLASS for a value that decides nothing.
using classes_t = std::array<uint8_t, 256>;
constexpr uint8_t NO_CLASS = 0;

struct class_row_t {
    uint8_t value;
    atc_protocol_t protocol;
};

consteval classes_t classes(std::initializer_list<class_row_t> rows, uint16_t otherwise) {
    classes_t by_value;
    by_value.fill(static_cast<uint8_t>(otherwise));
    for (const class_row_t &row : rows) {
        by_value[row.value] = static_cast<uint8_t>(row.protocol);
    }
    return by_value;
}

// Protocol version of a BPDU (IEEE 802.1Q clause 14).
constexpr classes_t bpdu_classes = classes({{0, ATC_STP}, {2, ATC_RSTP}, {3, ATC_MSTP}}, ATC_UNKNOWN_PACKET);

// Subtype of a slow protocol (IEEE 802.3 annex 57A).
constexpr classes_t slow_classes = classes({{1, ATC_LACP}, {3, ATC_DOT3AH}}, ATC_UNKNOWN_PACKET);

// OpCode of an OAM frame (ITU-T G.8013/Y.1731 table 9-1).
constexpr classes_t cfm_classes = classes(
    {
        {1, ATC_Y1731},   // continuity check
        {2, ATC_Y1731},   // loopback reply
        {3, ATC_Y1731},   // loopback message
        {4, ATC_Y1731},   // link trace reply
        {5, ATC_Y1731},   // link trace message
        {33, ATC_Y1731},  // alarm indication
        {35, ATC_Y1731},  // lock
        {37, ATC_Y1731},  // test
        {39, ATC_APS},
        {40, ATC_ERPS},
        {42, ATC_Y1731},  // loss measurement reply
        {43, ATC_Y1731},  // loss measurement message
        {45, ATC_Y1731},  // one-way delay measurement
        {46, ATC_Y1731},  // delay measurement reply
        {47, ATC_Y1731},  // delay measurement message
    },
    ATC_UNKNOWN_PACKET);

constexpr classes_t ipv4_classes = classes(
    {{1, ATC_ICMPV4}, {2, ATC_IGMP}, {46, ATC_RSVP}, {89, ATC_OSPFV2}, {103, ATC_PIM4}, {112, ATC_VRRP}}, NO_CLASS);

constexpr classes_t ipv6_classes = classes({{89, ATC_OSPFV3}, {103, ATC_PIM6}}, ATC_UNKNOWN_IPV6);

// Type of an ICMPv6 message (RFC 4443, RFC 2710, RFC 4861, RFC 3810).
constexpr classes_t icmpv6_classes = classes(
    {
        {128, ATC_ICMPV6_REQUEST},
        {129, ATC_ICMPV6_REPLY},
        {130, ATC_MLD_QUERY},
        {131, ATC_MLD_V1REPORT},
        {132, ATC_MLD_V1LEAVE},
        {133, ATC_ICMPV6_RS},
        {134, ATC_ICMPV6_RA},
        {135, ATC_ICMPV6_NS},
        {136, ATC_ICMPV6_NA},
        {137, ATC_ICMPV6_REDIRECT},
        {143, ATC_MLD_V2REPORT},
    },
    ATC_UNKNOWN_ICMPV6);

// What is left of the frame from a header on.
struct view_t {
    const uint8_t *at;
    uint32_t left;  // bytes
};

// What read_tags and read_llc found.
enum layer_t {
    LAYER_WHOLE,
    LAYER_CUT,
    LAYER_TOO_MANY,  // tags or labels
};

layer_t read_tags(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info, uint16_t *type);
layer_t read_llc(view_t llc, atc_pkt_info_t *info, uint16_t *type);
uint16_t eth_class(uint16_t type, view_t body);
uint16_t parse_ipv4(view_t ip, const uint8_t *buf, uint32_t len, atc_pkt_info_t *info);
uint16_t parse_ipv6(view_t ip, const uint8_t *buf, uint32_t len, atc_pkt_info_t *info);
uint16_t parse_icmpv6(view_t icmp, atc_pkt_info_t *info);
bool read_ports(view_t l4, atc_pkt_info_t *info);
uint16_t byte_class(view_t body, uint32_t offset, const classes_t &classes);
uint16_t port_class(const atc_pkt_info_t *info, uint16_t atc_l4_port_t::*transport, uint16_t otherwise);
view_t view_at(const uint8_t *buf, uint32_t len, uint32_t offset);
uint16_t read16(const uint8_t *at);
uint32_t read32(const uint8_t *at);
void advance(atc_pkt_info_t *info, uint32_t bytes);

}  // namespace

int atc_packet_parser(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info) {
    info->hdr_offset = ETH_HEADER_SIZE;
    info->pkt_len = len;
    uint16_t type = 0;
    layer_t found = read_tags(buf, len, info, &type);
    if (found == LAYER_WHOLE && type <= LLC_LENGTH_MAX) {
        found = read_llc(view_at(buf, len, info->hdr_offset), info, &type);
    }
    if (found == LAYER_WHOLE) {
        info->eth_type = type;
        atc_packet_parser_eth(buf, len, info);
        return 0;
    }
    if (found == LAYER_CUT) {
        info->protocol = ATC_UNKNOWN_PACKET;
        return 0;
    }
    return -1;
}

uint16_t atc_packet_parser_eth(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info) {
    if (info->eth_type == TYPE_IPV4 || info->eth_type == TYPE_IPV6) {
        return atc_packet_parser_ip(buf, len, info);
    }
    info->protocol = eth_class(info->eth_type, view_at(buf, len, info->hdr_offset));
    return info->protocol;
}

uint16_t atc_packet_parser_ip(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info) {
    view_t ip = view_at(buf, len, info->hdr_offset);
    if (ip.left == 0) {
        info->protocol = info->eth_type == TYPE_IPV6 ? ATC_UNKNOWN_IPV6 : ATC_UNKNOWN_IPV4;
        return info->protocol;
    }
    switch (ip.at[0] >> 4) {
        case 4:
            return parse_ipv4(ip, buf, len, info);
        case 6:
            return parse_ipv6(ip, buf, len, info);
        default:
            return 0;
    }
}

uint16_t atc_packet_parser_tcp(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info) {
    view_t tcp = view_at(buf, len, info->hdr_offset);
    advance(info, TCP_HEADER_SIZE);
    read_ports(tcp, info);
    uint16_t protocol = ATC_UNKNOWN_TCP;
    if (tcp.left > TCP_FLAGS_OFFSET) {
        bool syn = (tcp.at[TCP_FLAGS_OFFSET] & TCP_SYN) != 0;
        protocol = syn ? uint16_t{ATC_TCP_SYN} : port_class(info, &atc_l4_port_t::tcp, ATC_UNKNOWN_TCP);
    }
    info->protocol = protocol;
    return protocol;
}

uint16_t atc_packet_parser_udp(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info) {
    view_t udp = view_at(buf, len, info->hdr_offset);
    advance(info, UDP_HEADER_SIZE);
    bool known = read_ports(udp, info);
    info->protocol = known ? port_class(info, &atc_l4_port_t::udp, ATC_UNKNOWN_UDP) : uint16_t{ATC_UNKNOWN_UDP};
    return info->protocol;
}

namespace {

// The MAC addresses and the type behind the tags and labels, at which hdr_offset is left.
layer_t read_tags(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info, uint16_t *type) {
    if (len >= 6) {
        memcpy(info->dst_mac, buf, sizeof info->dst_mac);
    }
    if (len >= 12) {
        memcpy(info->src_mac, buf + 6, sizeof info->src_mac);
        info->src_type = ATC_SRC_MAC;
    }
    if (len < ETH_HEADER_SIZE) {
        return LAYER_CUT;
    }
    uint32_t tags = 0;
    uint32_t labels = 0;
    uint16_t next = read16(buf + 12);
    while (next == TYPE_VLAN || next == TYPE_MPLS || next == TYPE_SERVICE_VLAN || next == TYPE_OLD_SERVICE_VLAN) {
        uint32_t &passed = next == TYPE_MPLS ? labels : tags;
        uint32_t most = next == TYPE_MPLS ? MAX_LABELS : MAX_TAGS;
        if (passed == most) {
            return LAYER_TOO_MANY;
        }
        ++passed;
        view_t tag = view_at(buf, len, info->hdr_offset);
        if (next != TYPE_MPLS && tags == 1 && tag.left >= 2) {
            info->vlan = read16(tag.at) % 4096;
        }
        if (tag.left < 4) {
            return LAYER_CUT;
        }
        next = read16(tag.at + 2);
        advance(info, 4);
    }
    *type = next;
    return LAYER_WHOLE;
}

// An IEEE 802.3 frame: the SNAP type, or the DSAP, takes the place of the type.
layer_t read_llc(view_t llc, atc_pkt_info_t *info, uint16_t *type) {
    if (llc.left == 0) {
        return LAYER_CUT;
    }
    if (llc.at[0] != DSAP_SNAP) {
        *type = llc.at[0];
        advance(info, 3);
        return LAYER_WHOLE;
    }
    if (llc.left < 8) {
        return LAYER_CUT;
    }
    *type = read16(llc.at + 6);
    advance(info, 8);
    return LAYER_WHOLE;
}

uint16_t eth_class(uint16_t type, view_t body) {
    switch (type) {
        case TYPE_ARP:
            return ATC_ARP;
        case DSAP_BPDU:
        case TYPE_BPDU:
            return byte_class(body, 2, bpdu_classes);
        case DSAP_ISIS:
            return ATC_ISIS;
        case TYPE_PPPOE_DISCOVERY:
        case TYPE_PPPOE_SESSION:
            return ATC_PPPOE;
        case TYPE_SLOW:
            return byte_class(body, 0, slow_classes);
        case TYPE_LLDP:
            return ATC_LLDP;
        case TYPE_DOT1X:
            return ATC_DOT1X;
        case TYPE_CFM:
            return byte_class(body, 1, cfm_classes);
        default:
            return ATC_UNKNOWN_PACKET;
    }
}

uint16_t parse_ipv4(view_t ip, const uint8_t *buf, uint32_t len, atc_pkt_info_t *info) {
    advance(info, (ip.at[0] & 0x0Fu) * 4);
    info->protocol = ATC_UNKNOWN_IPV4;
    if (ip.left >= 10) {
        info->ip_protocol = ip.at[9];
    }
    if (ip.left >= 16) {
        info->src_type = ATC_SRC_IPV4;
        info->src_ipv4 = read32(ip.at + 12);
    }
    if (ip.left < IPV4_HEADER_SIZE) {
        return info->protocol;
    }
    info->dst_ipv4 = read32(ip.at + 16);
    if (info->ip_protocol == NEXT_TCP) {
        return atc_packet_parser_tcp(buf, len, info);
    }
    if (info->ip_protocol == NEXT_UDP) {
        return atc_packet_parser_udp(buf, len, info);
    }
    uint8_t known = ipv4_classes[info->ip_protocol];
    if (known != NO_CLASS) {
        info->protocol = known;
    } else if ((read16(ip.at + 6) & IPV4_MORE_FRAGMENTS) != 0) {
        info->protocol = ATC_UNKNOWN_IP_FRAGMENT;
    }
    return info->protocol;
}

uint16_t parse_ipv6(view_t ip, const uint8_t *buf, uint32_t len, atc_pkt_info_t *info) {
    advance(info, IPV6_HEADER_SIZE);
    info->protocol = ATC_UNKNOWN_IPV6;
    if (ip.left >= 7) {
        info->ip_protocol = ip.at[6];
    }
    if (ip.left >= 24) {
        info->src_type = ATC_SRC_IPV6;
        memcpy(info->src_ipv6, ip.at + 8, sizeof info->src_ipv6);
    }
    if (ip.left < IPV6_HEADER_SIZE) {
        return info->protocol;
    }
    memcpy(info->dst_ipv6, ip.at + 24, sizeof info->dst_ipv6);
    if (info->ip_protocol == NEXT_HOP_BY_HOP) {
        view_t options = view_at(buf, len, info->hdr_offset);
        if (options.left < 2) {
            return info->protocol;
        }
        info->ip_protocol = options.at[0];
        advance(info, (options.at[1] + 1u) * 8);
    }
    switch (info->ip_protocol) {
        case NEXT_TCP:
            return atc_packet_parser_tcp(buf, len, info);
        case NEXT_UDP:
            return atc_packet_parser_udp(buf, len, info);
        case NEXT_ICMPV6:
            info->protocol = parse_icmpv6(view_at(buf, len, info->hdr_offset), info);
            break;
        default:
            info->protocol = ipv6_classes[info->ip_protocol];
            break;
    }
    return info->protocol;
}

uint16_t parse_icmpv6(view_t icmp, atc_pkt_info_t *info) {
    if (icmp.left < 2) {
        return ATC_UNKNOWN_ICMPV6;
    }
    info->src_port = read16(icmp.at);
    return icmpv6_classes[icmp.at[0]];
}

// True when both ports are there.
bool read_ports(view_t l4, atc_pkt_info_t *info) {
    if (l4.left >= 2) {
        info->src_port = read16(l4.at);
    }
    if (l4.left >= 4) {
        info->dst_port = read16(l4.at + 2);
    }
    return l4.left >= 4;
}

// The class that the byte at 'offset' decides; a frame cut before it is of no known class.
uint16_t byte_class(view_t body, uint32_t offset, const classes_t &classes) {
    if (body.left > offset) {
        return classes[body.at[offset]];
    }
    return ATC_UNKNOWN_PACKET;
}

// The class of the first row of the table that is about this transport and either port.
uint16_t port_class(const atc_pkt_info_t *info, uint16_t atc_l4_port_t::*transport, uint16_t otherwise) {
    uint32_t src = atc_l4_port_row(info->src_port);
    uint32_t dst = atc_l4_port_row(info->dst_port);
    uint16_t first = atc_l4_ports[src < dst ? src : dst].*transport;
    uint16_t second = atc_l4_ports[src < dst ? dst : src].*transport;
    if (first != 0) {
        return first;
    }
    return second != 0 ? second : otherwise;
}

view_t view_at(const uint8_t *buf, uint32_t len, uint32_t offset) {
    if (offset < len) {
        return {buf + offset, len - offset};
    }
    return {nullptr, 0};
}

uint16_t read16(const uint8_t *at) {
    return static_cast<uint16_t>((at[0] << 8) | at[1]);
}

uint32_t read32(const uint8_t *at) {
    return (uint32_t{read16(at)} << 16) | read16(at + 2);
}

void advance(atc_pkt_info_t *info, uint32_t bytes) {
    info->hdr_offset = static_cast<uint16_t>(info->hdr_offset + bytes);
}

}  // namespace
