// SPDX-License-Identifier: Apache-2.0
// capture.h: capture files in memory, manual and automatic.
//
// Owns the pcap format: a file is the 24-byte header and the records behind it, little-endian whatever the processor,
// in a buffer of ATC_CAPTURE_SIZE bytes of which the last is never used. Used by the pipeline (manual), accounting and
// evaluation (automatic), upload and the capture operations.
// Invariants: protocol_cap_cnt is the number of blocks with a buffer, at most 10; a block that records has a buffer.
// cap_buf of the context changes here only, atomically, so that one question about it needs no mutex.
// Lock: the module mutex is held.
#pragma once

#include <cstdint>

#include "atc/state/context.h"

constexpr uint32_t ATC_CAPTURE_HEADER_SIZE = 24;  // bytes of the file header
constexpr uint32_t ATC_CAPTURE_RECORD_SIZE = 16;  // bytes of a record's header
constexpr uint32_t ATC_AUTO_CAPTURES_MAX = 10;    // automatic buffers held at a time

// Writes the file header at the start of 'buffer'. Returns 0.
int atc_capture_ethhead_fill(uint8_t *buffer);

// Returns 1 when the manual capture is on, has budget left, and the packet matches its filter, else 0.
int atc_cap_check(const atc_pkt_info_t *pkt) ATC_REQUIRES(g_atc_lock);

// Makes sure that the manual capture has a buffer. Returns false when there is no memory for one.
bool atc_capture_manual_buffer() ATC_REQUIRES(g_atc_lock);

// Records a packet into the manual capture; a packet that does not fit ends it with a log line, the last of the budget
// ends it too. Returns 0, or -1 when there is no memory for a buffer (nothing is changed then).
int atc_capture_manual(const uint8_t *buf, uint32_t len) ATC_REQUIRES(g_atc_lock);

// Frees the manual capture's buffer, if it has one; budget and filter stay.
void atc_capture_manual_release() ATC_REQUIRES(g_atc_lock);

// Whether the manual capture has a buffer at this moment. Lock: none needed.
bool atc_capture_manual_exists();

// Starts the automatic capture of a block if it has no buffer, fewer than 10 are held, and there is memory for one.
void atc_capture_auto_start(atc_stat_t *stat) ATC_REQUIRES(g_atc_lock);

// Records a packet into the capture of a block whose cap_on is 1. Returns false when it does not fit (nothing
// recorded).
bool atc_capture_auto_record(atc_stat_t *stat, const uint8_t *buf, uint32_t len) ATC_REQUIRES(g_atc_lock);

// Ends the capture of a block and frees its buffer, if it has one.
void atc_capture_auto_release(atc_stat_t *stat) ATC_REQUIRES(g_atc_lock);
