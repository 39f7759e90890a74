// The catalogue: numbering, both look-ups, default limits.
#include "atc/protocol.h"

#include <gtest/gtest.h>

#include <algorithm>
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
    char text[] = "xxxxxxxx";
    atc_protocol_id_to_name(ATC_LLDP, text, 7);
    EXPECT_EQ(std::memcmp(text, "lldp\0\0\0x", 8), 0);
    atc_protocol_id_to_name(ATC_OSPFV2, text, 4);
    EXPECT_EQ(std::memcmp(text, "ospf\0\0\0x", 8), 0);
}

// "$" is the byte behind a whole name, "-" none.
TEST(protocol, first_name_in_order_that_begins_so_wins) {
    std::istringstream rows(
        "g803=aps dhcp=dhcp rip=rip mld=mld-query icmp=icmpv4 icmpv6-r=icmpv6-request icmpv6-n=icmpv6-ns "
        "unknown-=unknown-ipv4 unknown-ip-=unknown-ip-fragment unknown-ipv6=unknown-ipv6 s=stp d=dot1x t=tftp =stp "
        "efm$=dot3ah g8031$=aps g8032$=erps cfm$=y1731 STP$=- stpx$=- st$=- $=-");
    for (std::string row; rows >> row;) {
        std::string name = row.substr(0, row.find('='));
        const std::string expected = row.substr(name.size() + 1);
        std::ranges::replace(name, '$', '\0');
        const uint32_t id = id_of(name.c_str(), name.size());
        EXPECT_EQ(id == UNTOUCHED ? "-" : name_of(id), expected) << row;
    }
}

TEST(protocol, default_limits_by_group) {
    using Limits = std::pair<uint32_t, uint32_t>;
    std::map<int32_t, Limits> expected = {{24, {20, 10}}, {44, {120, 120}}, {57, {10, 5}}};
    for (int32_t id : {7, 8, 40, 41, 54, 55}) {
        expected[id] = {30, 20};
    }
    for (int32_t id : {1, 2, 3, 4, 9, 11, 12, 21, 25, 30, 31, 32, 33, 34, 35, 36, 38, 39, 43, 46, 47, 50, 52}) {
        expected[id] = {12, 10};
    }
    for (int32_t id = -1; id <= 59; ++id) {
        const bool known = id >= 1 && id <= 58;
        const Limits otherwise = known ? Limits{100, 50} : Limits{UNTOUCHED, UNTOUCHED};
        const Limits limits = expected.emplace(id, otherwise).first->second;
        for (auto init : {atc_protocol_lmt_init, atc_protocol_src_lmt_init}) {
            Limits got = {UNTOUCHED, UNTOUCHED};
            EXPECT_EQ(init(id, &got.first, &got.second), known ? 0 : -1) << id;
            EXPECT_EQ(got, limits) << id;
        }
    }
}
