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

using Classes = std::map<uint32_t, uint32_t>;

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
    struct Row {
        const char *what;
        Frame frame;
        uint32_t offset;
        Classes classes;
        uint32_t otherwise;
    };
    const Classes versions = {{0, ATC_STP}, {2, ATC_RSTP}, {3, ATC_MSTP}};
    Classes opcodes = {{39, ATC_APS}, {40, ATC_ERPS}};
    for (uint32_t opcode : {1u, 2u, 3u, 4u, 5u, 33u, 35u, 37u, 42u, 43u, 45u, 46u, 47u}) {
        opcodes[opcode] = ATC_Y1731;
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
    const Row rows[] = {
        {"bpdu version, LLC", bpdu(0), 2, versions, ATC_UNKNOWN_PACKET},
        {"bpdu version, EtherType", eth(0x0842), 2, versions, ATC_UNKNOWN_PACKET},
        {"slow subtype", slow(0), 0, {{1, ATC_LACP}, {3, ATC_DOT3AH}}, ATC_UNKNOWN_PACKET},
        {"cfm opcode", cfm(0), 1, opcodes, ATC_UNKNOWN_PACKET},
        {"DSAP", llc(0), uint32_t(-3), {{0x42, ATC_STP}, {0xFE, ATC_ISIS}}, ATC_UNKNOWN_PACKET},
        {"IPv4 protocol", ipv4(0), 9, ipv4_protocols, ATC_UNKNOWN_IPV4},
        {"fragment's protocol", ipv4(0).more_fragments(), 9, ipv4_protocols, ATC_UNKNOWN_IP_FRAGMENT},
        {"last fragment's protocol", ipv4(0).fragment_offset(0x1FFF), 9, ipv4_protocols, ATC_UNKNOWN_IPV4},
        {"next header", ipv6(0), 6, next_headers, ATC_UNKNOWN_IPV6},
        {"next header behind options", ipv6(0).hop_by_hop(), 40, next_headers, ATC_UNKNOWN_IPV6},
        {"ICMPv6 type", icmpv6(0), 40, icmpv6_types, ATC_UNKNOWN_ICMPV6},
    };
    for (const Row &row : rows) {
        for (uint32_t value = 0; value < 256; ++value) {
            Frame frame = row.frame;
            frame.payload(row.offset, {static_cast<uint8_t>(value)});
            EXPECT_EQ(class_of(frame), look_up(row.classes, value, row.otherwise)) << row.what << " " << value;
        }
    }
}

TEST(parser, more_fragments_is_one_flag_of_the_field) {
    for (uint32_t field = 0; field <= 0xFFFF; ++field) {
        Frame frame = ipv4(50).payload(6, {static_cast<uint8_t>(field >> 8), static_cast<uint8_t>(field)});
        uint32_t expected = (field & 0x2000) != 0 ? ATC_UNKNOWN_IP_FRAGMENT : ATC_UNKNOWN_IPV4;
        ASSERT_EQ(class_of(frame), expected) << field;
    }
}

