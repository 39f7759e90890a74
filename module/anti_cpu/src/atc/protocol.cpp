// SPDX-License-Identifier: Apache-2.0
// protocol.cpp: the catalogue's table and the look-ups in it.
//
// A name is written once, in the table; the order in which names are tried lists rows, not names. No state, no lock.
// Uses the platform's bounded string functions.
#include "atc/protocol.h"

#include <iterator>

#include "anti_cpu/platform.h"

namespace {

struct catalogue_row_t {
    uint16_t id;
    const char *name;
    const char *alias;  // further name that is understood, or null
    uint32_t fp_limit;  // packets per second, of a flow and of a source
    uint32_t lp_limit;
};

constexpr catalogue_row_t catalogue[] = {
    {ATC_STP, "stp", nullptr, 12, 10},
    {ATC_RSTP, "rstp", nullptr, 12, 10},
    {ATC_MSTP, "mstp", nullptr, 12, 10},
    {ATC_LLDP, "lldp", nullptr, 12, 10},
    {ATC_ISIS, "isis", nullptr, 100, 50},
    {ATC_ARP, "arp", nullptr, 100, 50},
    {ATC_PPPOE, "pppoe", nullptr, 30, 20},
    {ATC_DOT1X, "dot1x", nullptr, 30, 20},
    {ATC_LACP, "lacp", nullptr, 12, 10},
    {ATC_DOT3AH, "dot3ah", "efm", 100, 50},
    {ATC_APS, "aps", "g8031", 12, 10},
    {ATC_ERPS, "erps", "g8032", 12, 10},
    {ATC_Y1731, "y1731", "cfm", 100, 50},
    {ATC_UNKNOWN_IPV4, "unknown-ipv4", nullptr, 100, 50},
    {ATC_UNKNOWN_IPV6, "unknown-ipv6", nullptr, 100, 50},
    {ATC_UNKNOWN_IP_FRAGMENT, "unknown-ip-fragment", nullptr, 100, 50},
    {ATC_OSPFV2, "ospfv2", nullptr, 100, 50},
    {ATC_OSPFV3, "ospfv3", nullptr, 100, 50},
    {ATC_PIM4, "pim4", nullptr, 100, 50},
    {ATC_PIM6, "pim6", nullptr, 100, 50},
    {ATC_ICMPV4, "icmpv4", nullptr, 12, 10},
    {ATC_IGMP, "igmp", nullptr, 100, 50},
    {ATC_RSVP, "rsvp", nullptr, 100, 50},
    {ATC_VRRP, "vrrp", nullptr, 20, 10},
    {ATC_UNKNOWN_ICMPV6, "unknown-icmpv6", nullptr, 12, 10},
    {ATC_MLD_QUERY, "mld-query", nullptr, 100, 50},
    {ATC_MLD_V1REPORT, "mld-v1report", nullptr, 100, 50},
    {ATC_MLD_V1LEAVE, "mld-v1leave", nullptr, 100, 50},
    {ATC_MLD_V2REPORT, "mld-v2report", nullptr, 100, 50},
    {ATC_ICMPV6_REQUEST, "icmpv6-request", nullptr, 12, 10},
    {ATC_ICMPV6_REPLY, "icmpv6-reply", nullptr, 12, 10},
    {ATC_ICMPV6_RS, "icmpv6-rs", nullptr, 12, 10},
    {ATC_ICMPV6_RA, "icmpv6-ra", nullptr, 12, 10},
    {ATC_ICMPV6_NS, "icmpv6-ns", nullptr, 12, 10},
    {ATC_ICMPV6_NA, "icmpv6-na", nullptr, 12, 10},
    {ATC_ICMPV6_REDIRECT, "icmpv6-redirect", nullptr, 12, 10},
    {ATC_UNKNOWN_UDP, "unknown-udp", nullptr, 100, 50},
    {ATC_NTP, "ntp", nullptr, 12, 10},
    {ATC_RADIUS, "radius", nullptr, 12, 10},
    {ATC_DHCP, "dhcp", nullptr, 30, 20},
    {ATC_DHCPV6, "dhcpv6", nullptr, 30, 20},
    {ATC_LDP, "ldp", nullptr, 100, 50},
    {ATC_BFD, "bfd", nullptr, 12, 10},
    {ATC_SNMP, "snmp", nullptr, 120, 120},
    {ATC_TFTP, "tftp", nullptr, 100, 50},
    {ATC_TACACS, "tacacs", nullptr, 12, 10},
    {ATC_MPLSOAM, "mplsoam", nullptr, 12, 10},
    {ATC_RIP, "rip", nullptr, 100, 50},
    {ATC_RIPNG, "ripng", nullptr, 100, 50},
    {ATC_DNS, "dns", nullptr, 12, 10},
    {ATC_UNKNOWN_TCP, "unknown-tcp", nullptr, 100, 50},
    {ATC_TCP_SYN, "tcp-syn", nullptr, 12, 10},
    {ATC_BGP, "bgp", nullptr, 100, 50},
    {ATC_TELNET, "telnet", nullptr, 30, 20},
    {ATC_SSH, "ssh", nullptr, 30, 20},
    {ATC_FTP, "ftp", nullptr, 100, 50},
    {ATC_SELF, "self", nullptr, 10, 5},
    {ATC_UNKNOWN_PACKET, "unknown-packet", nullptr, 100, 50},
};

// The names in the order in which they are tried. A caller that compares fewer characters than a name has gets the
// first that begins so: the order is part of the interface.
constexpr uint16_t ALIAS = 0x100;
constexpr uint16_t ID_MASK = 0xFF;

constexpr uint16_t look_up_order[] = {
    // clang-format off
    ATC_STP, ATC_RSTP, ATC_MSTP, ATC_LLDP, ATC_ISIS, ATC_ARP, ATC_PPPOE, ATC_DOT1X, ATC_LACP, ATC_DOT3AH | ALIAS,
    ATC_DOT3AH, ATC_APS | ALIAS, ATC_APS, ATC_ERPS | ALIAS, ATC_ERPS, ATC_Y1731, ATC_Y1731 | ALIAS,
    ATC_UNKNOWN_IPV4, ATC_UNKNOWN_IP_FRAGMENT, ATC_UNKNOWN_IPV6, ATC_OSPFV2, ATC_OSPFV3, ATC_PIM4, ATC_PIM6,
    ATC_ICMPV4, ATC_IGMP, ATC_RSVP, ATC_VRRP, ATC_MLD_QUERY, ATC_MLD_V1REPORT, ATC_MLD_V1LEAVE, ATC_MLD_V2REPORT,
    ATC_UNKNOWN_ICMPV6, ATC_ICMPV6_REQUEST, ATC_ICMPV6_REPLY, ATC_ICMPV6_RS, ATC_ICMPV6_RA, ATC_ICMPV6_NS,
    ATC_ICMPV6_NA, ATC_ICMPV6_REDIRECT, ATC_UNKNOWN_UDP, ATC_NTP, ATC_RADIUS, ATC_DHCP, ATC_DHCPV6, ATC_MPLSOAM,
    ATC_RIP, ATC_RIPNG, ATC_DNS, ATC_LDP, ATC_BFD, ATC_SNMP, ATC_TFTP, ATC_TACACS, ATC_UNKNOWN_TCP, ATC_TCP_SYN,
    ATC_BGP, ATC_TELNET, ATC_SSH, ATC_FTP, ATC_SELF, ATC_UNKNOWN_PACKET,
    // clang-format on
};

consteval bool catalogue_is_dense() {
    for (uint32_t i = 0; i < std::size(catalogue); ++i) {
        if (catalogue[i].id != i + 1) {
            return false;
        }
    }
    return std::size(catalogue) == ATC_PROTOCOL_COUNT;
}

consteval uint32_t times_tried(uint32_t candidate) {
    uint32_t times = 0;
    for (uint16_t entry : look_up_order) {
        times += entry == candidate ? 1 : 0;
    }
    return times;
}

consteval bool every_name_is_tried_once() {
    for (const catalogue_row_t &row : catalogue) {
        if (times_tried(row.id) != 1 || times_tried(row.id | ALIAS) != (row.alias != nullptr ? 1 : 0)) {
            return false;
        }
    }
    return true;
}

static_assert(catalogue_is_dense(), "58 rows, each at its id");
static_assert(every_name_is_tried_once());

}  // namespace

