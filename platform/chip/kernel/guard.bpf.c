/* guard.bpf.c: the kernel's half of the card: what stands between a port and the machine's own stack.
 *
 * At a port that is watched, each received frame that is for this processor is counted, shown to the chip rules and the
 * software denies, and copied into the ring for the module; what neither denies goes on to the stack at once. Sent
 * frames are copied and nothing else. Nobody waits for the process; while it does not show itself (heartbeat), every
 * frame passes untouched.
 *
 * Written by the process: everything but the counters. Runs on every processor at once; counters are one for each.
 *
 * SPDX-License-Identifier: MIT OR GPL-2.0-only
 */
#include <linux/bpf.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "copy.bpf.h"
#include "parse.bpf.h"
#include "record.h"

char _license[] SEC("license") = "Dual MIT/GPL";

/* ---- Shared with the process ------------------------------------------------------------------------------------ */

volatile __u64 heartbeat_ns;       /* CLOCK_MONOTONIC, when the process last showed itself */
volatile __u64 patience_ns;        /* how long after it is still taken for alive */
volatile __u32 mask_count;         /* slots of 'masks' in use, all in front */
volatile __u32 deny_count;         /* software denies in force; 0 saves looking */
volatile __u32 filter_count;       /* slots of 'filter_masks' in use, all in front */
volatile __u32 address_generation; /* another number, not 0, whenever 'addresses' has changed */
union kernel_key masks[KERNEL_MASKS];
union kernel_key filter_masks[KERNEL_MASKS];

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, KERNEL_RULES);
    __type(key, struct kernel_rule_key);
    __type(value, struct kernel_rule);
} rules SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, KERNEL_COUNTERS);
    __type(key, __u32);
    __type(value, __u64);
} matched SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, KERNEL_DENIES);
    __type(key, struct kernel_flow);
    __type(value, __u32);
} denies SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, KERNEL_FILTERS);
    __type(key, struct kernel_rule_key);
    __type(value, struct kernel_filter);
} filters SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, KERNEL_PORTS);
    __type(key, __u32); /* interface index */
    __type(value, struct kernel_port);
} ports SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, KERNEL_PORTS);
    __type(key, __u32);
    __type(value, struct kernel_counts);
} counts SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, KERNEL_ADDRESSES);
    __type(key, struct kernel_address);
    __type(value, __u8);
} addresses SEC(".maps");

/* ---- Whose frame it is ------------------------------------------------------------------------------------------ */

/* An address of this machine, as it was when the addresses had that generation. */
struct known_address {
    struct kernel_address address;
    __u32 generation;
};

/* What a processor found last at a port: most frames for this machine carry the same two addresses, and to compare
 * them is far cheaper than to look them up. */
struct lately {
    struct known_address mac;
    struct known_address ip;
};

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, KERNEL_PORTS);
    __type(key, __u32);
    __type(value, struct lately);
} found_lately SEC(".maps");

/* 'count' is even. */
static __always_inline int is_local(__u32 family, const __u8 *bytes, __u32 count, struct known_address *last) {
    const __u32 generation = address_generation; /* before the look-up: its answer is of this one or a later one */
    __u32 differ = (last->generation ^ generation) | (last->address.family ^ family);
    for (__u32 i = 0; i < count / 2; i++) {
        differ |= ((const __u16 *)last->address.bytes)[i] ^ ((const __u16 *)bytes)[i];
    }
    if (differ == 0) {
        return 1;
    }
    struct kernel_address address = {};
    __builtin_memcpy(address.bytes, bytes, count);
    address.family = family;
    if (!bpf_map_lookup_elem(&addresses, &address)) {
        return 0;
    }
    last->address = address;
    last->generation = generation;
    return 1;
}

/* Whether the machine's own stack would take the frame, rather than forward or drop it: one to a group, or to one of
 * its addresses. Labelled and IP frames to its MAC address go on to others, unless the inner address is its own. */
__attribute__((noinline)) int is_for_this_processor(const struct kernel_parsed *parsed, __u32 port_index) {
    if (!parsed) {
        return 0;
    }
    const union kernel_key *key = &parsed->key;
    if (key->dst_mac[0] & 1) {
        return 1;
    }
    struct lately *lately = bpf_map_lookup_elem(&found_lately, &port_index);
    if (!lately || !is_local(0, key->dst_mac, 6, &lately->mac)) {
        return 0;
    }
    if (key->presence[1] & HAS_DST_IPV4 >> 8) {
        return (key->dst_ipv4[0] & 0xf0) == 0xe0 || is_local(4, key->dst_ipv4, 4, &lately->ip);
    }
    if (key->presence[1] & HAS_DST_IPV6 >> 8) {
        return key->dst_ipv6[0] == 0xff || is_local(6, key->dst_ipv6, 16, &lately->ip);
    }
    return !parsed->is_labelled;
}

