// SPDX-License-Identifier: Apache-2.0
// hw_deny.h: the flows and sources that the switching chip denies, from the packet over the limit to the ebb.
//
// Owns the records of hw_deny_list. Used by accounting (installation), the timers (expiry), settings, clearing, the
// daily sweep and trunk (withdrawal). Invariants: rule_hw_count is the number of records, at most 100; an owner's
// hw_deny_on is 1 exactly while it has a record; a record's timer is armed; a record that stands has its rule in the
// chip, a trunk change in progress excepted; the list is in descending order of their numbers. Lock: the module mutex
// is held.
#pragma once

#include "atc/state/context.h"

constexpr uint32_t ATC_HW_RULES_MAX = 100;   // automatic rules in the chip
constexpr uint32_t ATC_HW_PORT_NEVER = 255;  // a logical port that never gets an automatic rule

// Install a rule built from this packet, unless the protocol's enable is off, there is one already, the chip's share is
// used up, or the port or direction excludes it. On any failure nothing is recorded and a later packet tries again.
void atc_hw_deny_flow(atc_entry_t *entry, const atc_pkt_info_t *pkt) ATC_REQUIRES(g_atc_lock);
void atc_hw_deny_source(atc_src_entry_t *src, const atc_pkt_info_t *pkt) ATC_REQUIRES(g_atc_lock);

// Timer callback of a record (arg1): withdraws it when the chip stopped fewer packets since the last check than the
// owner's fast threshold, else arms the timer again. Returns 0.
int atc_hw_filter_expire(uintptr_t record, uintptr_t unused2, uintptr_t unused3) ATC_REQUIRES(g_atc_lock);

// Take a record's rule out of the chip and free the record.
void atc_hw_deny_withdraw(atc_hw_deny_t *record) ATC_REQUIRES(g_atc_lock);

// Calls visit(record) for every record that is there now, newest first, with pauses; 'visit' may withdraw the record.
template <typename visit_t>
inline void atc_hw_deny_each(visit_t visit) ATC_REQUIRES(g_atc_lock) {
    atc_numbered_each<atc_hw_deny_t>(&g_atc_global.hw_deny_list, visit);
}

// Withdraws every record that is there now and for which matches(record) holds, newest first, with pauses.
template <typename match_t>
inline void atc_hw_deny_withdraw_if(match_t matches) ATC_REQUIRES(g_atc_lock) {
    atc_hw_deny_each([&matches](atc_hw_deny_t *record) ATC_REQUIRES(g_atc_lock) {
        if (matches(record)) {
            atc_hw_deny_withdraw(record);
        }
    });
}

// Withdraw the record of one flow, of one source, if it has one. Return 0.
int atc_hw_filter_delete_by_pro(atc_entry_t *entry) ATC_REQUIRES(g_atc_lock);
int atc_hw_filter_delete_by_spro(atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock);

// Forgets a record whose rule is not in the chip: timer, owner's hw_deny_on, rule_hw_count, list, memory.
void atc_hw_deny_forget(atc_hw_deny_t *record) ATC_REQUIRES(g_atc_lock);
