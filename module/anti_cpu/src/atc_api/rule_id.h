// SPDX-License-Identifier: Apache-2.0
// rule_id.h: the ids that the module chooses for software rules, 1..2048, lowest free first.
//
// Used by filter_rules.cpp. Lock: the module mutex is held.
#pragma once

#include <cstdint>

#include "atc_lock/lock.h"

// Returns the lowest free id, now taken, or -1 when all are.
int atc_get_rule_id() ATC_REQUIRES(g_atc_lock);

// Gives an id back. Returns 0, or -1 for an id outside 1..2048.
int atc_free_rule_id(int id) ATC_REQUIRES(g_atc_lock);