/* ---- Rules and software denies ---------------------------------------------------------------------------------- */

static __always_inline void add(void *counters, __u32 index) {
    __u64 *counter = bpf_map_lookup_elem(counters, &index);
    if (counter) {
        (*counter)++;
    }
}

struct search {
    union kernel_key key; /* of the frame */
    __u32 port;
    struct kernel_rule found;
};

/* What is to be looked up of a key under a mask; on the stack, as kernel 6.1 takes no key from elsewhere. 0: nothing,
 * as most ask for fields that the frame does not have. */
static __always_inline int look_under(const union kernel_key *key, const union kernel_key *mask,
                                      union kernel_key *wanted) {
    if ((~key->presence[0] & mask->presence[0]) | (~key->presence[1] & mask->presence[1])) {
        return 0;
    }
    for (int i = 0; i < 8; i++) {
        wanted->words[i] = key->words[i] & mask->words[i];
    }
    return 1;
}

/* One slot. A function of its own, so that the verifier goes through it once, and takes what it leaves for unknown; in
 * a call-back of bpf_loop that of kernel 6.1 drops what only a second call would do. */
__attribute__((noinline)) int search_slot(__u32 slot, struct search *search) {
    struct kernel_rule_key wanted;
    if (!search || !look_under(&search->key, &masks[slot & (KERNEL_MASKS - 1)], &wanted.key)) {
        return 0;
    }
    wanted.slot = slot;
    wanted.port = search->port;
    const struct kernel_rule *rule = bpf_map_lookup_elem(&rules, &wanted);
    if (!rule) {
        return 0;
    }
    struct kernel_rule *found = &search->found;
    if (rule->deny_entry != 0 && (found->deny_entry == 0 || rule->deny_entry < found->deny_entry)) {
        found->deny_entry = rule->deny_entry;
        found->deny_counter = rule->deny_counter;
    }
    if (rule->count_entry != 0 && (found->count_entry == 0 || rule->count_entry < found->count_entry)) {
        found->count_entry = rule->count_entry;
        found->count_counter = rule->count_counter;
    }
    return 0;
}

/* The oldest deny rule that matches stops the frame, 1; the oldest counting rule that matches counts it, if it is older
 * than that. */
__attribute__((noinline)) int is_stopped(const struct kernel_parsed *parsed) {
    if (!parsed) {
        return 0;
    }
    struct search search = {};
    search.key = parsed->key;
    search.port = parsed->flow.port;
    for (__u32 slot = 0; slot < KERNEL_MASKS && slot < mask_count; slot++) {
        search_slot(slot, &search);
    }
    const struct kernel_rule *found = &search.found;
    if (found->count_entry != 0 && (found->deny_entry == 0 || found->count_entry < found->deny_entry)) {
        add(&matched, found->count_counter);
    }
    if (found->deny_entry == 0) {
        return 0;
    }
    add(&matched, found->deny_counter);
    return 1;
}

struct filtering {
    union kernel_key key; /* of the frame */
    __u32 port;
    __u32 len; /* bytes */
    __u32 flags;
};

/* One slot. Returns whether a rule there permits the frame. */
__attribute__((noinline)) int filter_slot(__u32 slot, struct filtering *filtering) {
    if (!filtering) {
        return 0;
    }
    struct kernel_rule_key wanted;
    const union kernel_key *mask = &filter_masks[slot & (KERNEL_MASKS - 1)];
    if (!look_under(&filtering->key, mask, &wanted.key)) {
        return 0;
    }
    wanted.slot = slot;
    wanted.port = mask->bytes[FILTER_PORT] ? filtering->port : 0;
    const struct kernel_filter *filter = bpf_map_lookup_elem(&filters, &wanted);
    if (!filter) {
        return 0;
    }
    if (filtering->len >= filter->deny_from) {
        filtering->flags = KERNEL_RULED | KERNEL_DENIED;
    }
    return filtering->len >= filter->permit_from;
}

/* What the operator's rules say, as the module asks them (permit beats deny): flags, 0 where none matches. Of the
 * device's own frames the module knows nothing but port and VLAN. */
__attribute__((noinline)) int filter_flags(const struct kernel_parsed *parsed, __u32 port, __u32 len) {
    if (!parsed) {
        return 0;
    }
    struct filtering filtering = {};
    union kernel_key *key = &filtering.key;
    if (parsed->flow.protocol == ATC_SELF) {
        key->presence[0] = HAS_VLAN;
    } else {
        *key = parsed->key;
        filtering.len = len;
    }
    if (parsed->is_cut) {
        key->presence[0] &= (__u8) ~(HAS_SRC_PORT | HAS_DST_PORT);
        __builtin_memset(key->src_port, 0, sizeof(key->src_port));
        __builtin_memset(key->dst_port, 0, sizeof(key->dst_port));
    }
    put16(key->vlan, parsed->flow.vlan);
    key->bytes[FILTER_CLASS] = (__u8)parsed->flow.protocol;
    key->bytes[FILTER_PORT] = 1;
    filtering.port = port;
    for (__u32 slot = 0; slot < KERNEL_MASKS && slot < filter_count; slot++) {
        if (filter_slot(slot, &filtering)) {
            return KERNEL_RULED;
        }
    }
    return (int)filtering.flags;
}

