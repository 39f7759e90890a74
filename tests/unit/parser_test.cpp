// SPDX-License-Identifier: Apache-2.0
// The parser: the class of every rule and of its neighbours, the descriptor's members, frames cut at every length.
#include "atc/parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "atc/protocol.h"
#include "frames.h"

namespace {

constexpr uint16_t HOST_VLAN = 99;

atc_pkt_info_t parse(const Frame &frame, int expected_result = 0) {
    atc_pkt_info_t info = {};
    info.direction = ATC_DIRECTION_RX;
    info.port = 7;
    info.vlan = HOST_VLAN;
    EXPECT_EQ(atc_packet_parser(frame.exact().get(), frame.size(), &info), expected_result)
        << testing::PrintToString(frame);
    return info;
}

// "123=ntp 67=dhcp 9=-": numbers and the classes that they give; "-" is none.
std::vector<std::pair<uint32_t, uint32_t>> classes_of(const std::string &text) {
    std::vector<std::pair<uint32_t, uint32_t>> classes;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const std::string name = word.substr(word.find('=') + 1);
        uint32_t id = name == "-" ? 0 : UINT32_MAX;
        atc_protocol_name_to_id(&id, name.c_str(), static_cast<uint32_t>(name.size() + 1));
        classes.emplace_back(std::stoul(word), id);
    }
    return classes;
}

// The class of the first number for which holds(number), else the last one.
template <typename holds_t>
uint32_t class_where(const std::vector<std::pair<uint32_t, uint32_t>> &classes, holds_t holds) {
    const auto found = std::ranges::find_if(classes, [&](const auto &one) { return holds(one.first); });
    return (found != classes.end() ? *found : classes.back()).second;
}

TEST(parser, every_value_of_the_byte_that_decides) {
    const std::string of_ipv4 = "1=icmpv4 2=igmp 6=unknown-tcp 17=unknown-udp 46=rsvp 89=ospfv2 103=pim4 112=vrrp 999=";
    // Behind the IPv6 header there are zeros, so a hop-by-hop header leads to another one, which is not skipped.
    const std::string of_ipv6 = "6=unknown-tcp 17=unknown-udp 58=unknown-icmpv6 89=ospfv3 103=pim6 999=unknown-ipv6";
    const struct {
        const char *what;
        Frame frame;
        uint32_t offset, mask;  // of the byte, of the bits that decide
        std::string classes;    // the last for all others
    } rows[] = {
        // The body is zero: IP of no version, a BPDU of version 0, a tag around an empty LLC.
        {"EtherType 08xx", eth(0x0800), uint32_t(-1), 255, "0=- 6=arp 66=stp 999=unknown-packet"},
        {"EtherType 86xx", eth(0x8600), uint32_t(-1), 255, "221=- 999=unknown-packet"},
        {"EtherType 88xx", eth(0x8800), uint32_t(-1), 255, "99=pppoe 100=pppoe 142=dot1x 204=lldp 999=unknown-packet"},
        {"bpdu version, LLC", bpdu(0), 2, 255, "0=stp 2=rstp 3=mstp 999=unknown-packet"},
        {"slow subtype", slow(0), 0, 255, "1=lacp 3=dot3ah 999=unknown-packet"},
        {"cfm opcode", cfm(0), 1, 255,
         "1=y1731 2=y1731 3=y1731 4=y1731 5=y1731 33=y1731 35=y1731 37=y1731 39=aps 40=erps 42=y1731 43=y1731 45=y1731 "
         "46=y1731 47=y1731 999=unknown-packet"},
        {"DSAP", llc(0), uint32_t(-3), 255, "66=stp 254=isis 999=unknown-packet"},
        {"IPv4 protocol", ipv4(0), 9, 255, of_ipv4 + "unknown-ipv4"},
        {"fragment's protocol", ipv4(0).more_fragments(), 9, 255, of_ipv4 + "unknown-ip-fragment"},
        {"fragment flags", ipv4(50), 6, 0x20, "32=unknown-ip-fragment 999=unknown-ipv4"},
        {"fragment offset", ipv4(50), 7, 0, "999=unknown-ipv4"},
        {"IP version", ipv4(89).pad(80).payload(6, {44}), 0, 0xF0, "64=ospfv2 96=unknown-ipv6 999=-"},
        {"next header", ipv6(0), 6, 255, of_ipv6},
        {"next header behind options", ipv6(0).hop_by_hop(), 40, 255, of_ipv6},
        {"ICMPv6 type", icmpv6(0), 40, 255,
         "128=icmpv6-request 129=icmpv6-reply 130=mld-query 131=mld-v1report 132=mld-v1leave 133=icmpv6-rs "
         "134=icmpv6-ra 135=icmpv6-ns 136=icmpv6-na 137=icmpv6-redirect 143=mld-v2report 999=unknown-icmpv6"},
        {"flags beat the port", tcp(51000, 179), 33, SYN, "2=tcp-syn 999=bgp"},
    };
    for (const auto &row : rows) {
        const auto classes = classes_of(row.classes);
        for (uint32_t value = 0; value < 256; ++value) {
            Frame frame = row.frame;
            frame.payload(row.offset, {low(value)});
            const auto is_this = [&](uint32_t number) { return number == (value & row.mask); };
            EXPECT_EQ(parse(frame).protocol, class_where(classes, is_this)) << row.what << " " << value;
        }
    }
}

