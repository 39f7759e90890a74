/* parse.bpf.h: from a frame to its key and its class, in the kernel.
 *
 * Gives what the software chip's decoder gives (frame_key.cpp) and what the module's parser gives (class, VLAN,
 * source); both are held against it on mutated frames. Only the linear part of a frame is read, which holds its
 * headers.
 *
 * SPDX-License-Identifier: MIT OR GPL-2.0-only
 */
#ifndef ANTI_CPU_KERNEL_PARSE_BPF_H
#define ANTI_CPU_KERNEL_PARSE_BPF_H

#include <linux/bpf.h>

#include <bpf/bpf_helpers.h>

#include "anti_cpu/protocols.h"
#include "record.h"

/* Set before the program is loaded. */
const volatile struct kernel_classes classes;
const volatile __u8 device_mac[6] __attribute__((aligned(2))); /* frames from it are the device's own */

enum {
    ETH_HEADER = 14,
    TAG = 4, /* IEEE 802.1Q 9.3; an MPLS label (RFC 3032) likewise */
    LLC = 3,
    SNAP = 8,
    MAX_TAGS = 4,
    MAX_LABELS = 4,
    LENGTH_MAX = 1500,   /* IEEE 802.3 clause 3.2.6: up to here the type is a length */
    OFFSET_MASK = 0xfff, /* no header begins behind it; for the verifier */
    IPV4_HEADER = 20,
    IPV6_HEADER = 40,
    TCP_FLAGS = 13,
    TCP_SYN = 2,
    MORE_FRAGMENTS = 0x20, /* in the first byte of the offset field */
    SNAP_SAP = 0xAA,
};

enum {
    TYPE_IPV4 = 0x0800,
    TYPE_ARP = 0x0806,
    TYPE_BPDU = 0x0842,
    TYPE_VLAN = 0x8100,
    TYPE_IPV6 = 0x86DD,
    TYPE_SLOW = 0x8809,
    TYPE_MPLS = 0x8847,
    TYPE_PPPOE_DISCOVERY = 0x8863,
    TYPE_PPPOE_SESSION = 0x8864,
    TYPE_DOT1X = 0x888E,
    TYPE_SERVICE_VLAN = 0x88A8,
    TYPE_LLDP = 0x88CC,
    TYPE_CFM = 0x8902,
    TYPE_OLD_SERVICE_VLAN = 0x9100,
    DSAP_BPDU = 0x42,
    DSAP_ISIS = 0xFE,
};

enum {
    NEXT_HOP_BY_HOP = 0,
    NEXT_TCP = 6,
    NEXT_UDP = 17,
    NEXT_ICMPV6 = 58,
};

/* Numbers of source types; types.h has them for the module. */
enum {
    SOURCE_MAC = 1,
    SOURCE_IPV4 = 2,
    SOURCE_IPV6 = 3,
};

/* Presence bits, by the numbers of card::Field. */
enum {
    HAS_SRC_MAC = 1 << 0,
    HAS_DST_MAC = 1 << 1,
    HAS_VLAN = 1 << 2,
    HAS_ETH_TYPE = 1 << 3,
    HAS_IP_PROTOCOL = 1 << 4,
    HAS_SRC_PORT = 1 << 5,
    HAS_DST_PORT = 1 << 6,
    HAS_SRC_IPV4 = 1 << 7,
    HAS_DST_IPV4 = 1 << 8,
    HAS_SRC_IPV6 = 1 << 9,
    HAS_DST_IPV6 = 1 << 10,
    LINK_LAYER = 1 << 11, /* neither IPv4, IPv6 nor ARP */
};

struct cursor {
    const __u8 *frame;
    const __u8 *end;
    __u64 at;
};

/* The bytes at the cursor, or null where not all of them are there. */
static __always_inline const __u8 *peek(const struct cursor *c, __u32 count) {
    const __u8 *p = c->frame + (c->at & OFFSET_MASK);
    return p + count <= c->end ? p : 0;
}

static __always_inline __u16 read16(const __u8 *p) {
    return (__u16)(p[0] << 8 | p[1]);
}

static __always_inline void put16(__u8 *to, __u16 value) {
    to[0] = (__u8)(value >> 8);
    to[1] = (__u8)value;
}

