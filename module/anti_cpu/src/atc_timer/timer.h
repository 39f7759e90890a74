// SPDX-License-Identifier: Apache-2.0
// timer.h: one-shot timers in whole seconds on the monotonic clock, kept in expiry order.
//
// Used by: monitor (timer_list_check), evaluation, settings, hw_deny. Uses: list.h, clock_gettime. A timer is embedded
// in its owner's record; arming and stopping allocate nothing. A periodic activity re-arms its own timer from its
// callback. Invariants: (1) ascending expiry, equal ones in the order of arming. (2) an idle timer's link points to
// itself or is all zero, so zero-filled storage is a valid idle timer. (3) an expiry saturates at the clock's last
// second. Lock: the module mutex is held by every caller; callbacks run under it.
#pragma once

#include <cstdint>

#include "atc_list/list.h"
#include "atc_lock/lock.h"

// The arguments are machine words, so that a record's address fits. The result is ignored.
using timer_fn_t = int (*)(uintptr_t arg1, uintptr_t arg2, uintptr_t arg3);

struct atc_timer_list_t {
    atc_list_t head;
};

struct timer_expire_t {
    int32_t seconds;      // CLOCK_MONOTONIC
    int32_t nanoseconds;  // 0..999999999
};

struct atc_timer_t {
    atc_list_t link;        // first member: a link is its timer
    timer_expire_t expire;  // absolute; zero when idle
    timer_fn_t fn;
    uintptr_t arg1;
    uintptr_t arg2;
    uintptr_t arg3;
};

// Allocates an empty list with malloc. Returns null when there is no memory.
atc_timer_list_t *timer_list_create();

// Makes a timer idle and clears it. Returns 0, or -1 for null.
int timer_node_init(atc_timer_t *timer);

// Arms 'timer' to call fn(arg1, arg2, arg3) once, 'seconds' from now; a running timer moves. Returns 0, or -1 for null.
int timer_start(atc_timer_list_t *list, atc_timer_t *timer, uint32_t seconds, timer_fn_t fn, uintptr_t arg1,
                uintptr_t arg2, uintptr_t arg3) ATC_REQUIRES(g_atc_lock);

// The same with the callback and arguments that the timer already has.
int timer_restart(atc_timer_list_t *list, atc_timer_t *timer, uint32_t seconds) ATC_REQUIRES(g_atc_lock);

// Takes the timer off the list if it is on it, and clears it. Returns 0, or -1 for null.
int timer_stop(atc_timer_list_t *list, atc_timer_t *timer) ATC_REQUIRES(g_atc_lock);

// Runs every timer that is due, earliest first, each taken off the list before its callback; of a null list none.
// Returns 0.
int timer_list_check(atc_timer_list_t *list) ATC_REQUIRES(g_atc_lock);

// Orders two expiries: -1, 0 or +1.
int timer_compare(const timer_expire_t *a, const timer_expire_t *b);