static const catalogue_row_t &row_of(uint32_t id);

void atc_protocol_id_to_name(uint32_t id, char *buf, uint32_t size) {
    if (buf == nullptr) {
        return;
    }
    bep_StrNCpy(buf, row_of(atc_protocol_is_valid(id) ? id : uint32_t{ATC_UNKNOWN_PACKET}).name, size);
}

void atc_protocol_name_to_id(uint32_t *id, const char *name, uint32_t len) {
    if (id == nullptr || name == nullptr) {
        return;
    }
    for (uint16_t entry : look_up_order) {
        const catalogue_row_t &row = row_of(entry & ID_MASK);
        if (bep_StrNCmp(name, (entry & ALIAS) != 0 ? row.alias : row.name, len) == 0) {
            *id = row.id;
            return;
        }
    }
}

int atc_protocol_lmt_init(int32_t id, uint32_t *fp_limit, uint32_t *lp_limit) {
    if (!atc_protocol_is_valid(static_cast<uint32_t>(id))) {
        return -1;
    }
    *fp_limit = row_of(static_cast<uint32_t>(id)).fp_limit;
    *lp_limit = row_of(static_cast<uint32_t>(id)).lp_limit;
    return 0;
}

int atc_protocol_src_lmt_init(int32_t id, uint32_t *fp_limit, uint32_t *lp_limit) {
    return atc_protocol_lmt_init(id, fp_limit, lp_limit);
}

static const catalogue_row_t &row_of(uint32_t id) {
    return catalogue[id - 1];
}