// The rules of the ports as they are told: in order, either port.
void expect_classes_of_ports(uint32_t sport, uint32_t dport) {
    static const auto of_udp = classes_of(
        "123=ntp 1812=radius 1813=radius 67=dhcp 68=dhcp 546=dhcpv6 547=dhcpv6 646=ldp 3784=bfd 4784=bfd 3785=bfd "
        "161=snmp "
        "162=snmp 69=tftp 49=tacacs 3503=mplsoam 520=rip 521=ripng 53=dns 99999=unknown-udp");
    static const auto of_tcp = classes_of("646=ldp 179=bgp 23=telnet 22=ssh 20=ftp 21=ftp 49=tacacs 99999=unknown-tcp");
    static const std::pair<Frame, const decltype(of_udp) *> rows[] = {{udp(), &of_udp}, {tcp(), &of_tcp}};
    for (const auto &[plain, classes] : rows) {
        Frame frame = plain;
        frame.set(34, {high(sport), low(sport), high(dport), low(dport)});
        const auto is_either = [=](uint32_t port) { return port == sport || port == dport; };
        ASSERT_EQ(parse(frame).protocol, class_where(*classes, is_either)) << sport << " " << dport;
    }
}

TEST(parser, every_port_in_either_place_and_every_two_known_ones) {
    for (uint32_t port = 0; port <= 0xFFFF; ++port) {
        expect_classes_of_ports(port, 40000);
        expect_classes_of_ports(40000, port);
    }
    const uint32_t known[] = {20,  21,  22,  23,  49,  53,  67,   68,   69,   123,  161,  162,
                              179, 520, 521, 546, 547, 646, 1812, 1813, 3503, 3784, 3785, 4784};
    for (uint32_t sport : known) {
        for (uint32_t dport : known) {
            expect_classes_of_ports(sport, dport);
        }
    }
}

