// protocol.h: the catalogue of the 58 control-protocol classes.
//
// Owns the one table of names, aliases and default limits; everything that lists protocols is drawn from it. Used by
// the parser, every text and the settings. The exported name look-ups (anti_cpu.h) are implemented here. Pure: no
// state, no lock.
#pragma once

#include <cstdint>

#include "anti_cpu/anti_cpu.h"

enum atc_protocol_t : uint16_t {
    ATC_STP = 1,
    ATC_RSTP,
    ATC_MSTP,
    ATC_LLDP,
    ATC_ISIS,
    ATC_ARP,
    ATC_PPPOE,
    ATC_DOT1X,
    ATC_LACP,
    ATC_DOT3AH,
    ATC_APS,
    ATC_ERPS,
    ATC_Y1731,
    ATC_UNKNOWN_IPV4,
    ATC_UNKNOWN_IPV6,
    ATC_UNKNOWN_IP_FRAGMENT,
    ATC_OSPFV2,
    ATC_OSPFV3,
    ATC_PIM4,
    ATC_PIM6,
    ATC_ICMPV4,
    ATC_IGMP,
    ATC_RSVP,
    ATC_VRRP,
    ATC_UNKNOWN_ICMPV6,
    ATC_MLD_QUERY,
    ATC_MLD_V1REPORT,
    ATC_MLD_V1LEAVE,
    ATC_MLD_V2REPORT,
    ATC_ICMPV6_REQUEST,
    ATC_ICMPV6_REPLY,
    ATC_ICMPV6_RS,
    ATC_ICMPV6_RA,
    ATC_ICMPV6_NS,
    ATC_ICMPV6_NA,
    ATC_ICMPV6_REDIRECT,
    ATC_UNKNOWN_UDP,
    ATC_NTP,
    ATC_RADIUS,
    ATC_DHCP,
    ATC_DHCPV6,
    ATC_LDP,
    ATC_BFD,
    ATC_SNMP,
    ATC_TFTP,
    ATC_TACACS,
    ATC_MPLSOAM,
    ATC_RIP,
    ATC_RIPNG,
    ATC_DNS,
    ATC_UNKNOWN_TCP,
    ATC_TCP_SYN,
    ATC_BGP,
    ATC_TELNET,
    ATC_SSH,
    ATC_FTP,
    ATC_SELF,
    ATC_UNKNOWN_PACKET,
};

static_assert(uint32_t{ATC_UNKNOWN_PACKET} == ATC_PROTOCOL_COUNT, "ids are dense");

// Slots of an array indexed by protocol id; slot 0 is not used.
constexpr uint32_t ATC_PROTOCOL_SLOTS = ATC_PROTOCOL_COUNT + 1;

inline bool atc_protocol_is_valid(uint32_t id) {
    return id >= 1 && id <= ATC_PROTOCOL_COUNT;
}

// Write the default limits of a flow, or of one source, of protocol 'id', in packets per second. Return 0, or -1 with
// nothing written for an id outside 1..58.
int atc_protocol_lmt_init(int32_t id, uint32_t *fp_limit, uint32_t *lp_limit);
int atc_protocol_src_lmt_init(int32_t id, uint32_t *fp_limit, uint32_t *lp_limit);
