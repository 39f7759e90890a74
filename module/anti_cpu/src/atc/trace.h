// SPDX-License-Identifier: Apache-2.0
// trace.h: printing chosen packets on the console.
//
// Used by the pipeline; armed by atc_api/trace.cpp. Uses rule_match and the catalogue. All console text goes through
// atc_output. Invariant: a trace whose budget is spent is off. Lock: the module mutex is held.
#pragma once

#include <cstdint>

#include "anti_cpu/platform.h"
#include "anti_cpu/types.h"
#include "atc_lock/lock.h"

// Returns 1 when a trace is armed, has budget left, and the packet matches its filter, else 0.
int atc_debug_check(const atc_pkt_info_t *pkt) ATC_REQUIRES(g_atc_lock);

// Prints the packet with its announcement and takes it off the budget; the last one ends the trace.
void atc_debug_packet(const uint8_t *buf, uint32_t len, const atc_pkt_info_t *pkt) ATC_REQUIRES(g_atc_lock);

// Prints the first 64 bytes of a packet in hexadecimal, 16 a line.
void atc_debug_out(const uint8_t *data, int32_t len);

// Prints formatted text on standard output, cut to 255 characters. Returns the characters of the whole text, -1 when
// formatting fails. Lock: none needed.
int atc_output(const char *format, ...) ATC_PRINTF(1, 2);