/* A MAC address, by words of two bytes: at the beginning of a frame they are aligned on every machine. What is stored
 * by bytes, the processor cannot hand on to whoever loads it by words at once. */
static __always_inline void copy_mac(void *to, const void *from) {
    for (int i = 0; i < 3; i++) {
        ((__u16 *)to)[i] = ((const __u16 *)from)[i];
    }
}

static __always_inline int same_mac(const void *a, const volatile void *b) {
    __u32 differ = 0;
    for (int i = 0; i < 3; i++) {
        differ |= ((const __u16 *)a)[i] ^ ((const volatile __u16 *)b)[i];
    }
    return differ == 0;
}

static __always_inline void set_source(struct kernel_parsed *out, __u32 type, const __u8 *bytes, __u32 count) {
    __builtin_memset(out->flow.src, 0, sizeof(out->flow.src));
    __builtin_memcpy(out->flow.src, bytes, count);
    out->flow.src_type = type;
}

static __always_inline __u16 port_class(__u16 src, __u16 dst, int is_tcp, __u16 otherwise) {
    const __u32 slots = classes.slots;
    if (slots == 0) {
        return otherwise;
    }
    __u32 a = classes.row[(src % slots) & 63] & 63;
    __u32 b = classes.row[(dst % slots) & 63] & 63;
    a = classes.port[a] == src && a < classes.rows ? a : classes.rows & 63;
    b = classes.port[b] == dst && b < classes.rows ? b : classes.rows & 63;
    /* The verifier of 6.1 follows a comparison into branches that cannot be: bounds are given again behind it. */
    __u32 first = a < b ? a : b;
    __u32 second = a < b ? b : a;
    __asm__ volatile("" : "+r"(first), "+r"(second));
    first &= 63;
    second &= 63;
    const __u16 by_first = is_tcp ? classes.tcp[first] : classes.udp[first];
    const __u16 by_second = is_tcp ? classes.tcp[second] : classes.udp[second];
    return by_first != 0 ? by_first : by_second != 0 ? by_second : otherwise;
}

/* Ports as far as they are there. */
static __always_inline __u16 transport(struct cursor *c, __u8 protocol, int is_ipv6, __u16 known,
                                       struct kernel_parsed *out) {
    union kernel_key *key = &out->key;
    const int has_ports = protocol == NEXT_TCP || protocol == NEXT_UDP;
    if (!has_ports && !(protocol == NEXT_ICMPV6 && is_ipv6)) {
        return known;
    }
    const __u8 *p = peek(c, 2);
    __u16 presence = 0;
    __u16 src = 0;
    __u16 dst = 0;
    if (p) {
        key->src_port[0] = p[0];
        key->src_port[1] = p[1];
        src = read16(p);
        presence |= HAS_SRC_PORT;
    }
    if (!has_ports) {
        key->presence[0] |= (__u8)presence;
        return p ? classes.icmpv6[p[0]] : ATC_UNKNOWN_ICMPV6;
    }
    p = peek(c, 4);
    if (p) {
        key->dst_port[0] = p[2];
        key->dst_port[1] = p[3];
        dst = read16(p + 2);
        presence |= HAS_DST_PORT;
    }
    key->presence[0] |= (__u8)presence;
    if (protocol == NEXT_UDP) {
        return p ? port_class(src, dst, 0, ATC_UNKNOWN_UDP) : ATC_UNKNOWN_UDP;
    }
    p = peek(c, TCP_FLAGS + 1);
    if (!p) {
        return ATC_UNKNOWN_TCP;
    }
    return p[TCP_FLAGS] & TCP_SYN ? ATC_TCP_SYN : port_class(src, dst, 1, ATC_UNKNOWN_TCP);
}