TEST(parser, ip_goes_by_the_version_in_the_header) {
    for (uint16_t type : {uint16_t{0x0800}, uint16_t{0x86DD}}) {
        for (uint8_t version = 0; version < 16; ++version) {
            uint32_t expected = version == 4 ? ATC_OSPFV2 : version == 6 ? ATC_UNKNOWN_IPV6 : 0;
            Parsed parsed = parse(ipv4(89).eth_type(type).ip_version(version).pad(80).payload(6, {44}));
            EXPECT_EQ(parsed.result, 0);
            EXPECT_EQ(parsed.info.protocol, expected) << version;
            EXPECT_EQ(parsed.info.src_type, version == 4 ? 2 : version == 6 ? 3 : 1) << version;
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

TEST(parser, every_port_in_either_place) {
    for (uint32_t port = 0; port <= 0xFFFF; ++port) {
        expect_classes_of_ports(port, 40000);
        expect_classes_of_ports(40000, port);
    }
}

TEST(parser, earlier_row_wins_between_two_known_ports) {
    std::vector<uint16_t> known;
    for (const auto *rules : {&udp_rules, &tcp_rules}) {
        for (const PortRule &rule : *rules) {
            known.insert(known.end(), rule.ports.begin(), rule.ports.end());
        }
    }
    ASSERT_EQ(known.size(), 26u);  // 24 ports, two of them known to both transports
    for (uint16_t sport : known) {
        for (uint16_t dport : known) {
            expect_classes_of_ports(sport, dport);
        }
    }
}

TEST(parser, syn_beats_the_ports) {
    for (uint32_t flags = 0; flags < 256; ++flags) {
        uint32_t expected = (flags & SYN) != 0 ? ATC_TCP_SYN : ATC_BGP;
        EXPECT_EQ(class_of(tcp(51000, 179, static_cast<uint8_t>(flags))), expected) << flags;
        EXPECT_EQ(class_of(tcp6(179, 51000, static_cast<uint8_t>(flags))), expected) << flags;
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
        {"no tag", arp(), 0, HOST_VLAN, ATC_ARP, 0x0806},
        {"one tag", arp().tag(100), 0, 100, ATC_ARP, 0x0806},
        {"priority is not the VLAN", arp().tag(4095, 0x8100, 7), 0, 4095, ATC_ARP, 0x0806},
        {"VLAN 0", arp().tag(0), 0, 0, ATC_ARP, 0x0806},
        {"outermost tag counts", arp().tag(100, 0x88A8).tag(200), 0, 100, ATC_ARP, 0x0806},
        {"old service tag", arp().tag(300, 0x9100), 0, 300, ATC_ARP, 0x0806},
        {"no tag type", arp().tag(300, 0x9200), 0, HOST_VLAN, ATC_UNKNOWN_PACKET, 0x9200},
        {"four tags", udp(1, 53).tags(4), 0, 1, ATC_DNS, 0x0800},
        {"five tags", arp().tags(5), -1, 1, 0, 0},
        {"five tags, cut in the fifth", arp().tags(5).cut(30), -1, 1, 0, 0},
        {"one label", tcp(1, 22).mpls(), 0, HOST_VLAN, ATC_SSH, 0x0800},
        {"four labels", arp().mpls(4).eth_type(0x88CC), 0, HOST_VLAN, ATC_LLDP, 0x88CC},
        {"five labels", arp().mpls(5), -1, HOST_VLAN, 0, 0},
        {"four tags, four labels", arp().tags(4).mpls(4), 0, 1, ATC_ARP, 0x0806},
        {"tag behind a label", arp().mpls(2).tag(77), 0, 77, ATC_ARP, 0x0806},
        {"five tags among labels", arp().tags(4).mpls(1).tag(5), -1, 1, 0, 0},
        {"bpdu", bpdu(2).tag(5), 0, 5, ATC_RSTP, 0x0042},
        {"length 0", bpdu(2).set(12, {0, 0}), 0, HOST_VLAN, ATC_RSTP, 0x0042},
        {"length 1500", bpdu(2).set(12, {0x05, 0xDC}), 0, HOST_VLAN, ATC_RSTP, 0x0042},
        {"length 1501", bpdu(2).set(12, {0x05, 0xDD}), 0, HOST_VLAN, ATC_UNKNOWN_PACKET, 1501},
        {"SNAP", lldp().snap(), 0, HOST_VLAN, ATC_LLDP, 0x88CC},
        {"SNAP behind a tag", udp(1, 69).tag(8).snap(), 0, 8, ATC_TFTP, 0x0800},
        {"SNAP type is no length", arp().snap().eth_type(0x0042).payload(2, {3}), 0, HOST_VLAN, ATC_MSTP, 0x0042},
        {"SNAP type is no tag", arp().snap().eth_type(0x8100), 0, HOST_VLAN, ATC_UNKNOWN_PACKET, 0x8100},
        {"EtherType 0x00FE's neighbour", llc(0xFF), 0, HOST_VLAN, ATC_UNKNOWN_PACKET, 0x00FF},
    };
    for (const auto &row : rows) {
        Parsed parsed = parse(row.frame);
        EXPECT_EQ(parsed.result, row.result) << row.what;
        EXPECT_EQ(parsed.info.vlan, row.vlan) << row.what;
        EXPECT_EQ(parsed.info.protocol, row.protocol) << row.what;
        EXPECT_EQ(parsed.info.eth_type, row.eth_type) << row.what;
        EXPECT_EQ(parsed.info.src_type, 1 + (row.eth_type == 0x0800 ? 1 : 0)) << row.what;
    }
}

// Compares whole descriptors, so a member that should have stayed zero is seen.
void expect_info(const char *what, const Frame &frame, const atc_pkt_info_t &expected) {
    atc_pkt_info_t info = parse(frame).info;
    EXPECT_EQ(std::memcmp(&info, &expected, sizeof info), 0) << what;
    EXPECT_EQ(info.hdr_offset, expected.hdr_offset) << what;
    EXPECT_EQ(info.ip_protocol, expected.ip_protocol) << what;
    EXPECT_EQ(info.src_type, expected.src_type) << what;
    EXPECT_EQ(info.src_port, expected.src_port) << what;
    EXPECT_EQ(info.dst_port, expected.dst_port) << what;
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
        EXPECT_EQ(info.protocol, ATC_UNKNOWN_UDP) << int{row.words};
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
    ASSERT_GE(whole.size(), steps.back().len) << what;
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

constexpr uint32_t NONE = ATC_UNKNOWN_PACKET;
constexpr uint32_t IP4 = ATC_UNKNOWN_IPV4;
constexpr uint32_t IP6 = ATC_UNKNOWN_IPV6;

TEST(parser, every_class_cut_at_every_length) {
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
}

TEST(parser, variants_cut_at_every_length) {
    const std::pair<Frame, std::vector<Step>> rows[] = {
        {arp().tag(5), {{0, NONE}, {18, ATC_ARP}}},
        {arp().tags(4).mpls(4), {{0, NONE}, {46, ATC_ARP}}},
        {tcp(1, 23).mpls(2), {{0, NONE}, {22, IP4}, {42, ATC_UNKNOWN_TCP}, {56, ATC_TELNET}}},
        {lldp().snap(), {{0, NONE}, {22, ATC_LLDP}}},
        {isis().tag(5), {{0, NONE}, {19, ATC_ISIS}}},
        {eth(0x0842).payload(2, {3}), {{0, NONE}, {17, ATC_MSTP}}},
        {udp(1, 53).options(10), {{0, NONE}, {14, IP4}, {34, ATC_UNKNOWN_UDP}, {78, ATC_DNS}}},
        {ipv4(89).options(10), {{0, NONE}, {14, IP4}, {34, ATC_OSPFV2}}},
        {udp6(1, 53).hop_by_hop(2), {{0, NONE}, {14, IP6}, {56, ATC_UNKNOWN_UDP}, {82, ATC_DNS}}},
        {tcp6(1, 22).hop_by_hop(), {{0, NONE}, {14, IP6}, {56, ATC_UNKNOWN_TCP}, {76, ATC_SSH}}},
        {icmpv6(135).hop_by_hop(), {{0, NONE}, {14, IP6}, {56, ATC_UNKNOWN_ICMPV6}, {64, ATC_ICMPV6_NS}}},
        {ipv6(103).hop_by_hop(255), {{0, NONE}, {14, IP6}, {56, ATC_PIM6}}},
        {ipv6(89).eth_type(0x0800), {{0, NONE}, {14, IP4}, {15, IP6}, {54, ATC_OSPFV3}}},
        {ipv4(2).eth_type(0x86DD), {{0, NONE}, {14, IP6}, {15, IP4}, {34, ATC_IGMP}}},
        {ipv4(2).ip_version(5), {{0, NONE}, {14, IP4}, {15, 0}}},
        {ipv4(2).eth_type(0x86DD).ip_version(5), {{0, NONE}, {14, IP6}, {15, 0}}},
        {udp(1, 2).header_words(15), {{0, NONE}, {14, IP4}, {34, ATC_UNKNOWN_UDP}}},
    };
    for (const auto &[frame, steps] : rows) {
        expect_steps(testing::PrintToString(frame), frame, steps);
    }
}

TEST(parser, members_whose_bytes_are_there_stay) {
    struct {
        Frame frame;
        uint32_t src_type, ip_protocol;
        bool dst_mac, src_mac, src_ip, dst_ip;
        uint32_t vlan, src_port, dst_port;
    } const rows[] = {
        {tcp().cut(5), 0, 0, false, false, false, false, HOST_VLAN, 0, 0},
        {tcp().cut(6), 0, 0, true, false, false, false, HOST_VLAN, 0, 0},
        {tcp().cut(11), 0, 0, true, false, false, false, HOST_VLAN, 0, 0},
        {tcp().cut(12), 1, 0, true, true, false, false, HOST_VLAN, 0, 0},
        {tcp().tag(8).cut(15), 1, 0, true, true, false, false, HOST_VLAN, 0, 0},
        {tcp().tag(8).cut(16), 1, 0, true, true, false, false, 8, 0, 0},
        {tcp().tag(8).tag(9).cut(21), 1, 0, true, true, false, false, 8, 0, 0},
        {tcp().cut(23), 1, 0, true, true, false, false, HOST_VLAN, 0, 0},
        {tcp().cut(24), 1, 6, true, true, false, false, HOST_VLAN, 0, 0},
        {tcp().cut(29), 1, 6, true, true, false, false, HOST_VLAN, 0, 0},
        {tcp().cut(30), 2, 6, true, true, true, false, HOST_VLAN, 0, 0},
        {tcp().cut(34), 2, 6, true, true, true, true, HOST_VLAN, 0, 0},
        {tcp().cut(36), 2, 6, true, true, true, true, HOST_VLAN, 40000, 0},
        {tcp().cut(38), 2, 6, true, true, true, true, HOST_VLAN, 40000, 40001},
        {udp6().cut(20), 1, 0, true, true, false, false, HOST_VLAN, 0, 0},
        {udp6().cut(21), 1, 17, true, true, false, false, HOST_VLAN, 0, 0},
        {udp6().cut(37), 1, 17, true, true, false, false, HOST_VLAN, 0, 0},
        {udp6().cut(38), 3, 17, true, true, true, false, HOST_VLAN, 0, 0},
        {udp6().cut(54), 3, 17, true, true, true, true, HOST_VLAN, 0, 0},
        {udp6().cut(57), 3, 17, true, true, true, true, HOST_VLAN, 40000, 0},
        {udp6().hop_by_hop().cut(55), 3, 0, true, true, true, true, HOST_VLAN, 0, 0},
        {icmpv6(135, 9).cut(55), 3, 58, true, true, true, true, HOST_VLAN, 0, 0},
        {icmpv6(135, 9).cut(56), 3, 58, true, true, true, true, HOST_VLAN, 0x8709, 0},
    };
    const auto any = [](const auto &address) {
        return std::any_of(std::begin(address), std::end(address), [](uint8_t byte) { return byte != 0; });
    };
    for (const auto &row : rows) {
        atc_pkt_info_t info = parse(row.frame).info;
        std::string what = testing::PrintToString(row.frame);
        EXPECT_EQ(info.src_type, row.src_type) << what;
        EXPECT_EQ(info.ip_protocol, row.ip_protocol) << what;
        EXPECT_EQ(any(info.dst_mac), row.dst_mac) << what;
        EXPECT_EQ(any(info.src_mac), row.src_mac) << what;
        EXPECT_EQ(info.src_ipv4 != 0 || any(info.src_ipv6), row.src_ip) << what;
        EXPECT_EQ(info.dst_ipv4 != 0 || any(info.dst_ipv6), row.dst_ip) << what;
        EXPECT_EQ(info.vlan, row.vlan) << what;
        EXPECT_EQ(info.src_port, row.src_port) << what;
        EXPECT_EQ(info.dst_port, row.dst_port) << what;
    }
}

TEST(parser, layers_read_nothing_behind_the_end_from_any_offset) {
    const Frame frames[] = {tcp(1, 23), udp6(1, 53).hop_by_hop(255).cut(80), cfm(40), bpdu(3)};
    for (const Frame &frame : frames) {
        auto block = frame.exact();
        const auto run = [&](auto layer, uint32_t offset, uint16_t eth_type) {
            atc_pkt_info_t info = fresh();
            info.hdr_offset = static_cast<uint16_t>(offset);
            info.eth_type = eth_type;
            uint16_t result = layer(block.get(), frame.size(), &info);
            EXPECT_EQ(result, info.protocol) << offset;
            return uint32_t{result};
        };
        for (uint32_t offset = 0; offset <= 0xFFFF; ++offset) {
            bool behind = offset >= frame.size();
            uint32_t results[] = {
                run(atc_packet_parser_tcp, offset, 0),      run(atc_packet_parser_udp, offset, 0),
                run(atc_packet_parser_ip, offset, 0x0800),  run(atc_packet_parser_ip, offset, 0x86DD),
                run(atc_packet_parser_eth, offset, 0x0042), run(atc_packet_parser_eth, offset, 0x8902),
            };
            const uint32_t cut[] = {ATC_UNKNOWN_TCP, ATC_UNKNOWN_UDP, IP4, IP6, NONE, NONE};
            ASSERT_TRUE(!behind || std::equal(std::begin(cut), std::end(cut), results)) << offset;
        }
    }
}
