/* record.h: what the kernel's half of the chip and the process share: keys, counters, and the copies in the ring.
 *
 * Compiles as C for clang's bpf target and as C++. Layouts are pinned below; numbers are in processor byte order unless
 * a comment says otherwise. Used by: guard.bpf.c, and the process through the skeleton that is built from it.
 *
 * SPDX-License-Identifier: MIT OR GPL-2.0-only
 */
#ifndef ANTI_CPU_KERNEL_RECORD_H
#define ANTI_CPU_KERNEL_RECORD_H

#include <linux/types.h>

enum {
    KERNEL_MASKS = 64,          /* kinds of rules that the search holds at once; see kernel_mask */
    KERNEL_RULES = 1 << 16,     /* entries of the rule map: a rule takes one for each of its ports */
    KERNEL_COUNTERS = 1 << 14,  /* rules that count */
    KERNEL_DENIES = 1 << 16,    /* software denies */
    KERNEL_FILTERS = 1 << 14,   /* what the operator permits and denies */
    KERNEL_PORTS = 1 << 10,     /* interfaces */
    KERNEL_ADDRESSES = 1 << 14, /* of this machine */
    KERNEL_COPY_MAX = 16384,    /* bytes; a longer frame (one that the system has put together) is cut there */
    KERNEL_CLASSES = 256,
};

/* What a rule can ask of a frame. The layout is that of card::KeyBits (frame_key.h), which is held against it. */
union kernel_key {
    __u64 words[8];
    __u8 bytes[64];
    struct {
        __u8 src_mac[6];
        __u8 dst_mac[6];
        __u8 vlan[2]; /* network byte order, as are the next ones */
        __u8 eth_type[2];
        __u8 ip_protocol;
        __u8 unused;
        __u8 src_port[2];
        __u8 dst_port[2];
        __u8 src_ipv4[4];
        __u8 dst_ipv4[4];
        __u8 src_ipv6[16];
        __u8 dst_ipv6[16];
        __u8 presence[2]; /* bit n of byte n / 8: the field number n of card::Field is there */
    };
};

/* Whom a software deny is about. The whole flow where src_type is 0. All bytes count: zero it before filling. */
struct kernel_flow {
    __u8 src[16];   /* MAC or IP address as in the frame, zeros behind */
    __u32 port;     /* as the process numbers ports */
    __u16 vlan;     /* 0 to 4095 */
    __u16 protocol; /* class */
    __u32 src_type; /* ATC_SRC_*; 0 = none */
};

struct kernel_rule_key {
    union kernel_key key; /* under the mask of its slot */
    __u32 slot;           /* of the mask */
    __u32 port;
};

/* What a frame under a key comes to: the oldest deny and the oldest counting rule; entry id 0 = there is none. */
struct kernel_rule {
    __u32 deny_entry;
    __u32 deny_counter; /* index */
    __u32 count_entry;
    __u32 count_counter;
};

/* What the operator's permit and deny rules ask of a frame is looked up like a chip rule, by fields that are there. Two
 * places of the key that they have no use for hold more: */
enum {
    FILTER_CLASS = 16, /* the class, where the IP protocol stands */
    FILTER_PORT = 17,  /* 1 in the value and 0xff in the mask of one that names a port; 1 in every frame's key */
};

/* What the operator's rules under such a key come to: the fewest bytes of a frame that they permit and deny. */
struct kernel_filter {
    __u32 permit_from;
    __u32 deny_from;
};
#define KERNEL_NEVER 0xffffffffU /* bytes: more than any frame has */

/* An interface that is watched. */
struct kernel_port {
    __u32 port;
    __u32 logical; /* the trunk that it is a member of, or the port: what the operator's rules name */
    __u32 index;   /* of its counters */
    __u16 vlan;    /* of frames without a tag */
    __u8 all;      /* 1: every frame is for this processor */
    __u8 unused;
};

/* Frames of a port since it was attached. offered = stopped + dropped + passed. */
struct kernel_counts {
    __u64 offered; /* for this processor */
    __u64 stopped; /* by a chip rule */
    __u64 dropped; /* by a software deny */
    __u64 passed;
    __u64 transit; /* not for this processor: not looked at further */
    __u64 blind;   /* let through uncounted, because the process did not show itself */
    __u64 lost;    /* copies that found no room in the ring */
    __u64 sent;    /* by this machine */
};

/* An address of this machine: MAC (family 0), IPv4 (4) or IPv6 (6). */
struct kernel_address {
    __u8 bytes[16];
    __u32 family;
};

enum kernel_flags {
    KERNEL_SENT = 1,   /* by this machine; else received */
    KERNEL_DENIED = 2, /* a software deny, or the operator's, stopped it */
    KERNEL_RULED = 4,  /* the operator's rules decided: neither verdict nor sender says anything about others */
};

/* Head of a copy in the ring; the frame follows. */
struct kernel_copy {
    __u64 time_ns; /* CLOCK_MONOTONIC */
    struct kernel_flow flow;
    __u32 len; /* bytes that follow */
    __u16 flags;
    __u16 unused;
};

/* What the kernel's parser makes of a frame. */
struct kernel_parsed {
    union kernel_key key;
    struct kernel_flow flow;
    __u32 is_labelled; /* MPLS */
    __u32 is_cut;      /* the IPv4 header is: ports are read where they would stand, which the module does not */
};

/* Classes by what headers say; the process fills them from the module's own tables before the program is loaded. */
struct kernel_classes {
    __u8 bpdu[KERNEL_CLASSES];   /* by protocol version */
    __u8 slow[KERNEL_CLASSES];   /* by subtype */
    __u8 cfm[KERNEL_CLASSES];    /* by opcode */
    __u8 ipv4[KERNEL_CLASSES];   /* by protocol; 0 = none */
    __u8 ipv6[KERNEL_CLASSES];   /* by next header */
    __u8 icmpv6[KERNEL_CLASSES]; /* by type */
    __u16 port[64];              /* rows of known transport ports, in order of precedence; the last: any other port */
    __u8 udp[64];
    __u8 tcp[64];
    __u8 row[64]; /* by port % slots */
    __u32 slots;
    __u32 rows;
};

#ifdef __cplusplus
static_assert(sizeof(kernel_key) == 64);
static_assert(sizeof(kernel_flow) == 28);
static_assert(sizeof(kernel_rule_key) == 72);
static_assert(sizeof(kernel_copy) == 48);
#endif

#endif
