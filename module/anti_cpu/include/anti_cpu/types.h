/* SPDX-License-Identifier: Apache-2.0 */
/* types.h: the records and constants that the module shares with the process that loads it.
 *
 * Compiles as C11 and as C++20. Layouts are part of the binary interface; each is pinned by a static assertion below.
 * Numbers are in the processor's byte order, addresses in the order stated at each member.
 */
#ifndef ANTI_CPU_TYPES_H
#define ANTI_CPU_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define ATC_STATIC_ASSERT static_assert
extern "C" {
#else
#define ATC_STATIC_ASSERT _Static_assert
#endif

/* Direction of a packet. */
enum {
    ATC_DIRECTION_RX = 1, /* received: from the switching chip to the CPU */
    ATC_DIRECTION_TX = 2, /* sent: from the CPU */
};

/* Which address identifies a source. */
enum {
    ATC_SRC_NONE = 0, /* no source: the flow itself */
    ATC_SRC_MAC = 1,  /* 6 bytes, as in the frame */
    ATC_SRC_IPV4 = 2, /* 4 bytes, one uint32_t in processor byte order */
    ATC_SRC_IPV6 = 3, /* 16 bytes, as in the packet */
};

/* What a software rule does with a packet that it matches. A rule with any other action is kept and never acts. */
enum {
    ATC_ACTION_DENY = 1,
    ATC_ACTION_PERMIT = 2,
};

/* What a configured hardware filter asks of the switching chip; the three operations are the driver's. */
enum {
    ATC_HW_ACTION_DENY = 1,
    ATC_HW_ACTION_2 = 2,
    ATC_HW_ACTION_3 = 3,
};

enum {
    ATC_PROTOCOL_COUNT = 58,     /* protocol ids are 1..58; 0 is no protocol */
    ATC_NAME_SIZE = 64,          /* bytes of a name, time text or source text, terminator included */
    ATC_SRC_ADDR_SIZE = 16,      /* bytes of a source address, padded with zeros behind shorter ones */
    ATC_SOURCES_PER_FLOW = 2048, /* sources that one flow can hold */
    ATC_RULE_ID_MAX = 2048,      /* ids that the module chooses for software rules are 1..2048 */
};

/* One rule, or one parsed packet: a packet's description is copied whole into a rule and compared member by member.
 * In a rule a member of 0 (an address of all zero bytes) is not part of the match. 104 bytes without gaps. */
typedef struct atc_filter_rule {
    uint32_t id;              /* rule id, unique within its list; 0 in a packet */
    uint32_t sdk_id;          /* entry id of the installed rule in the switching chip; 0 = not installed */
    uint32_t stat_id;         /* statistics id of the installed rule in the switching chip; automatic deny rules only */
    uint32_t port;            /* logical port, or trunk id */
    uint8_t direction;        /* ATC_DIRECTION_* */
    uint8_t src_type;         /* ATC_SRC_*: which address identifies the packet's sender */
    uint16_t hdr_offset;      /* offset in bytes of the next header to read; used while parsing only */
    uint16_t vlan;            /* VLAN id 0..4095: of the outermost tag, else the one that came with the packet */
    uint16_t protocol;        /* protocol class 1..58 */
    uint8_t aux_match;        /* compared by the software checks when not 0; no packet carries it */
    uint8_t ip_protocol;      /* IPv4 protocol (RFC 791) or IPv6 next header (RFC 8200) */
    uint16_t eth_type;        /* EtherType behind the tags, SNAP type, or LLC DSAP (IEEE 802.2) of an 802.3 frame */
    uint8_t src_mac[6];       /* as in the frame */
    uint8_t dst_mac[6];       /* as in the frame */
    uint32_t src_ipv4;        /* processor byte order */
    uint32_t dst_ipv4;        /* processor byte order */
    uint8_t src_ipv6[16];     /* as in the packet */
    uint8_t dst_ipv6[16];     /* as in the packet */
    uint8_t src_mac_masklen;  /* prefix length in bits, 0..48; 0 = none given */
    uint8_t dst_mac_masklen;  /* 0..48 */
    uint8_t src_ipv4_masklen; /* 0..32 */
    uint8_t dst_ipv4_masklen; /* 0..32 */
    uint16_t src_ipv6_masklen; /* 0..128 */
    uint16_t dst_ipv6_masklen; /* 0..128 */
    uint16_t src_port;         /* TCP or UDP, processor byte order; for ICMPv6 type * 256 + code (RFC 4443) */
    uint16_t dst_port;         /* TCP or UDP, processor byte order */
    uint32_t action;           /* ATC_ACTION_* or ATC_HW_ACTION_* */
    uint32_t src_rule;         /* 1 = a deny rule of one source, 0 = of the protocol on the port */
    uint32_t pkt_len;          /* packet: length in bytes; software rule: only longer packets match */
} atc_filter_rule_t;

ATC_STATIC_ASSERT(sizeof(atc_filter_rule_t) == 104, "the rule record has 104 bytes and no gaps");
ATC_STATIC_ASSERT(offsetof(atc_filter_rule_t, src_mac) == 28, "rule record: src_mac");
ATC_STATIC_ASSERT(offsetof(atc_filter_rule_t, src_ipv6) == 48, "rule record: src_ipv6");
ATC_STATIC_ASSERT(offsetof(atc_filter_rule_t, action) == 92, "rule record: action");

/* The parsed packet descriptor: the rule record, its members read as "In a packet". */
typedef atc_filter_rule_t atc_pkt_info_t;

/* One software rule on its list. The list is circular through a head that is no rule: a walk starts at the first node,
 * and the head is that node's prev. */
typedef struct atc_filter_node {
    struct atc_filter_node *next;
    struct atc_filter_node *prev;
    atc_filter_rule_t rule;
} atc_filter_node_t;

/* One source in the listing of a flow's sources. */
typedef struct atc_src_stat {
    uint8_t addr[ATC_SRC_ADDR_SIZE]; /* address by its type; bytes behind it are left as they were */
    uint32_t count;                  /* packets since creation or the last clear; wraps */
} atc_src_stat_t;

ATC_STATIC_ASSERT(sizeof(atc_src_stat_t) == 20, "the source statistic record has 20 bytes");

/* Counters of one rule in the switching chip, filled by hw_driver_get_stat_by_stat_id. */
typedef struct atc_stat_hw {
    uint64_t unused;  /* the module does not read it */
    uint64_t packets; /* packets that the rule has matched since it was installed */
} atc_stat_hw_t;

ATC_STATIC_ASSERT(sizeof(atc_stat_hw_t) == 16, "the chip's statistics record has 16 bytes");

#ifdef __cplusplus
}
#endif

#endif
