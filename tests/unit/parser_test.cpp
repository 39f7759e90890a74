// The parser: the class of every rule and of its neighbours, the descriptor's members, frames cut at every length.
#include "atc/parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "atc/protocol.h"
#include "frames.h"

namespace {

constexpr uint16_t HOST_VLAN = 99;

using Classes = std::map<uint32_t, uint32_t>;

constexpr uint32_t NONE = ATC_UNKNOWN_PACKET;
constexpr uint32_t IP4 = ATC_UNKNOWN_IPV4;
constexpr uint32_t IP6 = ATC_UNKNOWN_IPV6;

struct Parsed {
    int result;
    atc_pkt_info_t info;
};

atc_pkt_info_t fresh() {
    atc_pkt_info_t info = {};
    info.direction = ATC_DIRECTION_RX;
    info.port = 7;
    info.vlan = HOST_VLAN;
    return info;
}

Parsed parse(const Frame &frame) {
    Parsed parsed = {0, fresh()};
    parsed.result = atc_packet_parser(frame.exact().get(), frame.size(), &parsed.info);
    return parsed;
}

uint32_t class_of(const Frame &frame) {
    return parse(frame).info.protocol;
}

uint32_t look_up(const Classes &classes, uint32_t key, uint32_t otherwise) {
    auto found = classes.find(key);
    return found == classes.end() ? otherwise : found->second;
}

}  // namespace

TEST(parser, every_ether_type) {
    // The body is zero: version 0 of a BPDU, no known subtype or opcode, IP of no version, tags around an empty LLC.
    const Classes classes = {
        {0x0800, 0},         {0x86DD, 0},         {0x0806, ATC_ARP},  {0x0842, ATC_STP},
        {0x8863, ATC_PPPOE}, {0x8864, ATC_PPPOE}, {0x88CC, ATC_LLDP}, {0x888E, ATC_DOT1X},
    };
    Frame frame = eth(0);
    for (uint32_t type = 1501; type <= 0xFFFF; ++type) {
        frame.eth_type(static_cast<uint16_t>(type));
        ASSERT_EQ(class_of(frame), look_up(classes, type, ATC_UNKNOWN_PACKET)) << std::hex << type;
    }
}

