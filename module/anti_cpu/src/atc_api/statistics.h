// SPDX-License-Identifier: Apache-2.0
// statistics.h: which statistics block an operation speaks of, and the snapshot from which every query is answered.
//
// Used by statistics.cpp (the queries) and clearing.cpp (the clears) of anti_cpu.h. Uses the entries. A block is found
// afresh for every look at it: no pointer outlives the mutex. Lock: the module mutex is held.
#pragma once

#include "atc/state/context.h"

enum class atc_block_kind_t : uint32_t {
    global,
    port,
    vlan,
    protocol,
    flow,  // or, with a source type, one of its sources
};

// The name of one block. Members that its kind does not use are not looked at.
struct atc_block_name_t {
    atc_block_kind_t kind;
    uint32_t direction;  // global and protocol: ATC_DIRECTION_RX, anything else = sent
    uint32_t vlan = 0;
    uint32_t port = 0;
    uint32_t protocol = 0;
    uint32_t src_type = ATC_SRC_NONE;  // ATC_SRC_*
    const void *src_addr = nullptr;    // as long as its type asks; null goes with ATC_SRC_NONE only
};

// Returns the block, or null when there is none.
atc_stat_t *atc_block_find(const atc_block_name_t *name) ATC_REQUIRES(g_atc_lock);

// Reads one block: counts in packets and packets per period, minimum, maximum and average over the periods of its ring.
// A time text is copied in its first 63 characters, unless it is null. Returns 0.
int atc_statistic_get(const atc_stat_t *stat, uint32_t *count, uint32_t *fp_cur, uint32_t *fp_min, uint32_t *fp_max,
                      uint32_t *fp_avg, uint32_t *fp_threshold, uint32_t *fp_peak, char *fp_peak_time, uint32_t *lp_cur,
                      uint32_t *lp_min, uint32_t *lp_max, uint32_t *lp_avg, uint32_t *lp_threshold, uint32_t *lp_peak,
                      char *lp_peak_time, uint32_t *cap_on, uint32_t *cap_len, uint32_t *sw_deny_on,
                      uint32_t *hw_deny_on) ATC_REQUIRES(g_atc_lock);

// Orders two atc_src_stat_t: -1 when 'a' has the larger count (it comes first), 1 when the smaller, 0 when they are
// equal.
int atc_src_compare(const void *a, const void *b);
