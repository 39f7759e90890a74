/* SPDX-License-Identifier: Apache-2.0 */
/* protocols.h: the 58 classes of control packets: ids, and which frames belong to which class.
 *
 * Compiles as C11 and as C++20. Ids are part of the binary interface: they are dense, and none ever changes its
 * meaning. A packet belongs to exactly one class. Behind each id: its name where that is not the enumerator's own in
 * lower case with '-' for '_', then what a frame is recognised by. VLAN tags (EtherTypes 0x8100, 0x88A8, 0x9100, at
 * most four) and MPLS labels (0x8847, at most four) are passed over first; an 802.3 frame is known by its SNAP type or
 * its LLC DSAP. Transport ports count as source or as destination; where two fit, the class that stands first here
 * wins, but for tcp-syn, which goes before every port. No class looks at the destination MAC address. Default limits,
 * packets per second in a fast and in a long period, the same for a flow and for one source: [A] 12/10, [B] 100/50, [C]
 * 30/20, [D] 20/10, [E] 120/120, [F] 10/5.
 */
#ifndef ANTI_CPU_PROTOCOLS_H
#define ANTI_CPU_PROTOCOLS_H

#ifdef __cplusplus
#include <cstdint>
enum atc_protocol_t : uint16_t {
#else
typedef enum {
#endif
    /* Link layer. */
    ATC_STP = 1, /* [A] DSAP 0x42 (IEEE 802.1D) or type 0x0842, protocol version 0 */
    ATC_RSTP,    /* [A] the same, version 2 (IEEE 802.1w) */
    ATC_MSTP,    /* [A] the same, version 3 (IEEE 802.1s) */
    ATC_LLDP,    /* [A] 0x88CC (IEEE 802.1AB) */
    ATC_ISIS,    /* [B] DSAP 0xFE (ISO 10589) */
    ATC_ARP,     /* [B] 0x0806 (RFC 826) */
    ATC_PPPOE,   /* [C] 0x8863, 0x8864 (RFC 2516) */
    ATC_DOT1X,   /* [C] 0x888E (IEEE 802.1X) */
    ATC_LACP,    /* [A] 0x8809, subtype 1 (IEEE 802.1AX) */
    ATC_DOT3AH,  /* [B] 0x8809, subtype 3 (IEEE 802.3 clause 57); also "efm" */
    ATC_APS,     /* [A] 0x8902, opcode 39 (ITU-T G.8031); also "g8031" */
    ATC_ERPS,    /* [A] 0x8902, opcode 40 (ITU-T G.8032); also "g8032" */
    ATC_Y1731,   /* [B] 0x8902, opcodes 1 to 5, 33, 35, 37, 42, 43, 45 to 47 (ITU-T Y.1731); also "cfm" */

    /* IP by its protocol or next header; one hop-by-hop header of IPv6 is passed over. */
    ATC_UNKNOWN_IPV4,        /* [B] 0x0800, none of the protocols below */
    ATC_UNKNOWN_IPV6,        /* [B] 0x86DD, none of the next headers below */
    ATC_UNKNOWN_IP_FRAGMENT, /* [B] unknown-ipv4 with the more-fragments flag set */
    ATC_OSPFV2,              /* [B] IPv4, 89 (RFC 2328) */
    ATC_OSPFV3,              /* [B] IPv6, 89 (RFC 5340) */
    ATC_PIM4,                /* [B] IPv4, 103 (RFC 7761) */
    ATC_PIM6,                /* [B] IPv6, 103 */
    ATC_ICMPV4,              /* [A] IPv4, 1 (RFC 792) */
    ATC_IGMP,                /* [B] IPv4, 2 (RFC 3376) */
    ATC_RSVP,                /* [B] IPv4, 46 (RFC 2205) */
    ATC_VRRP,                /* [D] IPv4, 112 (RFC 5798) */

    /* ICMPv6 by its type (RFC 4443, RFC 4861, RFC 2710, RFC 3810). */
    ATC_UNKNOWN_ICMPV6,  /* [A] none of the types below */
    ATC_MLD_QUERY,       /* [B] 130 */
    ATC_MLD_V1REPORT,    /* [B] 131 */
    ATC_MLD_V1LEAVE,     /* [B] 132 */
    ATC_MLD_V2REPORT,    /* [B] 143 */
    ATC_ICMPV6_REQUEST,  /* [A] 128 */
    ATC_ICMPV6_REPLY,    /* [A] 129 */
    ATC_ICMPV6_RS,       /* [A] 133 */
    ATC_ICMPV6_RA,       /* [A] 134 */
    ATC_ICMPV6_NS,       /* [A] 135 */
    ATC_ICMPV6_NA,       /* [A] 136 */
    ATC_ICMPV6_REDIRECT, /* [A] 137 */

    /* UDP by port; LDP and TACACS over TCP as well. */
    ATC_UNKNOWN_UDP, /* [B] none of the ports below */
    ATC_NTP,         /* [A] 123 */
    ATC_RADIUS,      /* [A] 1812, 1813 */
    ATC_DHCP,        /* [C] 67, 68 */
    ATC_DHCPV6,      /* [C] 546, 547 */
    ATC_LDP,         /* [B] 646; over TCP 646 */
    ATC_BFD,         /* [A] 3784, 3785, 4784 */
    ATC_SNMP,        /* [E] 161, 162 */
    ATC_TFTP,        /* [B] 69 */
    ATC_TACACS,      /* [A] 49; over TCP 49, behind the classes of TCP below */
    ATC_MPLSOAM,     /* [A] 3503 */
    ATC_RIP,         /* [B] 520 */
    ATC_RIPNG,       /* [B] 521 */
    ATC_DNS,         /* [A] 53 */

    /* TCP by the SYN bit, then by port. */
    ATC_UNKNOWN_TCP, /* [B] none of the ports */
    ATC_TCP_SYN,     /* [A] the SYN bit is set, an ACK beside it or not */
    ATC_BGP,         /* [B] 179 */
    ATC_TELNET,      /* [C] 23 */
    ATC_SSH,         /* [C] 22 */
    ATC_FTP,         /* [B] 20, 21 */

    /* The rest. */
    ATC_SELF,           /* [F] received, from the device's own MAC address */
    ATC_UNKNOWN_PACKET, /* [B] none of all these, or too short to tell */
#ifdef __cplusplus
};
#else
} atc_protocol_t;
#endif

#endif