TEST(parser, every_value_of_the_byte_that_decides) {
    const Classes versions = {{0, ATC_STP}, {2, ATC_RSTP}, {3, ATC_MSTP}};
    Classes opcodes = {{39, ATC_APS}, {40, ATC_ERPS}};
    for (uint32_t opcode : {1u, 2u, 3u, 4u, 5u, 33u, 35u, 37u, 42u, 43u, 45u, 46u, 47u}) {
        opcodes[opcode] = ATC_Y1731;
    }
    Classes syn;
    Classes versions_of_ip;
    Classes more_fragments;
    for (uint32_t value = 0; value < 256; ++value) {
        syn[value] = (value & 0x02) != 0 ? ATC_TCP_SYN : ATC_BGP;
        versions_of_ip[value] = value >> 4 == 4 ? ATC_OSPFV2 : value >> 4 == 6 ? ATC_UNKNOWN_IPV6 : 0;
        more_fragments[value] = (value & 0x20) != 0 ? ATC_UNKNOWN_IP_FRAGMENT : ATC_UNKNOWN_IPV4;
    }
    const Classes ipv4_protocols = {{1, ATC_ICMPV4}, {2, ATC_IGMP},    {6, ATC_UNKNOWN_TCP}, {17, ATC_UNKNOWN_UDP},
                                    {46, ATC_RSVP},  {89, ATC_OSPFV2}, {103, ATC_PIM4},      {112, ATC_VRRP}};
    // Behind the IPv6 header there are zeros, so a hop-by-hop header leads to another one, which is not skipped.
    const Classes next_headers = {
        {6, ATC_UNKNOWN_TCP}, {17, ATC_UNKNOWN_UDP}, {58, ATC_UNKNOWN_ICMPV6}, {89, ATC_OSPFV3}, {103, ATC_PIM6}};
    const Classes icmpv6_types = {{128, ATC_ICMPV6_REQUEST}, {129, ATC_ICMPV6_REPLY},   {130, ATC_MLD_QUERY},
                                  {131, ATC_MLD_V1REPORT},   {132, ATC_MLD_V1LEAVE},    {143, ATC_MLD_V2REPORT},
                                  {133, ATC_ICMPV6_RS},      {134, ATC_ICMPV6_RA},      {135, ATC_ICMPV6_NS},
                                  {136, ATC_ICMPV6_NA},      {137, ATC_ICMPV6_REDIRECT}};
    const struct {
        const char *what;
        Frame frame;
        uint32_t offset;
        Classes classes;
        uint32_t otherwise;
    } rows[] = {
        {"bpdu version, LLC", bpdu(0), 2, versions, NONE},
        {"bpdu version, EtherType", eth(0x0842), 2, versions, NONE},
        {"slow subtype", slow(0), 0, {{1, ATC_LACP}, {3, ATC_DOT3AH}}, NONE},
        {"cfm opcode", cfm(0), 1, opcodes, NONE},
        {"DSAP", llc(0), uint32_t(-3), {{0x42, ATC_STP}, {0xFE, ATC_ISIS}}, NONE},
        {"IPv4 protocol", ipv4(0), 9, ipv4_protocols, IP4},
        {"fragment's protocol", ipv4(0).more_fragments(), 9, ipv4_protocols, ATC_UNKNOWN_IP_FRAGMENT},
        {"last fragment's protocol", ipv4(0).fragment_offset(0x1FFF), 9, ipv4_protocols, IP4},
        {"fragment flags", ipv4(50), 6, more_fragments, 0},
        {"fragment offset", ipv4(50), 7, {}, IP4},
        {"IP version", ipv4(89).pad(80).payload(6, {44}), 0, versions_of_ip, 0},
        {"IP version, other type", ipv4(89).pad(80).payload(6, {44}).eth_type(0x86DD), 0, versions_of_ip, 0},
        {"next header", ipv6(0), 6, next_headers, IP6},
        {"next header behind options", ipv6(0).hop_by_hop(), 40, next_headers, IP6},
        {"ICMPv6 type", icmpv6(0), 40, icmpv6_types, ATC_UNKNOWN_ICMPV6},
        {"flags beat the port", tcp(51000, 179), 33, syn, 0},
        {"flags beat the port, IPv6", tcp6(179, 51000), 53, syn, 0},
    };
    for (const auto &row : rows) {
        for (uint32_t value = 0; value < 256; ++value) {
            Frame frame = row.frame;
            frame.payload(row.offset, {static_cast<uint8_t>(value)});
            EXPECT_EQ(class_of(frame), look_up(row.classes, value, row.otherwise)) << row.what << " " << value;
        }
    }
}

// The rules of the ports as they are told: in order, either port.
struct PortRule {
    std::vector<uint16_t> ports;
    uint32_t protocol;
};

const std::vector<PortRule> udp_rules = {
    {{123}, ATC_NTP},   {{1812, 1813}, ATC_RADIUS},    {{67, 68}, ATC_DHCP},   {{546, 547}, ATC_DHCPV6},
    {{646}, ATC_LDP},   {{3784, 4784, 3785}, ATC_BFD}, {{161, 162}, ATC_SNMP}, {{69}, ATC_TFTP},
    {{49}, ATC_TACACS}, {{3503}, ATC_MPLSOAM},         {{520}, ATC_RIP},       {{521}, ATC_RIPNG},
    {{53}, ATC_DNS},
};
const std::vector<PortRule> tcp_rules = {
    {{646}, ATC_LDP}, {{179}, ATC_BGP}, {{23}, ATC_TELNET}, {{22}, ATC_SSH}, {{20, 21}, ATC_FTP}, {{49}, ATC_TACACS},
};

