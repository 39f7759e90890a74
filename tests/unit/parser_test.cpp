// The parser: the class of every rule and of its neighbours, the descriptor's members, frames cut at every length.
#include "atc/parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
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

atc_pkt_info_t fresh() {
    atc_pkt_info_t info = {};
    info.direction = ATC_DIRECTION_RX;
    info.port = 7;
    info.vlan = HOST_VLAN;
    return info;
}

atc_pkt_info_t parse(const Frame &frame, int expected_result = 0) {
    atc_pkt_info_t info = fresh();
    EXPECT_EQ(atc_packet_parser(frame.exact().get(), frame.size(), &info), expected_result)
        << testing::PrintToString(frame);
    return info;
}

uint32_t look_up(const Classes &classes, uint32_t key, uint32_t otherwise) {
    auto found = classes.find(key);
    return found == classes.end() ? otherwise : found->second;
}

}  // namespace

TEST(parser, every_value_of_the_byte_that_decides) {
    const Classes versions = {{0, ATC_STP}, {2, ATC_RSTP}, {3, ATC_MSTP}};
    const Classes ether_types = {
        {0x63, ATC_PPPOE},
        {0x64, ATC_PPPOE},
        {0xCC, ATC_LLDP},
        {0x8E, ATC_DOT1X},
    };
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
        // The body is zero: IP of no version, a BPDU of version 0, a tag around an empty LLC.
        {"EtherType 08xx", eth(0x0800), uint32_t(-1), {{0x00, 0}, {0x06, ATC_ARP}, {0x42, ATC_STP}}, NONE},
        {"EtherType 86xx", eth(0x8600), uint32_t(-1), {{0xDD, 0}}, NONE},
        {"EtherType 88xx", eth(0x8800), uint32_t(-1), ether_types, NONE},
        {"bpdu version, LLC", bpdu(0), 2, versions, NONE},
        {"slow subtype", slow(0), 0, {{1, ATC_LACP}, {3, ATC_DOT3AH}}, NONE},
        {"cfm opcode", cfm(0), 1, opcodes, NONE},
        {"DSAP", llc(0), uint32_t(-3), {{0x42, ATC_STP}, {0xFE, ATC_ISIS}}, NONE},
        {"IPv4 protocol", ipv4(0), 9, ipv4_protocols, IP4},
        {"fragment's protocol", ipv4(0).more_fragments(), 9, ipv4_protocols, ATC_UNKNOWN_IP_FRAGMENT},
        {"fragment flags", ipv4(50), 6, more_fragments, 0},
        {"fragment offset", ipv4(50), 7, {}, IP4},
        {"IP version", ipv4(89).pad(80).payload(6, {44}), 0, versions_of_ip, 0},
        {"next header", ipv6(0), 6, next_headers, IP6},
        {"next header behind options", ipv6(0).hop_by_hop(), 40, next_headers, IP6},
        {"ICMPv6 type", icmpv6(0), 40, icmpv6_types, ATC_UNKNOWN_ICMPV6},
        {"flags beat the port", tcp(51000, 179), 33, syn, 0},
    };
    for (const auto &row : rows) {
        for (uint32_t value = 0; value < 256; ++value) {
            Frame frame = row.frame;
            frame.payload(row.offset, {static_cast<uint8_t>(value)});
            EXPECT_EQ(parse(frame).protocol, look_up(row.classes, value, row.otherwise)) << row.what << " " << value;
        }
    }
}

// The rules of the ports as they are told: in order, either port.
using PortRules = std::vector<std::pair<uint32_t, uint32_t>>;

const PortRules udp_rules = {{123, ATC_NTP},  {1812, ATC_RADIUS}, {1813, ATC_RADIUS}, {67, ATC_DHCP},
                             {68, ATC_DHCP},  {546, ATC_DHCPV6},  {547, ATC_DHCPV6},  {646, ATC_LDP},
                             {3784, ATC_BFD}, {4784, ATC_BFD},    {3785, ATC_BFD},    {161, ATC_SNMP},
                             {162, ATC_SNMP}, {69, ATC_TFTP},     {49, ATC_TACACS},   {3503, ATC_MPLSOAM},
                             {520, ATC_RIP},  {521, ATC_RIPNG},   {53, ATC_DNS}};
