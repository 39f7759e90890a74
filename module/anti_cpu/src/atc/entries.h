// SPDX-License-Identifier: Apache-2.0
// entries.h: the life of statistics entries and sources in their indexes.
//
// Owns the entries of the five indexes and the sources of flows: created here for the first packet of a key, discarded
// here for ageing, the daily sweep and clearing. Used by accounting, evaluation, the queries; calls hw_deny and capture
// to let go of what an entry holds. Invariants: an entry is in exactly one index, but for new flows, which wait for
// their places while the mutex is taken for packets only (context.h); a flow has at most ATC_SOURCES_PER_FLOW sources;
// no entry or source is freed while a hardware rule or a capture buffer is its own. Lock: the module mutex is held.
#pragma once

#include "atc/state/context.h"

// The orders of the indexes, all ascending: direction, port, VLAN, protocol of a flow; one member of an aggregate; type
// and address bytes of a source.
int atc_tree_compare(const void *a, const void *b);
int atc_port_compare(const void *a, const void *b);
int atc_vlan_compare(const void *a, const void *b);
int atc_protocol_compare(const void *a, const void *b);
int atc_src_tree_compare(const void *a, const void *b);

// Find a flow, or a source of one ('src_addr' as long as its type asks; another type, and null, have an all-zero
// address). Return null when there is none.
atc_entry_t *atc_entry_get(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol)
    ATC_REQUIRES(g_atc_lock);
atc_src_entry_t *atc_src_entry_get(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol,
                                   uint32_t src_type, const void *src_addr) ATC_REQUIRES(g_atc_lock);

// Find the entry that counts a VLAN, a port, a protocol of a direction, or a flow, or create it with everything else 0;
// a flow gets its thresholds and an empty index of sources. Return null when there is no memory.
atc_entry_t *atc_vlan_obtain(uint16_t vlan) ATC_REQUIRES(g_atc_lock);
atc_entry_t *atc_port_obtain(uint32_t port) ATC_REQUIRES(g_atc_lock);
atc_entry_t *atc_protocol_obtain(uint32_t direction, uint16_t protocol) ATC_REQUIRES(g_atc_lock);
atc_entry_t *atc_flow_obtain(uint32_t port, uint16_t vlan, uint16_t protocol) ATC_REQUIRES(g_atc_lock);

// Finds or creates the source of a flow that sent this packet. Returns null when there is no memory, or when the flow
// has all the sources that it can hold ('*is_full').
atc_src_entry_t *atc_source_obtain(atc_entry_t *flow, const atc_pkt_info_t *info, bool *is_full)
    ATC_REQUIRES(g_atc_lock);

// Remembers the flood that this flow is part of, in place of the one before. The flow's VLAN, port and protocol have
// their entries.
void atc_flood_remember(atc_entry_t *flow) ATC_REQUIRES(g_atc_lock);

// Take a source out of its flow, a flow out of entry_tree with all its sources, an entry of another index out of it:
// its hardware rules are withdrawn first, its capture is freed, then the record. A flow is gone for everybody at once;
// its sources follow piece by piece, with pauses between them.
void atc_src_entry_discard(atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock);
void atc_flow_discard(atc_entry_t *flow) ATC_REQUIRES(g_atc_lock);
void atc_aggregate_discard(atc_avl_tree_t *tree, atc_entry_t *entry) ATC_REQUIRES(g_atc_lock);

// Bytes of an address of this source type: 6, 4, 16; 0 for another type.
uint32_t atc_src_addr_len(uint32_t src_type);

// Packets of a period of 'seconds' at 'limit' packets per second; saturates at 4294967295.
uint32_t atc_threshold(uint32_t seconds, uint32_t limit);

// Packets per second of 'packets' in 'seconds', truncated; 0 for a period of 0.
uint32_t atc_rate(uint32_t packets, uint32_t seconds);
