// The catalogue: numbering, both look-ups, default limits.
#include "atc/protocol.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <utility>

namespace {

constexpr uint32_t UNTOUCHED = 0xDEADBEEF;

std::string name_of(uint32_t id) {
    char text[32];
    std::memset(text, 'x', sizeof text);
    atc_protocol_id_to_name(id, text, sizeof text);
    return text;
}

uint32_t id_of(const char *name, size_t len) {
    uint32_t id = UNTOUCHED;
    atc_protocol_name_to_id(&id, name, static_cast<uint32_t>(len));
    return id;
}

}  // namespace

TEST(protocol, names_and_ids_go_both_ways) {
    std::istringstream names(
        "stp rstp mstp lldp isis arp pppoe dot1x lacp dot3ah aps erps y1731 unknown-ipv4 unknown-ipv6 "
        "unknown-ip-fragment ospfv2 ospfv3 pim4 pim6 icmpv4 igmp rsvp vrrp unknown-icmpv6 mld-query mld-v1report "
        "mld-v1leave mld-v2report icmpv6-request icmpv6-reply icmpv6-rs icmpv6-ra icmpv6-ns icmpv6-na icmpv6-redirect "
        "unknown-udp ntp radius dhcp dhcpv6 ldp bfd snmp tftp tacacs mplsoam rip ripng dns unknown-tcp tcp-syn bgp "
        "telnet ssh ftp self unknown-packet");
    uint32_t id = 0;
    for (std::string name; names >> name;) {
        EXPECT_EQ(name_of(++id), name);
        EXPECT_EQ(id_of(name.c_str(), name.size() + 1), id) << name;
    }
    for (uint32_t other : {0U, 59U, UINT32_MAX}) {
        EXPECT_EQ(name_of(other), "unknown-packet") << other;
    }
}

TEST(protocol, name_is_cut_or_padded_to_the_buffer) {
    char text[8] = "xxxxxxx";
    atc_protocol_id_to_name(ATC_LLDP, text, 7);
    EXPECT_EQ(std::memcmp(text, "lldp\0\0\0", 8), 0);
    std::memset(text, 'x', sizeof text);
    atc_protocol_id_to_name(ATC_OSPFV2, text, 4);
    EXPECT_EQ(std::memcmp(text, "ospfxxxx", 8), 0);
    atc_protocol_id_to_name(ATC_LLDP, nullptr, 8);
}

TEST(protocol, first_name_in_order_that_begins_so_wins) {
    std::istringstream rows(
        "g803=aps dhcp=dhcp rip=rip mld=mld-query icmp=icmpv4 icmpv6-r=icmpv6-request icmpv6-n=icmpv6-ns "
        "unknown-=unknown-ipv4 unknown-ip=unknown-ipv4 unknown-ip-=unknown-ip-fragment unknown-ipv6=unknown-ipv6 "
        "unknown-icmp=unknown-icmpv6 s=stp r=rstp d=dot1x t=tftp m=mstp l=lldp b=bfd f=ftp =stp");
    for (std::string row; rows >> row;) {
        const std::string begin = row.substr(0, row.find('='));
        EXPECT_EQ(name_of(id_of(begin.c_str(), begin.size())), row.substr(begin.size() + 1)) << row;
    }
    const std::pair<std::string, uint32_t> whole[] = {{"efm", ATC_DOT3AH}, {"g8031", ATC_APS}, {"g8032", ATC_ERPS},
                                                      {"cfm", ATC_Y1731},  {"STP", UNTOUCHED}, {"stpx", UNTOUCHED},
                                                      {"st", UNTOUCHED},   {"", UNTOUCHED}};
    for (const auto &[name, id] : whole) {
        EXPECT_EQ(id_of(name.c_str(), name.size() + 1), id) << name;
    }
    EXPECT_EQ(id_of(nullptr, 4), UNTOUCHED);
    atc_protocol_name_to_id(nullptr, "stp", 3);
}

TEST(protocol, default_limits_by_group) {
    using Limits = std::pair<uint32_t, uint32_t>;
    std::map<uint32_t, Limits> expected = {{7, {30, 20}},  {8, {30, 20}},    {40, {30, 20}},
                                           {41, {30, 20}}, {54, {30, 20}},   {55, {30, 20}},
                                           {24, {20, 10}}, {44, {120, 120}}, {57, {10, 5}}};
    for (uint32_t id : {1u,  2u,  3u,  4u,  9u,  11u, 12u, 21u, 25u, 30u, 31u, 32u,
                        33u, 34u, 35u, 36u, 38u, 39u, 43u, 46u, 47u, 50u, 52u}) {
        expected[id] = {12, 10};
    }
    for (int32_t id : {0, 59, -1, INT32_MIN, INT32_MAX}) {
        expected[static_cast<uint32_t>(id)] = {UNTOUCHED, UNTOUCHED};
    }
    for (uint32_t id = 1; id <= 58; ++id) {
        expected.emplace(id, Limits{100, 50});
    }
    for (const auto &[id, limits] : expected) {
        for (auto init : {atc_protocol_lmt_init, atc_protocol_src_lmt_init}) {
            Limits got = {UNTOUCHED, UNTOUCHED};
            EXPECT_EQ(init(static_cast<int32_t>(id), &got.first, &got.second), limits.first == UNTOUCHED ? -1 : 0)
                << id;
            EXPECT_EQ(got, limits) << id;
        }
    }
}
