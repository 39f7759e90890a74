// SPDX-License-Identifier: Apache-2.0
// protocol.h: the catalogue of the 58 control-protocol classes.
//
// Owns the one table of names, aliases and default limits; everything that lists protocols is drawn from it. Used by
// the parser, every text and the settings. The ids are public (protocols.h). The exported name look-ups (anti_cpu.h)
// are implemented here. Pure: no state, no lock.
#pragma once

#include <cstdint>

#include "anti_cpu/anti_cpu.h"
#include "anti_cpu/protocols.h"

static_assert(uint32_t{ATC_UNKNOWN_PACKET} == ATC_PROTOCOL_COUNT, "ids are dense");

// Slots of an array indexed by protocol id; slot 0 is not used.
constexpr uint32_t ATC_PROTOCOL_SLOTS = ATC_PROTOCOL_COUNT + 1;

inline bool atc_protocol_is_valid(uint32_t id) {
    return id >= 1 && id <= ATC_PROTOCOL_COUNT;
}

// Write the default limits of a flow, or of one source, of protocol 'id', in packets per second. Return 0, or -1 with
// nothing written for an id outside 1..58.
int atc_protocol_lmt_init(int32_t id, uint32_t *fp_limit, uint32_t *lp_limit);
int atc_protocol_src_lmt_init(int32_t id, uint32_t *fp_limit, uint32_t *lp_limit);