uint32_t by_rules(const std::vector<PortRule> &rules, uint32_t sport, uint32_t dport, uint32_t otherwise) {
    for (const PortRule &rule : rules) {
        for (uint16_t port : rule.ports) {
            if (port == sport || port == dport) {
                return rule.protocol;
            }
        }
    }
    return otherwise;
}

void expect_classes_of_ports(uint32_t sport, uint32_t dport) {
    static Frame datagram = udp();
    static Frame segment = tcp();
    auto bytes = {static_cast<uint8_t>(sport >> 8), static_cast<uint8_t>(sport), static_cast<uint8_t>(dport >> 8),
                  static_cast<uint8_t>(dport)};
    ASSERT_EQ(class_of(datagram.set(34, bytes)), by_rules(udp_rules, sport, dport, ATC_UNKNOWN_UDP))
        << "udp " << sport << " " << dport;
    ASSERT_EQ(class_of(segment.set(34, bytes)), by_rules(tcp_rules, sport, dport, ATC_UNKNOWN_TCP))
        << "tcp " << sport << " " << dport;
}

TEST(parser, every_port_in_either_place_and_every_two_known_ones) {
    for (uint32_t port = 0; port <= 0xFFFF; ++port) {
        expect_classes_of_ports(port, 40000);
        expect_classes_of_ports(40000, port);
    }
    std::vector<uint16_t> known = {20, 21, 22, 23, 179};  // those that only TCP knows
    for (const PortRule &rule : udp_rules) {
        known.insert(known.end(), rule.ports.begin(), rule.ports.end());
    }
    for (uint16_t sport : known) {
        for (uint16_t dport : known) {
            expect_classes_of_ports(sport, dport);
        }
    }
}

TEST(parser, tags_labels_and_llc) {
    struct {
        const char *what;
        Frame frame;
        int result;
        uint32_t vlan;
        uint32_t protocol;
        uint32_t eth_type;
    } const rows[] = {
        {"priority is not the VLAN", arp().tag(4095, 0x8100, 7), 0, 4095, ATC_ARP, 0x0806},
        {"outermost tag counts", arp().tag(100, 0x88A8).tag(200), 0, 100, ATC_ARP, 0x0806},
        {"old service tag", arp().tag(300, 0x9100), 0, 300, ATC_ARP, 0x0806},
        {"four tags", udp(1, 53).tags(4), 0, 1, ATC_DNS, 0x0800},
        {"five tags", arp().tags(5), -1, 1, 0, 0},
        {"five labels", arp().mpls(5), -1, HOST_VLAN, 0, 0},
        {"four tags, four labels", arp().tags(4).mpls(4), 0, 1, ATC_ARP, 0x0806},
        {"tag behind a label", arp().mpls(2).tag(77), 0, 77, ATC_ARP, 0x0806},
        {"five tags among labels", arp().tags(4).mpls(1).tag(5), -1, 1, 0, 0},
        {"length 0", bpdu(2).set(12, {0, 0}), 0, HOST_VLAN, ATC_RSTP, 0x0042},
        {"length 1500", bpdu(2).set(12, {0x05, 0xDC}), 0, HOST_VLAN, ATC_RSTP, 0x0042},
        {"length 1501", bpdu(2).set(12, {0x05, 0xDD}), 0, HOST_VLAN, ATC_UNKNOWN_PACKET, 1501},
        {"SNAP behind a tag", udp(1, 69).tag(8).snap(), 0, 8, ATC_TFTP, 0x0800},
        {"SNAP type is no length", arp().snap().eth_type(0x0042).payload(2, {3}), 0, HOST_VLAN, ATC_MSTP, 0x0042},
        {"SNAP type is no tag", arp().snap().eth_type(0x8100), 0, HOST_VLAN, ATC_UNKNOWN_PACKET, 0x8100},
    };
    for (const auto &row : rows) {
        Parsed parsed = parse(row.frame);
        EXPECT_EQ(parsed.result, row.result) << row.what;
        EXPECT_EQ(parsed.info.vlan, row.vlan) << row.what;
        EXPECT_EQ(parsed.info.protocol, row.protocol) << row.what;
        EXPECT_EQ(parsed.info.eth_type, row.eth_type) << row.what;
    }
}

