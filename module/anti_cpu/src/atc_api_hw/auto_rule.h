// SPDX-License-Identifier: Apache-2.0
// auto_rule.h: automatic deny rules, installed in and removed from the switching chip.
//
// Which members of a packet go into a rule depends on its protocol: one table of groups (auto_rule.cpp), from which
// both installation and removal build, so a removal always rebuilds the list that installed. Touches no record and no
// counter; hw_deny keeps those. Lock: the module mutex is held.
#pragma once

#include "anti_cpu/types.h"
#include "atc_lock/lock.h"

// Installs the deny rule that 'rule' (a packet's descriptor with src_rule set) describes, and rewrites 'rule' to just
// what the chip was given: protocol, src_rule, port, the matched members, sdk_id and stat_id. Returns 0, -1 when the
// port has no usable members, or the driver's result.
int atc_hw_filter_add(atc_filter_rule_t *rule) ATC_REQUIRES(g_atc_lock);

// Removes it. Returns 0 (sdk_id becomes 0), -1 when the port has no usable members, or the driver's negative result.
int atc_hw_filter_del(atc_filter_rule_t *rule) ATC_REQUIRES(g_atc_lock);
