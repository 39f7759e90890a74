// SPDX-License-Identifier: Apache-2.0
// l4_ports.h: the transport ports by which the protocols above TCP and UDP are told apart.
//
// Owns that one table. Used by the parser, for the class of a packet, and by the driver's lists, which put a port into
// a hardware rule only when it is one of these. Pure: no state, no lock.
//
// Invariants: (1) the order of the rows is the order of precedence where both ports of a packet are known, for UDP and
// for TCP alike. (2) A port stands in one row. (3) A look-up is one remainder and two loads, whatever the port.
#pragma once

#include <array>
#include <cstdint>

#include "atc/protocol.h"

struct atc_l4_port_t {
    uint16_t port;  // processor byte order
    uint16_t udp;   // class of UDP packets from or to the port, 0 = the port says nothing
    uint16_t tcp;   // the same for TCP
};

constexpr uint32_t ATC_L4_PORT_COUNT = 24;

// The last row stands for every port that is not listed.
constexpr std::array<atc_l4_port_t, ATC_L4_PORT_COUNT + 1> atc_l4_ports = {{
    {123, ATC_NTP, 0},
    {1812, ATC_RADIUS, 0},
    {1813, ATC_RADIUS, 0},
    {67, ATC_DHCP, 0},
    {68, ATC_DHCP, 0},
    {546, ATC_DHCPV6, 0},
    {547, ATC_DHCPV6, 0},
    {646, ATC_LDP, ATC_LDP},
    {179, 0, ATC_BGP},
    {23, 0, ATC_TELNET},
    {22, 0, ATC_SSH},
    {20, 0, ATC_FTP},
    {21, 0, ATC_FTP},
    {3784, ATC_BFD, 0},
    {4784, ATC_BFD, 0},
    {3785, ATC_BFD, 0},
    {161, ATC_SNMP, 0},
    {162, ATC_SNMP, 0},
    {69, ATC_TFTP, 0},
    {49, ATC_TACACS, ATC_TACACS},
    {3503, ATC_MPLSOAM, 0},
    {520, ATC_RIP, 0},
    {521, ATC_RIPNG, 0},
    {53, ATC_DNS, 0},
    {0, 0, 0},
}};

// The smallest divisor that gives every port of the table a remainder of its own.
constexpr uint32_t ATC_L4_SLOT_COUNT = 62;

inline constexpr auto atc_l4_slots = [] {
    std::array<uint8_t, ATC_L4_SLOT_COUNT> rows{};  // row of the port that falls into the slot
    rows.fill(ATC_L4_PORT_COUNT);
    for (uint8_t row = 0; row < ATC_L4_PORT_COUNT; ++row) {
        rows[atc_l4_ports[row].port % ATC_L4_SLOT_COUNT] = row;
    }
    return rows;
}();

// Row of 'port' in atc_l4_ports, ATC_L4_PORT_COUNT when it is not listed.
constexpr uint32_t atc_l4_port_row(uint16_t port) {
    uint32_t row = atc_l4_slots[port % ATC_L4_SLOT_COUNT];
    return atc_l4_ports[row].port == port ? row : ATC_L4_PORT_COUNT;
}

// A port added to the table that needs another divisor, or stands there already, fails here.
static_assert([] {
    for (uint32_t row = 0; row <= ATC_L4_PORT_COUNT; ++row) {
        if (atc_l4_port_row(atc_l4_ports[row].port) != row) {
            return false;
        }
    }
    return true;
}());
