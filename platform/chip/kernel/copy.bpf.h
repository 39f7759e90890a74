/* copy.bpf.h: the ring, and how a received or sent frame is copied into it for the module.
 *
 * A copy is a kernel_copy and the frame behind it, in a room of one of a few sizes, because the verifier wants to know
 * sizes beforehand. The process reads the ring; a copy that finds no room is lost and counted. Part of guard.bpf.c
 * only.
 *
 * SPDX-License-Identifier: MIT OR GPL-2.0-only
 */
#pragma once

#include <linux/bpf.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "parse.bpf.h"
#include "record.h"

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, 16 << 20);
} copies SEC(".maps");

enum {
    ADDRESSES = 12, /* bytes in front of a tag */
};

/* 'len', which is 1 to 'room' already, so that the verifier of kernel 6.1 believes it: it wants both bounds in the very
 * register that is passed on. 'room' is a power of two. */
static __always_inline __u32 bounded(__u32 len, const __u32 room) {
    __u32 index = len - 1;
    __asm__ volatile("" : "+r"(index)); /* else the mask, which changes nothing, is thrown away */
    return (index & (room - 1)) + 1;
}

/* Copies a received frame straight into the ring, into a room of a size that the verifier knows. 1: does not fit. */
static __always_inline int copy_received_into(struct xdp_md *ctx, const struct kernel_copy *head, const __u32 room) {
    if (head->len > room) {
        return 1;
    }
    const __u32 len = bounded(head->len, room);
    struct kernel_copy *copy = bpf_ringbuf_reserve(&copies, sizeof(*copy) + room, 0);
    if (!copy) {
        return -1;
    }
    *copy = *head;
    if (bpf_xdp_load_bytes(ctx, 0, copy + 1, len) != 0) {
        bpf_ringbuf_discard(copy, BPF_RB_NO_WAKEUP);
        return -1;
    }
    bpf_ringbuf_submit(copy, BPF_RB_NO_WAKEUP);
    return 0;
}

/* 0, or -1 when the copy is lost. */
__attribute__((noinline)) int copy_received(struct xdp_md *ctx, const struct kernel_copy *head) {
    if (!head) {
        return -1;
    }
    int result = copy_received_into(ctx, head, 64);
    if (result > 0) {
        result = copy_received_into(ctx, head, 128);
    }
    if (result > 0) {
        result = copy_received_into(ctx, head, 512);
    }
    if (result > 0) {
        result = copy_received_into(ctx, head, 2048);
    }
    return result > 0 ? copy_received_into(ctx, head, KERNEL_COPY_MAX) : result;
}

/* The same for a frame to be sent, whose tag may stand beside it: 'tag' bytes are put in behind the addresses. */
static __always_inline int copy_sent_into(struct __sk_buff *skb, const struct kernel_copy *head, __u32 tag,
                                          const __u32 room) {
    if (head->len <= ADDRESSES + tag || head->len - ADDRESSES - tag > room) {
        return 1;
    }
    const __u32 rest = bounded(head->len - ADDRESSES - tag, room);
    struct kernel_copy *copy = bpf_ringbuf_reserve(&copies, sizeof(*copy) + ADDRESSES + 4 + room, 0);
    if (!copy) {
        return -1;
    }
    *copy = *head;
    __u8 *frame = (__u8 *)(copy + 1);
    long fault = bpf_skb_load_bytes(skb, 0, frame, ADDRESSES);
    if (tag) {
        put16(frame + ADDRESSES, bpf_ntohs((__u16)skb->vlan_proto));
        put16(frame + ADDRESSES + 2, (__u16)skb->vlan_tci);
        fault |= bpf_skb_load_bytes(skb, ADDRESSES, frame + ADDRESSES + 4, rest);
    } else {
        fault |= bpf_skb_load_bytes(skb, ADDRESSES, frame + ADDRESSES, rest);
    }
    if (fault != 0) {
        bpf_ringbuf_discard(copy, BPF_RB_NO_WAKEUP);
        return -1;
    }
    bpf_ringbuf_submit(copy, BPF_RB_NO_WAKEUP);
    return 0;
}

__attribute__((noinline)) int copy_sent(struct __sk_buff *skb, const struct kernel_copy *head) {
    if (!head) {
        return -1;
    }
    const __u32 tag = skb->vlan_present ? 4 : 0;
    int result = copy_sent_into(skb, head, tag, 128);
    if (result > 0) {
        result = copy_sent_into(skb, head, tag, 512);
    }
    if (result > 0) {
        result = copy_sent_into(skb, head, tag, 2048);
    }
    return result > 0 ? copy_sent_into(skb, head, tag, KERNEL_COPY_MAX) : result;
}