/* One source, or the whole flow. */
static __always_inline int is_denied(const struct kernel_flow *flow) {
    if (deny_count == 0) {
        return 0;
    }
    if (bpf_map_lookup_elem(&denies, flow)) {
        return 1;
    }
    struct kernel_flow whole = {};
    whole.port = flow->port;
    whole.vlan = flow->vlan;
    whole.protocol = flow->protocol;
    return bpf_map_lookup_elem(&denies, &whole) != 0;
}

/* ---- Programs --------------------------------------------------------------------------------------------------- */

SEC("xdp.frags") int guard_received(struct xdp_md *ctx) {
    __u32 interface = ctx->ingress_ifindex;
    const struct kernel_port *port = bpf_map_lookup_elem(&ports, &interface);
    if (!port) {
        return XDP_PASS;
    }
    __u32 index = port->index;
    struct kernel_counts *count = bpf_map_lookup_elem(&counts, &index);
    if (!count) {
        return XDP_PASS;
    }
    struct kernel_copy head = {};
    head.time_ns = bpf_ktime_get_ns();
    if (head.time_ns > heartbeat_ns && head.time_ns - heartbeat_ns > patience_ns) {
        count->blind++;
        return XDP_PASS;
    }
    struct kernel_parsed parsed;
    parse_frame(ctx, port->vlan, &parsed);
    if (!port->all && !is_for_this_processor(&parsed, index)) {
        count->transit++;
        return XDP_PASS;
    }
    count->offered++;
    parsed.flow.port = port->port;
    if (mask_count != 0 && is_stopped(&parsed)) {
        count->stopped++;
        return XDP_DROP;
    }
    head.flow = parsed.flow;
    head.len = (__u32)bpf_xdp_get_buff_len(ctx);
    if (head.len > KERNEL_COPY_MAX) {
        head.len = KERNEL_COPY_MAX;
    }
    if (filter_count != 0) {
        head.flags = (__u16)filter_flags(&parsed, port->logical, head.len);
    }
    if (!(head.flags & KERNEL_RULED) && is_denied(&parsed.flow)) {
        head.flags = KERNEL_DENIED;
    }
    if (copy_received(ctx, &head) != 0) {
        count->lost++;
    }
    if (head.flags & KERNEL_DENIED) {
        count->dropped++;
        return XDP_DROP;
    }
    count->passed++;
    return XDP_PASS;
}

/* Frames that this machine has made, not those that it forwards. */
SEC("tc") int guard_sent(struct __sk_buff *skb) {
    __u32 interface = skb->ifindex;
    const struct kernel_port *port = bpf_map_lookup_elem(&ports, &interface);
    if (!port || skb->ingress_ifindex != 0) {
        return -1; /* go on */
    }
    __u32 index = port->index;
    struct kernel_counts *count = bpf_map_lookup_elem(&counts, &index);
    if (!count) {
        return -1;
    }
    struct kernel_copy head = {};
    head.time_ns = bpf_ktime_get_ns();
    if (head.time_ns > heartbeat_ns && head.time_ns - heartbeat_ns > patience_ns) {
        return -1;
    }
    count->sent++;
    head.flow.port = port->port;
    head.flags = KERNEL_SENT;
    head.len = skb->len + (skb->vlan_present ? 4 : 0);
    if (head.len > KERNEL_COPY_MAX) {
        head.len = KERNEL_COPY_MAX;
    }
    if (copy_sent(skb, &head) != 0) {
        count->lost++;
    }
    return -1;
}

/* For tests only, not loaded otherwise: what the parser makes of a frame, what the operator's rules say to it, and
 * whether a chip rule stops it. */
struct kernel_parsed probed;
volatile __u32 probed_flags;
volatile __u32 probe_port;
volatile __u32 probe_vlan;

SEC("?xdp") int probe(struct xdp_md *ctx) {
    struct kernel_parsed parsed;
    parse_frame(ctx, probe_vlan, &parsed);
    parsed.flow.port = probe_port;
    probed = parsed;
    probed_flags = (__u32)filter_flags(&parsed, probe_port, (__u32)bpf_xdp_get_buff_len(ctx));
    return mask_count != 0 && is_stopped(&parsed) ? XDP_DROP : XDP_PASS;
}
