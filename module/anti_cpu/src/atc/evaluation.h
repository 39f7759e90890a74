// SPDX-License-Identifier: Apache-2.0
// evaluation.h: what happens when a period ends: alarms, software deny, captures, ageing, the daily sweep.
//
// The three passes are timer callbacks of the monitor task; each re-arms its own timer at its end. Settings re-arm the
// first two when a length changes. Calls accounting, capture and hw_deny. Invariant: an alarm is raised exactly while
// the latest closed period was over its threshold. Lock: the module mutex is held, and given back now and then:
// - A pass closes each block once, when it meets it, with what it has counted till then. A flow or source made during a
//   pass is first closed by the next. Alarms come in the order of the indexes, the sums behind all flows.
// - Passes that are due at once run one behind the other.
// - What is cleared before a pass has met it is closed with what came since; what is cleared afterwards stays cleared,
//   and what is discarded is not missed.
// - A limit or a period's length that is set during a pass holds for the blocks that are still to come. The next period
//   is counted from the end of the pass.
// - A query that waits its second meanwhile compares two looks at its block, as always; its rate is of packets, which
// no
//   pass changes.
#pragma once

#include "atc/state/context.h"

// The passes. Return 0.
int atc_fp_expire(uintptr_t unused1 = 0, uintptr_t unused2 = 0, uintptr_t unused3 = 0) ATC_REQUIRES(g_atc_lock);
int atc_lp_expire(uintptr_t unused1 = 0, uintptr_t unused2 = 0, uintptr_t unused3 = 0) ATC_REQUIRES(g_atc_lock);
int atc_24h_expire(uintptr_t unused1 = 0, uintptr_t unused2 = 0, uintptr_t unused3 = 0) ATC_REQUIRES(g_atc_lock);

// Arm the timer of a pass for one full period from now.
void atc_fp_arm() ATC_REQUIRES(g_atc_lock);
void atc_lp_arm() ATC_REQUIRES(g_atc_lock);
void atc_24h_arm() ATC_REQUIRES(g_atc_lock);

// One flow, one source; the long evaluation of a source discards it when it was silent and no hardware rule is its own.
// Return 0.
int atc_fp_expire_process(atc_entry_t *entry) ATC_REQUIRES(g_atc_lock);
int atc_fp_expire_src_process(atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock);
int atc_lp_expire_process(atc_entry_t *entry) ATC_REQUIRES(g_atc_lock);
int atc_lp_expire_src_process(atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock);