const PortRules tcp_rules = {{646, ATC_LDP}, {179, ATC_BGP}, {23, ATC_TELNET}, {22, ATC_SSH},
                             {20, ATC_FTP},  {21, ATC_FTP},  {49, ATC_TACACS}};

void expect_classes_of_ports(uint32_t sport, uint32_t dport) {
    static const struct {
        Frame frame;
        PortRules rules;
        uint32_t otherwise;
    } rows[] = {{udp(), udp_rules, ATC_UNKNOWN_UDP}, {tcp(), tcp_rules, ATC_UNKNOWN_TCP}};
    for (const auto &row : rows) {
        auto rule =
            std::ranges::find_if(row.rules, [=](auto &one) { return one.first == sport || one.first == dport; });
        Frame frame = row.frame;
        frame.set(34, {static_cast<uint8_t>(sport >> 8), static_cast<uint8_t>(sport), static_cast<uint8_t>(dport >> 8),
                       static_cast<uint8_t>(dport)});
        ASSERT_EQ(parse(frame).protocol, rule == row.rules.end() ? row.otherwise : rule->second)
            << sport << " " << dport;
    }
}

TEST(parser, every_port_in_either_place_and_every_two_known_ones) {
    for (uint32_t port = 0; port <= 0xFFFF; ++port) {
        expect_classes_of_ports(port, 40000);
        expect_classes_of_ports(40000, port);
    }
    PortRules known = udp_rules;
    known.insert(known.end(), tcp_rules.begin(), tcp_rules.end());
    for (const auto &[sport, source_class] : known) {
        for (const auto &[dport, destination_class] : known) {
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
        {"five tags", arp().tags(5), -1, 1, 0, 0},
        {"four tags, four labels", arp().tags(4).mpls(4), 0, 1, ATC_ARP, 0x0806},
        {"tag behind a label", arp().mpls(2).tag(77), 0, 77, ATC_ARP, 0x0806},
        {"five labels behind four tags", arp().tags(4).mpls(5), -1, 1, 0, 0},
        {"length 1500", bpdu(2).set(12, {0x05, 0xDC}), 0, HOST_VLAN, ATC_RSTP, 0x0042},
        {"length 1501", bpdu(2).set(12, {0x05, 0xDD}), 0, HOST_VLAN, ATC_UNKNOWN_PACKET, 1501},
        {"SNAP behind a tag", udp(1, 69).tag(8).snap(), 0, 8, ATC_TFTP, 0x0800},
        {"SNAP type is no length", arp().snap().eth_type(0x0042).payload(2, {3}), 0, HOST_VLAN, ATC_MSTP, 0x0042},
        {"SNAP type is no tag", arp().snap().eth_type(0x8100), 0, HOST_VLAN, ATC_UNKNOWN_PACKET, 0x8100},
    };
    for (const auto &row : rows) {
        const atc_pkt_info_t info = parse(row.frame, row.result);
        EXPECT_EQ(std::tuple(info.vlan, info.protocol, info.eth_type), std::tuple(row.vlan, row.protocol, row.eth_type))
            << row.what;
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
        const atc_pkt_info_t info = parse(Frame(whole).cut(len));
        EXPECT_EQ(info.protocol, steps[step].protocol) << what << " cut at " << len;
        EXPECT_EQ(info.pkt_len, len) << what;
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
    for (const auto &[ids, kind] : kinds) {
        for (uint16_t id : ids) {
            std::vector<Step> steps = kind;
            steps.back().protocol = id == ATC_SELF ? uint32_t{ATC_ARP} : id;
            expect_steps("class " + std::to_string(id), frame_of_class(id), steps);
        }
    }
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
        // The header's length is used as given; 0 makes the total length a port.
        {udp(1, 2).header_words(0).payload(2, {0, 53}), {{0, NONE}, {14, IP4}, {34, ATC_DNS}}},
        {udp(1, 2).header_words(15), {{0, NONE}, {14, IP4}, {34, ATC_UNKNOWN_UDP}}},
    };
    for (const auto &[frame, steps] : variants) {
        expect_steps(testing::PrintToString(frame), frame, steps);
    }
}

template <typename member_t>
std::string change(const char *name, const member_t &now, const member_t &before) {
    if (std::memcmp(&now, &before, sizeof(now)) == 0) {
        return "";
    }
    std::ostringstream text;
    text << " " << name << "=";
    if constexpr (std::is_array_v<member_t>) {
        for (uint32_t byte : now) {
            text << std::hex << std::setw(2) << std::setfill('0') << byte;
        }
    } else {
        text << +now;
    }
    return text.str();
}

// "12 src-mac=001122334455 src-type=1 14 eth-type=2054 ...": the members that change when the frame gets that long.
std::string growth(const Frame &whole) {
    std::string text;
    atc_pkt_info_t old = fresh();
    for (uint32_t len = 0; len <= whole.size(); ++len) {
        const atc_pkt_info_t info = parse(Frame(whole).cut(len));
        const std::string changes =
            change("direction", info.direction, old.direction) + change("port", info.port, old.port) +
            change("dst-mac", info.dst_mac, old.dst_mac) + change("src-mac", info.src_mac, old.src_mac) +
            change("src-type", info.src_type, old.src_type) + change("vlan", info.vlan, old.vlan) +
            change("eth-type", info.eth_type, old.eth_type) + change("ip-protocol", info.ip_protocol, old.ip_protocol) +
            change("src-ipv4", info.src_ipv4, old.src_ipv4) + change("dst-ipv4", info.dst_ipv4, old.dst_ipv4) +
            change("src-ipv6", info.src_ipv6, old.src_ipv6) + change("dst-ipv6", info.dst_ipv6, old.dst_ipv6) +
            change("src-port", info.src_port, old.src_port) + change("dst-port", info.dst_port, old.dst_port);
        text += changes.empty() ? "" : std::to_string(len) + changes + " ";
        old = info;
    }
    return text + "hdr-offset=" + std::to_string(old.hdr_offset);
}

TEST(parser, an_ip_version_of_neither_leaves_the_class_alone) {
    const Frame frame = ipv4(89).payload(0, {0x55});
    for (const auto layer : {atc_packet_parser_eth, atc_packet_parser_ip}) {
        atc_pkt_info_t info = {};
        info.eth_type = 0x0800;
        info.hdr_offset = 14;
        info.protocol = ATC_LLDP;
        EXPECT_EQ(layer(frame.data(), frame.size(), &info), 0);
        EXPECT_EQ(info.protocol, ATC_LLDP);
    }
}

TEST(parser, members_are_there_as_soon_as_their_bytes_are) {
    const std::string macs = "6 dst-mac=020000000001 12 src-mac=001122334455 src-type=1 ";
    EXPECT_EQ(growth(lldp().to(OWN_MAC)), macs + "14 eth-type=35020 hdr-offset=14");
    EXPECT_EQ(growth(tcp(51000, 179, SYN | ACK).src_ip("192.168.10.1").dst_ip("10.0.0.254").options(1).tag(100)),
              macs +
                  "16 vlan=100 18 eth-type=2048 28 ip-protocol=6 34 src-type=2 src-ipv4=3232238081 "
                  "38 dst-ipv4=167772414 44 src-port=51000 46 dst-port=179 hdr-offset=62");
    EXPECT_EQ(growth(icmpv6(143, 7).src_ip("fe80::102:304:506:708").dst_ip("ff02::16").hop_by_hop(1)),
              macs +
                  "14 eth-type=34525 38 src-type=3 src-ipv6=fe800000000000000102030405060708 "
                  "54 dst-ipv6=ff020000000000000000000000000016 56 ip-protocol=58 72 src-port=36615 hdr-offset=70");
}
