// SPDX-License-Identifier: Apache-2.0
// cfg_rule.h: the operator's hardware filters, installed in and removed from the switching chip.
//
// A filter matches every member that is set, addresses under a prefix mask, and carries the operation of its action.
// Touches no record; atc_api/hw_filters keeps those. Lock: the module mutex is held.
#pragma once

#include "anti_cpu/types.h"
#include "atc_lock/lock.h"

// Installs the filter and writes its sdk_id. Returns the driver's result, or -1 when the port has no usable members,
// the action is none of 1..3 or a mask is longer than its field.
int atc_hw_cfg_filter_add(atc_filter_rule_t *rule) ATC_REQUIRES(g_atc_lock);

// Removes it; sdk_id becomes 0. The same results.
int atc_hw_cfg_filter_del(atc_filter_rule_t *rule) ATC_REQUIRES(g_atc_lock);

// Whether its port has usable members at this moment. Asks nothing of the chip.
bool atc_hw_cfg_filter_is_placeable(const atc_filter_rule_t *rule) ATC_REQUIRES(g_atc_lock);