// Compares whole descriptors, so a member that should have stayed zero is seen.
void expect_info(const char *what, const Frame &frame, const atc_pkt_info_t &expected) {
    auto bytes = [](const atc_pkt_info_t &info) {
        const auto *first = reinterpret_cast<const uint8_t *>(&info);
        return std::vector<uint8_t>(first, first + sizeof info);
    };
    EXPECT_EQ(bytes(parse(frame).info), bytes(expected)) << what;
}

TEST(parser, descriptor_of_whole_frames) {
    const uint8_t sender[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    const uint8_t own[6] = {0x02, 0, 0, 0, 0, 0x01};
    const uint8_t peer[16] = {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8};
    const uint8_t group[16] = {0xFF, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x16};

    atc_pkt_info_t frame = fresh();
    frame.src_type = ATC_SRC_MAC;
    std::memcpy(frame.src_mac, sender, 6);
    std::memcpy(frame.dst_mac, own, 6);
    frame.hdr_offset = 14;
    frame.eth_type = 0x88CC;
    frame.protocol = ATC_LLDP;
    frame.pkt_len = 1600;
    expect_info("lldp", lldp().to(OWN_MAC).pad(1600), frame);

    atc_pkt_info_t segment = frame;
    segment.src_type = ATC_SRC_IPV4;
    segment.hdr_offset = 14 + 4 + 24 + 20;
    segment.vlan = 100;
    segment.eth_type = 0x0800;
    segment.protocol = ATC_TCP_SYN;
    segment.ip_protocol = 6;
    segment.src_ipv4 = 0xC0A80A01;
    segment.dst_ipv4 = 0x0A0000FE;
    segment.src_port = 51000;
    segment.dst_port = 179;
    segment.pkt_len = 62;
    expect_info("tcp with options",
                tcp(51000, 179, SYN | ACK).src_ip("192.168.10.1").dst_ip("10.0.0.254").options(1).tag(100), segment);

    atc_pkt_info_t report = frame;
    report.src_type = ATC_SRC_IPV6;
    report.hdr_offset = 14 + 40 + 16;
    report.eth_type = 0x86DD;
    report.protocol = ATC_MLD_V2REPORT;
    report.ip_protocol = 58;
    std::memcpy(report.src_ipv6, peer, 16);
    std::memcpy(report.dst_ipv6, group, 16);
    report.src_port = 0x8F07;
    report.pkt_len = 14 + 40 + 16 + 24;
    expect_info("mld report behind options",
                icmpv6(143, 7).src_ip("fe80::102:304:506:708").dst_ip("ff02::16").hop_by_hop(1), report);
}

TEST(parser, header_length_is_used_as_given) {
    // 0x4000 is the header's first two bytes, 38 its total length, 0x0A00 and 1 the source address.
    struct {
        uint8_t words;
        uint32_t src_port, dst_port, hdr_offset;
    } const rows[] = {
        {0, 0x4000, 38, 14 + 8}, {3, 0x0A00, 1, 26 + 8}, {5, 1000, 2000, 34 + 8}, {9, 0, 0, 50 + 8}, {15, 0, 0, 74 + 8},
    };
    for (const auto &row : rows) {
        atc_pkt_info_t info = parse(udp(1000, 2000).header_words(row.words)).info;
        EXPECT_EQ(info.src_port, row.src_port) << int{row.words};
        EXPECT_EQ(info.dst_port, row.dst_port) << int{row.words};
        EXPECT_EQ(info.hdr_offset, row.hdr_offset) << int{row.words};
    }
}

// From 'len' bytes on a frame is of class 'protocol'.
struct Step {
    uint32_t len;
    uint32_t protocol;
};

void expect_steps(const std::string &what, const Frame &whole, const std::vector<Step> &steps) {
    size_t step = 0;
    for (uint32_t len = 0; len <= whole.size(); ++len) {
        if (step + 1 < steps.size() && steps[step + 1].len == len) {
            ++step;
        }
        Parsed parsed = parse(Frame(whole).cut(len));
        EXPECT_EQ(parsed.result, 0) << what << " cut at " << len;
        EXPECT_EQ(parsed.info.protocol, steps[step].protocol) << what << " cut at " << len;
        EXPECT_EQ(parsed.info.pkt_len, len) << what;
    }
}

TEST(parser, every_class_and_variant_cut_at_every_length) {
    constexpr uint32_t WHOLE = 0;  // stands for the frame's own class
    const std::pair<std::vector<uint16_t>, std::vector<Step>> kinds[] = {
        {{4, 6, 7, 8, 57, 58}, {{0, NONE}, {14, WHOLE}}},
        {{1, 2, 3}, {{0, NONE}, {20, WHOLE}}},
        {{5, 9, 10}, {{0, NONE}, {15, WHOLE}}},
        {{11, 12, 13}, {{0, NONE}, {16, WHOLE}}},
        {{14, 16, 17, 19, 21, 22, 23, 24}, {{0, NONE}, {14, IP4}, {34, WHOLE}}},
        {{15, 18, 20}, {{0, NONE}, {14, IP6}, {54, WHOLE}}},
        {{25, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36},
         {{0, NONE}, {14, IP6}, {54, ATC_UNKNOWN_ICMPV6}, {56, WHOLE}}},
        {{37, 38, 39, 40, 42, 43, 44, 45, 47, 48, 50}, {{0, NONE}, {14, IP4}, {34, ATC_UNKNOWN_UDP}, {38, WHOLE}}},
        {{41, 49}, {{0, NONE}, {14, IP6}, {54, ATC_UNKNOWN_UDP}, {58, WHOLE}}},
        {{46, 51, 52, 53, 54, 55, 56}, {{0, NONE}, {14, IP4}, {34, ATC_UNKNOWN_TCP}, {48, WHOLE}}},
    };
    size_t count = 0;
    for (const auto &[ids, kind] : kinds) {
        for (uint16_t id : ids) {
            std::vector<Step> steps = kind;
            steps.back().protocol = id == ATC_SELF ? uint32_t{ATC_ARP} : id;
            expect_steps("class " + std::to_string(id), frame_of_class(id), steps);
            ++count;
        }
    }
    EXPECT_EQ(count, 58u);

    const std::pair<Frame, std::vector<Step>> variants[] = {
        {arp().tag(5), {{0, NONE}, {18, ATC_ARP}}},
        {arp().tags(4).mpls(4), {{0, NONE}, {46, ATC_ARP}}},
        {lldp().snap(), {{0, NONE}, {22, ATC_LLDP}}},
        {eth(0x0842).payload(2, {3}), {{0, NONE}, {17, ATC_MSTP}}},
        {udp(1, 53).options(10), {{0, NONE}, {14, IP4}, {34, ATC_UNKNOWN_UDP}, {78, ATC_DNS}}},
        {udp6(1, 53).hop_by_hop(2), {{0, NONE}, {14, IP6}, {56, ATC_UNKNOWN_UDP}, {82, ATC_DNS}}},
        {icmpv6(135).hop_by_hop(), {{0, NONE}, {14, IP6}, {56, ATC_UNKNOWN_ICMPV6}, {64, ATC_ICMPV6_NS}}},
        {ipv6(103).hop_by_hop(255), {{0, NONE}, {14, IP6}, {56, ATC_PIM6}}},
        {ipv6(89).eth_type(0x0800), {{0, NONE}, {14, IP4}, {15, IP6}, {54, ATC_OSPFV3}}},
        {ipv4(2).eth_type(0x86DD), {{0, NONE}, {14, IP6}, {15, IP4}, {34, ATC_IGMP}}},
        {ipv4(2).ip_version(5), {{0, NONE}, {14, IP4}, {15, 0}}},
        {udp(1, 2).header_words(15), {{0, NONE}, {14, IP4}, {34, ATC_UNKNOWN_UDP}}},
    };
    for (const auto &[frame, steps] : variants) {
        expect_steps(testing::PrintToString(frame), frame, steps);
    }
}

TEST(parser, members_whose_bytes_are_there_stay) {
    constexpr uint32_t NEVER = 1000;
    const struct {
        Frame frame;
        uint32_t vlan, ip_protocol, src_ip, dst_ip, src_port, dst_port;  // length from which on each is there
    } rows[] = {
        {tcp().tag(8).tag(9), 16, 32, 38, 42, 44, 46},
        {tcp(), NEVER, 24, 30, 34, 36, 38},
        {udp6(), NEVER, 21, 38, 54, 56, 58},
        {udp6().hop_by_hop(), NEVER, 56, 38, 54, 64, 66},
        {icmpv6(135, 9), NEVER, 21, 38, 54, 56, NEVER},
    };
    for (const auto &row : rows) {
        const atc_pkt_info_t whole = parse(row.frame).info;
        for (uint32_t len = 0; len <= row.frame.size(); ++len) {
            SCOPED_TRACE(testing::PrintToString(row.frame) + " cut at " + std::to_string(len));
            const atc_pkt_info_t info = parse(Frame(row.frame).cut(len)).info;
            const auto expect_from = [&](uint32_t first, auto atc_pkt_info_t::*member) {
                const atc_pkt_info_t none = {};
                const auto &expected = (len >= first ? whole : none).*member;
                EXPECT_EQ(std::memcmp(&(info.*member), &expected, sizeof expected), 0) << "there from " << first;
            };
            expect_from(6, &atc_pkt_info_t::dst_mac);
            expect_from(12, &atc_pkt_info_t::src_mac);
            expect_from(row.ip_protocol, &atc_pkt_info_t::ip_protocol);
            expect_from(row.src_ip, &atc_pkt_info_t::src_ipv4);
            expect_from(row.src_ip, &atc_pkt_info_t::src_ipv6);
            expect_from(row.dst_ip, &atc_pkt_info_t::dst_ipv4);
            expect_from(row.dst_ip, &atc_pkt_info_t::dst_ipv6);
            expect_from(row.src_port, &atc_pkt_info_t::src_port);
            expect_from(row.dst_port, &atc_pkt_info_t::dst_port);
            EXPECT_EQ(info.src_type, len < 12 ? 0 : len < row.src_ip ? 1 : whole.src_type);
            EXPECT_EQ(info.vlan, len < row.vlan ? HOST_VLAN : 8);
        }
    }
}

TEST(parser, layers_read_nothing_behind_the_end_from_any_offset) {
    const struct {
        uint16_t (*layer)(const uint8_t *, uint32_t, atc_pkt_info_t *);
        uint16_t eth_type;
        uint32_t behind_the_end;
    } rows[] = {{atc_packet_parser_tcp, 0, ATC_UNKNOWN_TCP}, {atc_packet_parser_udp, 0, ATC_UNKNOWN_UDP},
                {atc_packet_parser_ip, 0x0800, IP4},         {atc_packet_parser_ip, 0x86DD, IP6},
                {atc_packet_parser_eth, 0x0042, NONE},       {atc_packet_parser_eth, 0x8902, NONE}};
    for (const Frame &frame : {tcp(1, 23), udp6(1, 53).hop_by_hop(255).cut(80), cfm(40), bpdu(3)}) {
        auto block = frame.exact();
        for (const auto &row : rows) {
            for (uint32_t offset = 0; offset <= 0xFFFF; ++offset) {
                atc_pkt_info_t info = fresh();
                info.hdr_offset = static_cast<uint16_t>(offset);
                info.eth_type = row.eth_type;
                ASSERT_EQ(row.layer(block.get(), frame.size(), &info), info.protocol) << offset;
                ASSERT_TRUE(offset < frame.size() || info.protocol == row.behind_the_end) << offset;
            }
        }
    }
}
