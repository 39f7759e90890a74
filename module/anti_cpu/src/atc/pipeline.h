// SPDX-License-Identifier: Apache-2.0
// pipeline.h: the way of one packet through the module.
//
// The two packet entry points (anti_cpu.h) are implemented here: they take the mutex once and run atc_packet_process,
// which walks parser, trace, manual capture, accounting and the software rules in that order. No state of its own;
// allocates nothing for a flow that is known.
#pragma once

#include <cstdint>

#include "atc_lock/lock.h"

// Judges one packet. Returns 0 = pass, -1 = drop. Lock: the module mutex is held.
int atc_packet_process(const uint8_t *buf, uint32_t len, uint32_t port, uint32_t vlan, uint32_t direction)
    ATC_REQUIRES(g_atc_lock);
