// SPDX-License-Identifier: Apache-2.0
// parser.cpp: the parser's layers, from the tags down to the transport header.
//
// A layer takes the view of what is left of the frame at its header, never an address by itself: a byte is read only
// where the view says that it is there. Members are filled as soon as their bytes are there, also when the rest of the
// header is cut off. src_type follows the address that was read, so a source is never an address that is missing.
#include "atc/parser.h"

#include <cstring>

#include "atc/header_classes.h"
#include "atc/l4_ports.h"

namespace {

constexpr uint32_t ETH_HEADER_SIZE = 14;
constexpr uint32_t ETH_TYPE_OFFSET = 12;
constexpr uint32_t TAG_SIZE = 4;   // IEEE 802.1Q 9.3; an MPLS label (RFC 3032) likewise
constexpr uint32_t LLC_SIZE = 3;   // DSAP, SSAP, control (IEEE 802.2)
constexpr uint32_t SNAP_SIZE = 8;  // LLC, organisation, type (IEEE 802)
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

// A frame, or what is left of it from a header on.
struct view_t {
    const uint8_t *at;
    uint32_t left;  // bytes
};

// What reading tags and LLC came to.
enum layer_t {
    LAYER_WHOLE,
    LAYER_CUT,
    LAYER_TOO_MANY,  // tags or labels
};

bool is_tag(uint16_t type);
void read_macs(view_t frame, atc_pkt_info_t *info);
layer_t read_tags(view_t frame, atc_pkt_info_t *info, uint16_t *type, uint32_t *offset);
layer_t read_llc(view_t llc, uint16_t *type, uint32_t *offset);
uint16_t parse_eth(view_t frame, uint32_t offset, uint16_t type, atc_pkt_info_t *info);
uint16_t parse_ip(view_t frame, uint32_t offset, uint16_t type, atc_pkt_info_t *info);
uint16_t parse_ipv4(view_t frame, uint32_t offset, atc_pkt_info_t *info);
uint16_t parse_ipv6(view_t frame, uint32_t offset, atc_pkt_info_t *info);
uint16_t parse_tcp(view_t frame, uint32_t offset, atc_pkt_info_t *info);
uint16_t parse_udp(view_t frame, uint32_t offset, atc_pkt_info_t *info);
uint16_t parse_icmpv6(view_t frame, uint32_t offset, atc_pkt_info_t *info);
void read_ipv4(view_t ip, atc_pkt_info_t *info);
void read_ipv6(view_t ip, atc_pkt_info_t *info);
void read_ports(view_t l4, atc_pkt_info_t *info);
uint16_t byte_class(view_t body, uint32_t offset, const atc_classes_t &classes);
uint16_t port_class(const atc_pkt_info_t *info, uint16_t atc_l4_port_t::*transport, uint16_t otherwise);
view_t behind(view_t frame, uint32_t offset);
uint16_t read16(const uint8_t *at);
uint32_t read32(const uint8_t *at);
void set_offset(atc_pkt_info_t *info, uint32_t offset);
uint16_t store(uint16_t protocol, atc_pkt_info_t *info);

}  // namespace

int atc_packet_parser(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info) {
    const view_t frame = {buf, len};
    uint32_t offset = ETH_HEADER_SIZE;
    uint16_t type = 0;
    info->pkt_len = len;
    read_macs(frame, info);
    layer_t found = len < ETH_HEADER_SIZE ? LAYER_CUT : LAYER_WHOLE;
    if (found == LAYER_WHOLE) {
        type = read16(buf + ETH_TYPE_OFFSET);
        // Most frames have neither tag nor LLC header; it takes the fewest questions to see that of IPv4.
        if (type != TYPE_IPV4 && is_tag(type)) {
            found = read_tags(frame, info, &type, &offset);
        }
    }
    if (found == LAYER_WHOLE && type <= LLC_LENGTH_MAX) {
        found = read_llc(behind(frame, offset), &type, &offset);
    }
    set_offset(info, offset);
    if (found == LAYER_TOO_MANY) {
        return -1;
    }
    if (found == LAYER_CUT) {
        info->protocol = ATC_UNKNOWN_PACKET;
        return 0;
    }
    info->eth_type = type;
    store(parse_eth(frame, offset, type, info), info);
    return 0;
}

uint16_t atc_packet_parser_eth(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info) {
    return store(parse_eth({buf, len}, info->hdr_offset, info->eth_type, info), info);
}

uint16_t atc_packet_parser_ip(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info) {
    return store(parse_ip({buf, len}, info->hdr_offset, info->eth_type, info), info);
}

uint16_t atc_packet_parser_tcp(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info) {
    return store(parse_tcp({buf, len}, info->hdr_offset, info), info);
}

uint16_t atc_packet_parser_udp(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info) {
    return store(parse_udp({buf, len}, info->hdr_offset, info), info);
}