/* RFC 791. The chip reads ports where they would stand even when the header is cut; the class wants it whole. */
static __always_inline __u16 parse_ipv4(struct cursor *c, struct kernel_parsed *out) {
    union kernel_key *key = &out->key;
    const __u8 *p = peek(c, 1);
    if (!p) {
        return ATC_UNKNOWN_IPV4;
    }
    const __u8 header = (p[0] & 0x0f) * 4;
    p = peek(c, 10);
    if (!p) {
        return ATC_UNKNOWN_IPV4;
    }
    const __u8 protocol = p[9];
    const __u8 more = p[6] & MORE_FRAGMENTS;
    key->ip_protocol = protocol;
    key->presence[0] |= HAS_IP_PROTOCOL;
    p = peek(c, 16);
    if (p) {
        __builtin_memcpy(key->src_ipv4, p + 12, 4);
        key->presence[0] |= HAS_SRC_IPV4;
        set_source(out, SOURCE_IPV4, p + 12, 4);
    }
    p = peek(c, IPV4_HEADER);
    if (p) {
        __builtin_memcpy(key->dst_ipv4, p + 16, 4);
        key->presence[1] |= HAS_DST_IPV4 >> 8;
    }
    __u16 known = classes.ipv4[protocol];
    if (known == 0) {
        known = more ? ATC_UNKNOWN_IP_FRAGMENT : ATC_UNKNOWN_IPV4;
    }
    c->at += header;
    known = transport(c, protocol, 0, known, out);
    out->is_cut = p == 0;
    return p ? known : ATC_UNKNOWN_IPV4;
}

/* RFC 8200. One hop-by-hop header is passed; any other extension header is the protocol. */
static __always_inline __u16 parse_ipv6(struct cursor *c, struct kernel_parsed *out) {
    union kernel_key *key = &out->key;
    const __u8 *p = peek(c, 7);
    if (!p) {
        return ATC_UNKNOWN_IPV6;
    }
    __u8 protocol = p[6];
    p = peek(c, 24);
    if (p) {
        __builtin_memcpy(key->src_ipv6, p + 8, 16);
        key->presence[1] |= HAS_SRC_IPV6 >> 8;
        set_source(out, SOURCE_IPV6, p + 8, 16);
    }
    const __u8 *whole = peek(c, IPV6_HEADER);
    if (whole) {
        __builtin_memcpy(key->dst_ipv6, whole + 24, 16);
        key->presence[1] |= HAS_DST_IPV6 >> 8;
    }
    c->at += IPV6_HEADER;
    if (protocol == NEXT_HOP_BY_HOP) {
        p = peek(c, 2);
        if (!p) {
            return ATC_UNKNOWN_IPV6;
        }
        protocol = p[0];
        c->at += ((__u64)p[1] + 1) * 8;
    }
    key->ip_protocol = protocol;
    key->presence[0] |= HAS_IP_PROTOCOL;
    const __u16 known = transport(c, protocol, 1, classes.ipv6[protocol], out);
    return whole ? known : ATC_UNKNOWN_IPV6;
}

static __always_inline __u16 byte_class(const struct cursor *c, __u32 offset, const volatile __u8 *table) {
    const __u8 *p = peek(c, offset + 1);
    return p ? table[p[offset]] : ATC_UNKNOWN_PACKET;
}

/* The class of what lies behind the type; 0 for IP of another version. */
static __always_inline __u16 parse_type(struct cursor *c, __u16 type, struct kernel_parsed *out) {
    switch (type) {
        case TYPE_IPV4:
        case TYPE_IPV6: {
            const __u8 *p = peek(c, 1);
            if (!p) {
                return type == TYPE_IPV6 ? ATC_UNKNOWN_IPV6 : ATC_UNKNOWN_IPV4;
            }
            return p[0] >> 4 == 4 ? parse_ipv4(c, out) : p[0] >> 4 == 6 ? parse_ipv6(c, out) : 0;
        }
        case TYPE_ARP:
            return ATC_ARP;
        case DSAP_BPDU:
        case TYPE_BPDU:
            return byte_class(c, 2, classes.bpdu);
        case DSAP_ISIS:
            return ATC_ISIS;
        case TYPE_PPPOE_DISCOVERY:
        case TYPE_PPPOE_SESSION:
            return ATC_PPPOE;
        case TYPE_SLOW:
            return byte_class(c, 0, classes.slow);
        case TYPE_LLDP:
            return ATC_LLDP;
        case TYPE_DOT1X:
            return ATC_DOT1X;
        case TYPE_CFM:
            return byte_class(c, 1, classes.cfm);
        default:
            return ATC_UNKNOWN_PACKET;
    }
}

