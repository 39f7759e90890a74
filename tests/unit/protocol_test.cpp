// The catalogue: numbering, both look-ups, default limits.
#include "atc/protocol.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
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

uint32_t id_of(const char *name, uint32_t len) {
    uint32_t id = UNTOUCHED;
    atc_protocol_name_to_id(&id, name, len);
    return id;
}

}  // namespace

TEST(protocol, names_and_ids_go_both_ways) {
    for (uint32_t id = 1; id <= 58; ++id) {
        std::string name = name_of(id);
        EXPECT_EQ(id_of(name.c_str(), static_cast<uint32_t>(name.size() + 1)), id) << name;
    }
    const std::pair<uint32_t, const char *> rows[] = {
        {1, "stp"},
        {5, "isis"},
        {10, "dot3ah"},
        {11, "aps"},
        {12, "erps"},
        {13, "y1731"},
        {16, "unknown-ip-fragment"},
        {24, "vrrp"},
        {25, "unknown-icmpv6"},
        {29, "mld-v2report"},
        {36, "icmpv6-redirect"},
        {37, "unknown-udp"},
        {46, "tacacs"},
        {47, "mplsoam"},
        {50, "dns"},
        {52, "tcp-syn"},
        {56, "ftp"},
        {57, "self"},
        {58, "unknown-packet"},
        {0, "unknown-packet"},
        {59, "unknown-packet"},
        {0xFFFFFFFF, "unknown-packet"},
    };
    for (const auto &[id, name] : rows) {
        EXPECT_EQ(name_of(id), name) << id;
    }
}

TEST(protocol, name_is_cut_or_padded_to_the_buffer) {
    char text[8];
    std::memset(text, 'x', sizeof text);
    atc_protocol_id_to_name(ATC_LLDP, text, 7);
    EXPECT_EQ(std::memcmp(text, "lldp\0\0\0x", 8), 0);
    atc_protocol_id_to_name(ATC_OSPFV2, text, 4);
    EXPECT_EQ(std::memcmp(text, "ospf\0\0\0x", 8), 0);
    atc_protocol_id_to_name(ATC_LLDP, nullptr, 8);
}

TEST(protocol, first_name_in_order_that_begins_so_wins) {
    struct {
        const char *name;
        uint32_t len;
        uint32_t id;
    } const rows[] = {
        {"efm", 4, ATC_DOT3AH},
        {"g8031", 6, ATC_APS},
        {"g8032", 6, ATC_ERPS},
        {"cfm", 4, ATC_Y1731},
        {"g803", 4, ATC_APS},
        {"dhcp", 4, ATC_DHCP},
        {"dhcp", 5, ATC_DHCP},
        {"dhcpv6", 6, ATC_DHCPV6},
        {"dhcpv6", 4, ATC_DHCP},
        {"rip", 3, ATC_RIP},
        {"ripng", 4, ATC_RIPNG},
        {"unknown-ip-", 11, ATC_UNKNOWN_IP_FRAGMENT},
        {"unknown-ip", 10, ATC_UNKNOWN_IPV4},
        {"unknown-ipv6", 12, ATC_UNKNOWN_IPV6},
        {"unknown-icmp", 12, ATC_UNKNOWN_ICMPV6},
        {"unknown-", 8, ATC_UNKNOWN_IPV4},
        {"mld", 3, ATC_MLD_QUERY},
        {"icmp", 4, ATC_ICMPV4},
        {"icmpv6-r", 8, ATC_ICMPV6_REQUEST},
        {"icmpv6-n", 8, ATC_ICMPV6_NS},
        {"s", 1, ATC_STP},
        {"r", 1, ATC_RSTP},
        {"d", 1, ATC_DOT1X},
        {"t", 1, ATC_TFTP},
        {"m", 1, ATC_MSTP},
        {"l", 1, ATC_LLDP},
        {"b", 1, ATC_BFD},
        {"f", 1, ATC_FTP},
        {"anything", 0, ATC_STP},
        {"STP", 4, UNTOUCHED},
        {"stpx", 4, UNTOUCHED},
        {"st", 3, UNTOUCHED},
        {"ospf", 5, UNTOUCHED},
        {"", 1, UNTOUCHED},
        {nullptr, 4, UNTOUCHED},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(id_of(row.name, row.len), row.id) << (row.name ? row.name : "null") << " in " << row.len;
    }
    atc_protocol_name_to_id(nullptr, "stp", 3);
}

TEST(protocol, default_limits_by_group) {
    using Limits = std::pair<uint32_t, uint32_t>;
    std::map<uint32_t, Limits> expected;
    for (uint32_t id = 1; id <= 58; ++id) {
        expected[id] = {100, 50};
    }
    for (uint32_t id : {1u,  2u,  3u,  4u,  9u,  11u, 12u, 21u, 25u, 30u, 31u, 32u,
                        33u, 34u, 35u, 36u, 38u, 39u, 43u, 46u, 47u, 50u, 52u}) {
        expected[id] = {12, 10};
    }
    for (uint32_t id : {7u, 8u, 40u, 41u, 54u, 55u}) {
        expected[id] = {30, 20};
    }
    expected[24] = {20, 10};
    expected[44] = {120, 120};
    expected[57] = {10, 5};
    for (const auto &[id, limits] : expected) {
        Limits flow;
        Limits source;
        EXPECT_EQ(atc_protocol_lmt_init(static_cast<int32_t>(id), &flow.first, &flow.second), 0);
        EXPECT_EQ(atc_protocol_src_lmt_init(static_cast<int32_t>(id), &source.first, &source.second), 0);
        EXPECT_EQ(flow, limits) << id;
        EXPECT_EQ(source, limits) << id;
    }
    for (int32_t id : {0, 59, -1, INT32_MIN, INT32_MAX}) {
        Limits limits = {UNTOUCHED, UNTOUCHED};
        EXPECT_EQ(atc_protocol_lmt_init(id, &limits.first, &limits.second), -1) << id;
        EXPECT_EQ(atc_protocol_src_lmt_init(id, &limits.first, &limits.second), -1) << id;
        EXPECT_EQ(limits, Limits(UNTOUCHED, UNTOUCHED)) << id;
    }
}