namespace {

bool is_tag(uint16_t type) {
    return type == TYPE_VLAN || type == TYPE_MPLS || type == TYPE_SERVICE_VLAN || type == TYPE_OLD_SERVICE_VLAN;
}

void read_macs(view_t frame, atc_pkt_info_t *info) {
    if (frame.left >= 6) {
        memcpy(info->dst_mac, frame.at, sizeof info->dst_mac);
    }
    if (frame.left >= 12) {
        memcpy(info->src_mac, frame.at + 6, sizeof info->src_mac);
        info->src_type = ATC_SRC_MAC;
    }
}

// The type behind tags and labels, and where it leads; where they are cut, that of the last whole one.
layer_t read_tags(view_t frame, atc_pkt_info_t *info, uint16_t *type, uint32_t *offset) {
    uint32_t tags = 0;
    uint32_t labels = 0;
    while (is_tag(*type)) {
        const bool is_label = *type == TYPE_MPLS;
        uint32_t &passed = is_label ? labels : tags;
        if (passed == (is_label ? MAX_LABELS : MAX_TAGS)) {
            return LAYER_TOO_MANY;
        }
        ++passed;
        const view_t tag = behind(frame, *offset);
        if (!is_label && tags == 1 && tag.left >= 2) {
            info->vlan = read16(tag.at) % 4096;
        }
        if (tag.left < TAG_SIZE) {
            return LAYER_CUT;
        }
        *type = read16(tag.at + 2);
        *offset += TAG_SIZE;
    }
    return LAYER_WHOLE;
}

// An IEEE 802.3 frame: the SNAP type, or the DSAP, takes the place of the type.
layer_t read_llc(view_t llc, uint16_t *type, uint32_t *offset) {
    if (llc.left == 0) {
        return LAYER_CUT;
    }
    if (llc.at[0] != DSAP_SNAP) {
        *type = llc.at[0];
        *offset += LLC_SIZE;
        return LAYER_WHOLE;
    }
    if (llc.left < SNAP_SIZE) {
        return LAYER_CUT;
    }
    *type = read16(llc.at + 6);
    *offset += SNAP_SIZE;
    return LAYER_WHOLE;
}

uint16_t parse_eth(view_t frame, uint32_t offset, uint16_t type, atc_pkt_info_t *info) {
    switch (type) {
        case TYPE_IPV4:
        case TYPE_IPV6:
            return parse_ip(frame, offset, type, info);
        case TYPE_ARP:
            return ATC_ARP;
        case DSAP_BPDU:
        case TYPE_BPDU:
            return byte_class(behind(frame, offset), 2, atc_bpdu_classes);
        case DSAP_ISIS:
            return ATC_ISIS;
        case TYPE_PPPOE_DISCOVERY:
        case TYPE_PPPOE_SESSION:
            return ATC_PPPOE;
        case TYPE_SLOW:
            return byte_class(behind(frame, offset), 0, atc_slow_classes);
        case TYPE_LLDP:
            return ATC_LLDP;
        case TYPE_DOT1X:
            return ATC_DOT1X;
        case TYPE_CFM:
            return byte_class(behind(frame, offset), 1, atc_cfm_classes);
        default:
            return ATC_UNKNOWN_PACKET;
    }
}

// The version decides, not the type; a header of neither version is of no class.
uint16_t parse_ip(view_t frame, uint32_t offset, uint16_t type, atc_pkt_info_t *info) {
    if (offset >= frame.left) {
        return type == TYPE_IPV6 ? ATC_UNKNOWN_IPV6 : ATC_UNKNOWN_IPV4;
    }
    switch (frame.at[offset] >> 4) {
        case 4:
            return parse_ipv4(frame, offset, info);
        case 6:
            return parse_ipv6(frame, offset, info);
        default:
            return 0;
    }
}

uint16_t parse_ipv4(view_t frame, uint32_t offset, atc_pkt_info_t *info) {
    const view_t ip = behind(frame, offset);
    offset += (ip.at[0] & 0x0Fu) * 4;
    set_offset(info, offset);
    read_ipv4(ip, info);
    if (ip.left < IPV4_HEADER_SIZE) {
        return ATC_UNKNOWN_IPV4;
    }
    if (info->ip_protocol == NEXT_TCP) {
        return parse_tcp(frame, offset, info);
    }
    if (info->ip_protocol == NEXT_UDP) {
        return parse_udp(frame, offset, info);
    }
    const uint8_t known = atc_ipv4_classes[info->ip_protocol];
    if (known != ATC_NO_CLASS) {
        return known;
    }
    return (read16(ip.at + 6) & IPV4_MORE_FRAGMENTS) != 0 ? ATC_UNKNOWN_IP_FRAGMENT : ATC_UNKNOWN_IPV4;
}

uint16_t parse_ipv6(view_t frame, uint32_t offset, atc_pkt_info_t *info) {
    const view_t ip = behind(frame, offset);
    offset += IPV6_HEADER_SIZE;
    set_offset(info, offset);
    read_ipv6(ip, info);
    if (ip.left < IPV6_HEADER_SIZE) {
        return ATC_UNKNOWN_IPV6;
    }
    if (info->ip_protocol == NEXT_HOP_BY_HOP) {
        const view_t options = behind(frame, offset);
        if (options.left < 2) {
            return ATC_UNKNOWN_IPV6;
        }
        info->ip_protocol = options.at[0];
        offset += (options.at[1] + 1u) * 8;
        set_offset(info, offset);
    }
    switch (info->ip_protocol) {
        case NEXT_TCP:
            return parse_tcp(frame, offset, info);
        case NEXT_UDP:
            return parse_udp(frame, offset, info);
        case NEXT_ICMPV6:
            return parse_icmpv6(frame, offset, info);
        default:
            return atc_ipv6_classes[info->ip_protocol];
    }
}

uint16_t parse_tcp(view_t frame, uint32_t offset, atc_pkt_info_t *info) {
    const view_t tcp = behind(frame, offset);
    set_offset(info, offset + TCP_HEADER_SIZE);
    read_ports(tcp, info);
    if (tcp.left <= TCP_FLAGS_OFFSET) {
        return ATC_UNKNOWN_TCP;
    }
    return (tcp.at[TCP_FLAGS_OFFSET] & TCP_SYN) != 0 ? uint16_t{ATC_TCP_SYN}
                                                     : port_class(info, &atc_l4_port_t::tcp, ATC_UNKNOWN_TCP);
}

uint16_t parse_udp(view_t frame, uint32_t offset, atc_pkt_info_t *info) {
    const view_t udp = behind(frame, offset);
    set_offset(info, offset + UDP_HEADER_SIZE);
    read_ports(udp, info);
    return udp.left >= 4 ? port_class(info, &atc_l4_port_t::udp, ATC_UNKNOWN_UDP) : uint16_t{ATC_UNKNOWN_UDP};
}

uint16_t parse_icmpv6(view_t frame, uint32_t offset, atc_pkt_info_t *info) {
    const view_t icmp = behind(frame, offset);
    if (icmp.left < 2) {
        return ATC_UNKNOWN_ICMPV6;
    }
    info->src_port = read16(icmp.at);
    return atc_icmpv6_classes[icmp.at[0]];
}

void read_ipv4(view_t ip, atc_pkt_info_t *info) {
    if (ip.left >= 10) {
        info->ip_protocol = ip.at[9];
    }
    if (ip.left >= 16) {
        info->src_type = ATC_SRC_IPV4;
        info->src_ipv4 = read32(ip.at + 12);
    }
    if (ip.left >= 20) {
        info->dst_ipv4 = read32(ip.at + 16);
    }
}

void read_ipv6(view_t ip, atc_pkt_info_t *info) {
    if (ip.left >= 7) {
        info->ip_protocol = ip.at[6];
    }
    if (ip.left >= 24) {
        info->src_type = ATC_SRC_IPV6;
        memcpy(info->src_ipv6, ip.at + 8, sizeof info->src_ipv6);
    }
    if (ip.left >= 40) {
        memcpy(info->dst_ipv6, ip.at + 24, sizeof info->dst_ipv6);
    }
}

void read_ports(view_t l4, atc_pkt_info_t *info) {
    if (l4.left >= 2) {
        info->src_port = read16(l4.at);
    }
    if (l4.left >= 4) {
        info->dst_port = read16(l4.at + 2);
    }
}

// The class that the byte at 'offset' decides; a frame cut before it is of no known class.
uint16_t byte_class(view_t body, uint32_t offset, const atc_classes_t &classes) {
    return body.left > offset ? classes[body.at[offset]] : uint16_t{ATC_UNKNOWN_PACKET};
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

view_t behind(view_t frame, uint32_t offset) {
    if (offset < frame.left) {
        return {frame.at + offset, frame.left - offset};
    }
    return {nullptr, 0};
}

uint16_t read16(const uint8_t *at) {
    return static_cast<uint16_t>((at[0] << 8) | at[1]);
}

uint32_t read32(const uint8_t *at) {
    return (uint32_t{at[0]} << 24) | (uint32_t{at[1]} << 16) | (uint32_t{at[2]} << 8) | at[3];
}

void set_offset(atc_pkt_info_t *info, uint32_t offset) {
    info->hdr_offset = static_cast<uint16_t>(offset);
}

// No class, which an IP version other than 4 and 6 gives, leaves the member alone.
uint16_t store(uint16_t protocol, atc_pkt_info_t *info) {
    if (protocol != 0) {
        info->protocol = protocol;
    }
    return protocol;
}

}  // namespace
