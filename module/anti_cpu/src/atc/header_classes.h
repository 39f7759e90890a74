// SPDX-License-Identifier: Apache-2.0
// header_classes.h: the protocol classes that one byte of a header decides.
//
// Owns these tables. Used by the parser; l4_ports.h has the classes above TCP and UDP. Pure: no state, no lock.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>

#include "atc/protocol.h"

// Classes by the value of one byte; ATC_NO_CLASS for a value that decides nothing.
using atc_classes_t = std::array<uint8_t, 256>;
constexpr uint8_t ATC_NO_CLASS = 0;

struct atc_class_row_t {
    uint8_t value;
    atc_protocol_t protocol;
};

consteval atc_classes_t atc_classes(std::initializer_list<atc_class_row_t> rows, uint16_t otherwise) {
    atc_classes_t by_value;
    by_value.fill(static_cast<uint8_t>(otherwise));
    for (const atc_class_row_t &row : rows) {
        by_value[row.value] = static_cast<uint8_t>(row.protocol);
    }
    return by_value;
}

// Protocol version of a BPDU (IEEE 802.1Q clause 14).
constexpr atc_classes_t atc_bpdu_classes =
    atc_classes({{0, ATC_STP}, {2, ATC_RSTP}, {3, ATC_MSTP}}, ATC_UNKNOWN_PACKET);

// Subtype of a slow protocol (IEEE 802.3 annex 57A).
constexpr atc_classes_t atc_slow_classes = atc_classes({{1, ATC_LACP}, {3, ATC_DOT3AH}}, ATC_UNKNOWN_PACKET);

// OpCode of an OAM frame (ITU-T G.8013/Y.1731 table 9-1).
constexpr atc_classes_t atc_cfm_classes = atc_classes(
    {
        {1, ATC_Y1731},   // continuity check
        {2, ATC_Y1731},   // loopback reply
        {3, ATC_Y1731},   // loopback message
        {4, ATC_Y1731},   // link trace reply
        {5, ATC_Y1731},   // link trace message
        {33, ATC_Y1731},  // alarm indication
        {35, ATC_Y1731},  // lock
        {37, ATC_Y1731},  // test
        {39, ATC_APS},
        {40, ATC_ERPS},
        {42, ATC_Y1731},  // loss measurement reply
        {43, ATC_Y1731},  // loss measurement message
        {45, ATC_Y1731},  // one-way delay measurement
        {46, ATC_Y1731},  // delay measurement reply
        {47, ATC_Y1731},  // delay measurement message
    },
    ATC_UNKNOWN_PACKET);

constexpr atc_classes_t atc_ipv4_classes = atc_classes(
    {{1, ATC_ICMPV4}, {2, ATC_IGMP}, {46, ATC_RSVP}, {89, ATC_OSPFV2}, {103, ATC_PIM4}, {112, ATC_VRRP}}, ATC_NO_CLASS);

constexpr atc_classes_t atc_ipv6_classes = atc_classes({{89, ATC_OSPFV3}, {103, ATC_PIM6}}, ATC_UNKNOWN_IPV6);

// Type of an ICMPv6 message (RFC 4443, RFC 2710, RFC 4861, RFC 3810).
constexpr atc_classes_t atc_icmpv6_classes = atc_classes(
    {
        {128, ATC_ICMPV6_REQUEST},
        {129, ATC_ICMPV6_REPLY},
        {130, ATC_MLD_QUERY},
        {131, ATC_MLD_V1REPORT},
        {132, ATC_MLD_V1LEAVE},
        {133, ATC_ICMPV6_RS},
        {134, ATC_ICMPV6_RA},
        {135, ATC_ICMPV6_NS},
        {136, ATC_ICMPV6_NA},
        {137, ATC_ICMPV6_REDIRECT},
        {143, ATC_MLD_V2REPORT},
    },
    ATC_UNKNOWN_ICMPV6);
