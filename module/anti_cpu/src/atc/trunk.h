// SPDX-License-Identifier: Apache-2.0
// trunk.h: the trunks and their members, and moving hardware rules when a membership changes.
//
// Owns trunk_list. The trunk service's callback (atc_api_trunk_member_pro, implemented here) only posts a message; the
// monitor task calls the rest. Invariants: a member is held once; member_count is the number of non-empty slots; a
// trunk is never forgotten. Lock: the module mutex is held.
#pragma once

#include "atc/state/context.h"

// A member joins. Returns 0 (also when it is a member already, or the trunk has 8), -1 when there is no memory.
int atc_trunk_add_pro(uint32_t trunk, uint32_t member) ATC_REQUIRES(g_atc_lock);

// A member leaves. Returns 0, or -1 when the trunk has no such member.
int atc_trunk_del_pro(uint32_t trunk, uint32_t member) ATC_REQUIRES(g_atc_lock);

// 1 when the logical port is a trunk, else 0.
int atc_port_is_trunk(uint32_t port) ATC_REQUIRES(g_atc_lock);

// Take every hardware rule of a port that is in the chip out of it, and put it back with the members as they are now.
// Records stay, but for automatic rules that cannot be put back. Return 0.
int atc_hw_filter_update_del(uint32_t port) ATC_REQUIRES(g_atc_lock);
int atc_hw_filter_update_add(uint32_t port) ATC_REQUIRES(g_atc_lock);