/* Walks over tags and labels. 1: a type follows, in '*type'; 0: cut off; -1: too many. */
static __always_inline int skip_tags(struct cursor *c, __u16 *type, struct kernel_parsed *out) {
    int tags = 0;
    int labels = 0;
    for (int i = 0; i <= MAX_TAGS + MAX_LABELS; i++) {
        const int is_label = *type == TYPE_MPLS;
        if (!is_label && *type != TYPE_VLAN && *type != TYPE_SERVICE_VLAN && *type != TYPE_OLD_SERVICE_VLAN) {
            return 1;
        }
        if (is_label ? labels++ == MAX_LABELS : tags++ == MAX_TAGS) {
            return -1;
        }
        out->is_labelled |= (__u32)is_label;
        const __u8 *p = peek(c, 2);
        if (!is_label && tags == 1 && p) {
            out->flow.vlan = read16(p) & 0x0fff;
            put16(out->key.vlan, out->flow.vlan);
        }
        p = peek(c, TAG);
        if (!p) {
            return 0;
        }
        *type = read16(p + 2);
        c->at += TAG;
    }
    return -1;
}

/* An 802.3 frame: the type is that of its SNAP header, or the DSAP (IEEE 802.2). 0: cut off. */
static __always_inline int skip_llc(struct cursor *c, __u16 *type) {
    const __u8 *p = peek(c, 1);
    if (!p) {
        return 0;
    }
    if (p[0] != SNAP_SAP) {
        *type = p[0];
        c->at += LLC;
        return 1;
    }
    p = peek(c, SNAP);
    if (!p) {
        return 0;
    }
    *type = read16(p + 6);
    c->at += SNAP;
    return 1;
}

/* Fills '*out', but for flow.port, from the frame, which came in where frames without a tag are in 'vlan'. A function
 * of its own: inlined, it would take the verifier too many steps. Returns 0. */
__attribute__((noinline)) int parse_frame(struct xdp_md *ctx, __u32 vlan, struct kernel_parsed *out) {
    if (!out) {
        return -1;
    }
    struct cursor c = {(const __u8 *)(long)ctx->data, (const __u8 *)(long)ctx->data_end, 0};
    __builtin_memset(out, 0, sizeof(*out));
    out->flow.vlan = vlan & 0x0fff;
    put16(out->key.vlan, out->flow.vlan);
    out->key.presence[0] = HAS_VLAN;
    out->key.presence[1] = LINK_LAYER >> 8;
    const __u8 *p = peek(&c, 6);
    if (p) {
        copy_mac(out->key.dst_mac, p);
        out->key.presence[0] |= HAS_DST_MAC;
    }
    int is_own = 0;
    p = peek(&c, 12);
    if (p) {
        copy_mac(out->key.src_mac, p + 6);
        copy_mac(out->flow.src, p + 6);
        out->key.presence[0] |= HAS_SRC_MAC;
        out->flow.src_type = SOURCE_MAC;
        is_own = same_mac(p + 6, device_mac);
    }
    __u16 class = ATC_UNKNOWN_PACKET;
    p = peek(&c, ETH_HEADER);
    if (p) {
        __u16 type = read16(p + 12);
        c.at = ETH_HEADER;
        const int found = skip_tags(&c, &type, out);
        if (found < 0) {
            class = 0;
        } else if (found > 0 && (type > LENGTH_MAX || skip_llc(&c, &type))) {
            put16(out->key.eth_type, type);
            out->key.presence[0] |= HAS_ETH_TYPE;
            if (type == TYPE_IPV4 || type == TYPE_IPV6 || type == TYPE_ARP) {
                out->key.presence[1] &= (__u8) ~(LINK_LAYER >> 8);
            }
            class = parse_type(&c, type, out);
        }
    }
    if (is_own) {
        class = ATC_SELF; /* known by the source alone, so its tag is not read */
        out->flow.vlan = vlan & 0x0fff;
        out->flow.src_type = 0;
        __builtin_memset(out->flow.src, 0, sizeof(out->flow.src));
    }
    out->flow.protocol = class;
    return 0;
}

#endif