TEST(parser, tags_labels_and_llc) {
    const struct {
        const char *what;
        Frame frame;
        int result;
        uint32_t vlan, protocol, eth_type;
    } rows[] = {
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

// 'steps': from that many bytes on a frame is of that class.
void expect_steps(const Frame &whole, const std::string &steps) {
    auto classes = classes_of(steps);
    std::ranges::reverse(classes);
    for (uint32_t len = 0; len <= whole.size(); ++len) {
        const atc_pkt_info_t info = parse(Frame(whole).cut(len));
        EXPECT_EQ(info.protocol, class_where(classes, [len](uint32_t from) { return from <= len; }))
            << testing::PrintToString(whole) << " cut at " << len;
        EXPECT_EQ(info.pkt_len, len);
    }
}

TEST(parser, every_class_and_variant_cut_at_every_length) {
    // Ids; what they are on the way, and from which byte on they are themselves.
    const std::pair<const char *, std::string> kinds[] = {
        {"4 6 7 8 57 58", "14="},
        {"1 2 3", "20="},
        {"5 9 10", "15="},
        {"11 12 13", "16="},
        {"14 16 17 19 21 22 23 24", "14=unknown-ipv4 34="},
        {"15 18 20", "14=unknown-ipv6 54="},
        {"25 26 27 28 29 30 31 32 33 34 35 36", "14=unknown-ipv6 54=unknown-icmpv6 56="},
        {"37 38 39 40 42 43 44 45 47 48 50", "14=unknown-ipv4 34=unknown-udp 38="},
        {"41 49", "14=unknown-ipv6 54=unknown-udp 58="},
        {"46 51 52 53 54 55 56", "14=unknown-ipv4 34=unknown-tcp 48="},
    };
    for (const auto &[ids, steps] : kinds) {
        std::istringstream words(ids);
        for (uint16_t id; words >> id;) {
            char name[32];
            atc_protocol_id_to_name(id == ATC_SELF ? uint32_t{ATC_ARP} : id, name, sizeof(name));
            expect_steps(frame_of_class(id), "0=unknown-packet " + steps + name);
        }
    }
    const std::pair<Frame, const char *> variants[] = {
        {arp().tag(5), "18=arp"},
        {arp().tags(4).mpls(4), "46=arp"},
        {lldp().snap(), "22=lldp"},
        {eth(0x0842).payload(2, {3}), "17=mstp"},
        {udp(1, 53).options(10), "14=unknown-ipv4 34=unknown-udp 78=dns"},
        {udp6(1, 53).hop_by_hop(2), "14=unknown-ipv6 56=unknown-udp 82=dns"},
        {icmpv6(135).hop_by_hop(), "14=unknown-ipv6 56=unknown-icmpv6 64=icmpv6-ns"},
        {ipv6(103).hop_by_hop(255), "14=unknown-ipv6 56=pim6"},
        {ipv6(89).eth_type(0x0800), "14=unknown-ipv4 15=unknown-ipv6 54=ospfv3"},
        {ipv4(2).eth_type(0x86DD), "14=unknown-ipv6 15=unknown-ipv4 34=igmp"},
        // The header's length is used as given; 0 makes the total length a port.
        {udp(1, 2).header_words(0).payload(2, {0, 53}), "14=unknown-ipv4 34=dns"},
        {udp(1, 2).header_words(15), "14=unknown-ipv4 34=unknown-udp"},
    };
    for (const auto &[frame, steps] : variants) {
        expect_steps(frame, std::string("0=unknown-packet ") + steps);
    }
}

// A member's value if it has changed: " src_mac=001122334455".
template <typename member_t>
std::string change(const char *name, const member_t &now, const member_t &before) {
    if (std::memcmp(&now, &before, sizeof(now)) == 0) {
        return "";
    }
    std::string text = std::string(" ") + name + "=";
    if constexpr (std::is_array_v<member_t>) {
        for (uint32_t byte : now) {
            constexpr char digits[] = "0123456789abcdef";
            text += {digits[byte / 16], digits[byte % 16]};
        }
        return text;
    } else {
        return text + std::to_string(now);
    }
}

// " 12 src_mac=001122334455 src_type=1 14 eth_type=2054 ...": the members that change when the frame gets that long.
std::string growth(const Frame &whole) {
    std::string text;
    atc_pkt_info_t old = parse(Frame());
    for (uint32_t len = 1; len <= whole.size(); ++len) {
        const atc_pkt_info_t info = parse(Frame(whole).cut(len));
#define CHANGE(member) change(#member, info.member, old.member)
        const std::string changes = CHANGE(direction) + CHANGE(port) + CHANGE(dst_mac) + CHANGE(src_mac) +
                                    CHANGE(src_type) + CHANGE(vlan) + CHANGE(eth_type) + CHANGE(ip_protocol) +
                                    CHANGE(src_ipv4) + CHANGE(dst_ipv4) + CHANGE(src_ipv6) + CHANGE(dst_ipv6) +
                                    CHANGE(src_port) + CHANGE(dst_port);
#undef CHANGE
        text += changes.empty() ? "" : " " + std::to_string(len) + changes;
        old = info;
    }
    return text + " hdr_offset=" + std::to_string(old.hdr_offset);
}

TEST(parser, members_are_there_as_soon_as_their_bytes_are) {
    const std::string macs = " 6 dst_mac=020000000001 12 src_mac=001122334455 src_type=1 ";
    EXPECT_EQ(growth(lldp().to(OWN_MAC)), macs + "14 eth_type=35020 hdr_offset=14");
    EXPECT_EQ(growth(tcp(51000, 179, SYN | ACK).src_ip("192.168.10.1").dst_ip("10.0.0.254").options(1).tag(100)),
              macs +
                  "16 vlan=100 18 eth_type=2048 28 ip_protocol=6 34 src_type=2 src_ipv4=3232238081 "
                  "38 dst_ipv4=167772414 44 src_port=51000 46 dst_port=179 hdr_offset=62");
    EXPECT_EQ(growth(udp6().cut(21)), macs + "14 eth_type=34525 21 ip_protocol=17 hdr_offset=54");
    EXPECT_EQ(growth(icmpv6(143, 7).src_ip("fe80::102:304:506:708").dst_ip("ff02::16").hop_by_hop(1)),
              macs +
                  "14 eth_type=34525 38 src_type=3 src_ipv6=fe800000000000000102030405060708 "
                  "54 dst_ipv6=ff020000000000000000000000000016 56 ip_protocol=58 72 src_port=36615 hdr_offset=70");
}

TEST(parser, each_layer_answers_with_the_class_that_it_stores) {
    const struct {
        uint16_t (*layer)(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info);
        Frame frame;
        uint16_t hdr_offset, eth_type, answer, stored, behind;  // header offset before and behind
    } rows[] = {
        {atc_packet_parser_eth, arp(), 14, 0x0806, ATC_ARP, ATC_ARP, 14},
        {atc_packet_parser_ip, tcp(51000, 179), 14, 0x0800, ATC_BGP, ATC_BGP, 54},
        {atc_packet_parser_ip, tcp(51000, 179).set(14, {0x75}), 14, 0x0800, 0, ATC_ISIS, 14},
        {atc_packet_parser_tcp, tcp(51000, 179), 34, 0x0800, ATC_BGP, ATC_BGP, 54},
        {atc_packet_parser_udp, udp(68, 67), 34, 0x0800, ATC_DHCP, ATC_DHCP, 42},
    };
    for (const auto &row : rows) {
        atc_pkt_info_t info = {};
        info.hdr_offset = row.hdr_offset;
        info.eth_type = row.eth_type;
        info.protocol = ATC_ISIS;
        EXPECT_EQ(row.layer(row.frame.data(), row.frame.size(), &info), row.answer);
        EXPECT_EQ(info.protocol, row.stored);
        EXPECT_EQ(info.hdr_offset, row.behind);
    }
}

}  // namespace
