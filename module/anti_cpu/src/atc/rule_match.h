// SPDX-License-Identifier: Apache-2.0
// rule_match.h: one rule against one packet, and the comparison of prefixes behind it.
//
// The single matcher of the permit and deny rules, the trace filter and the capture filter. Pure but for the two
// verdict look-ups, which ask the rules' indexes, or walk filter_list where one is not whole, under the mutex.
#pragma once

#include <cstdint>

#include "anti_cpu/types.h"
#include "atc/rule_mask.h"
#include "atc_lock/lock.h"

// Returns 1 when the packet matches every member that is set in the rule, its packet length included, else 0.
int atc_filter_rule_check_ex(const atc_filter_rule_t *rule, const atc_pkt_info_t *pkt);

// The same without the packet length: the trace and capture filters.
bool atc_rule_match(const atc_filter_rule_t *rule, const atc_pkt_info_t *pkt);

// True when no mask is longer than its field (48, 32, 128 bits).
bool atc_rule_masks_fit(const atc_filter_rule_t *rule);

// Return 1 when any permit (deny) rule of either list matches the packet, else 0.
int atc_filter_rule_check_permit(const atc_pkt_info_t *pkt) ATC_REQUIRES(g_atc_lock);
int atc_filter_rule_check_deny(const atc_pkt_info_t *pkt) ATC_REQUIRES(g_atc_lock);

// Compares the first 'bits' bits of two byte strings, most significant first: 0 equal, 1 when 'a' is greater, -1 when
// it is smaller or 'bits' is above 128.
int atc_cmp_by_masklen(const uint8_t *a, const uint8_t *b, uint32_t bits);
