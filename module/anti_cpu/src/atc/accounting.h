// SPDX-License-Identifier: Apache-2.0
// accounting.h: counting a packet, closing a period, clearing a block.
//
// Used by the pipeline (a packet), evaluation (a period) and the clear operations. Finds and creates entries through
// entries.h; hands floods to hw_deny and packets of captured flows to capture and upload. Allocates for the first
// packet of a key only. Lock: the module mutex is held.
#pragma once

#include "atc/entries.h"

enum atc_period_t : int {
    ATC_PERIOD_FAST = 1,
    ATC_PERIOD_LONG = 2,
};

// Packets on this VLAN are counted for the VLAN and in total, and nowhere else: they cannot flood, and are never
// dropped.
constexpr uint16_t ATC_VLAN_UNTRACKED = 4089;

// Account one packet. Return 0 = pass, -1 = drop: software deny, or no memory for an entry.
int atc_stat_info_process(const uint8_t *buf, uint32_t len, const atc_pkt_info_t *info) ATC_REQUIRES(g_atc_lock);
int atc_stat_info_rx_process(const uint8_t *buf, uint32_t len, const atc_pkt_info_t *info) ATC_REQUIRES(g_atc_lock);
int atc_stat_info_tx_process(const uint8_t *buf, uint32_t len, const atc_pkt_info_t *info) ATC_REQUIRES(g_atc_lock);

// Closes a period (atc_period_t) of one block: the packets since its last close go into the ring. Returns 0.
int atc_stat_process(atc_stat_t *stat, int period) ATC_REQUIRES(g_atc_lock);

// Tells that the pass of a period (atc_period_t) over many blocks begins, or with 0 that it has ended.
void atc_stat_pass(uint8_t period) ATC_REQUIRES(g_atc_lock);

// Clears counts, rings and peaks and frees the capture; alarms, thresholds and denies stay.
void atc_clear_statistic(atc_stat_t *stat) ATC_REQUIRES(g_atc_lock);
