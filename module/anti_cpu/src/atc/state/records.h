// SPDX-License-Identifier: Apache-2.0
// records.h: the records in which the module remembers packets, rules, trunks and messages.
//
// Layout only; who creates, changes and frees each record stands in the header of its subject (accounting.h, hw_deny.h,
// cfg_rule.h, trunk.h, message.h). All are allocated zero-filled from the card's allocator.
// Lock: every record is reached under the module mutex, a message on its way through the queue excepted.
#pragma once

#include <cstdint>

#include "anti_cpu/types.h"
#include "atc_avltree/avltree.h"
#include "atc_list/list.h"
#include "atc_timer/timer.h"

constexpr uint32_t ATC_RING_SLOTS = 12;        // periods that a block remembers
constexpr uint32_t ATC_CAPTURE_SIZE = 102400;  // bytes of a capture buffer
constexpr uint32_t ATC_TRUNK_MEMBERS = 8;      // members that a trunk can have

// The statistics block: what is counted about one entry or source.
struct atc_stat_t {
    // What a packet touches: 16 bytes, which lie in one line of cache.
    uint32_t count;         // packets since creation or the last clear; wraps
    uint32_t fp_last;       // count when the last fast period was closed
    uint32_t fp_threshold;  // packets allowed per fast period; this and the following in flows and sources only
    uint8_t fp_alarm;       // 1 = over the fast limit
    uint8_t lp_alarm;       // 1 = over the long limit
    uint8_t sw_deny_on;     // 1 = its packets are dropped in software
    uint8_t cap_on;         // 1 = the automatic capture records

    // What else a period end without news reads.
    uint8_t hw_deny_on;     // 1 = a rule in the switching chip denies it
    uint8_t fp_pass;        // number of the fast pass that closed it last, or during which it was made
    uint8_t lp_pass;        // the same of the long passes; both in flows and sources only
    uint32_t lp_last;       // count when the last long period was closed
    uint32_t lp_threshold;  // packets allowed per long period

    // Fast periods.
    uint8_t fp_head;  // slot of the oldest period
    uint8_t fp_cur;   // slot of the newest period
    uint8_t lp_head;  // the same two of the long periods; here, so that the block has no gaps
    uint8_t lp_cur;
    uint32_t fp_peak;                  // greatest packets per period
    uint32_t fp_ring[ATC_RING_SLOTS];  // packets per closed period
    char fp_peak_time[ATC_NAME_SIZE];  // when the peak was recorded

    // Long periods, member by member the same.
    uint32_t lp_peak;
    uint32_t lp_ring[ATC_RING_SLOTS];
    char lp_peak_time[ATC_NAME_SIZE];

    uint32_t cap_len;  // bytes used in cap_buf
    uint8_t *cap_buf;  // ATC_CAPTURE_SIZE bytes, or null; owned by the block, counted in protocol_cap_cnt
};

static_assert(offsetof(atc_stat_t, hw_deny_on) == 16, "what a packet touches");

// The head of an entry, and the value to search one by: the indexes compare nothing else.
struct atc_entry_key_t {
    atc_avl_node_t link;  // first member
    uint32_t direction;   // ATC_DIRECTION_*
    uint32_t port;        // logical port
    uint16_t vlan;
    uint16_t protocol;  // class 0..58
};

// One entry: a flow in entry_tree, or the sum of a port, VLAN or protocol in its index (the members that are not part
// of that key are then 0).
struct atc_entry_t : atc_entry_key_t {
    atc_stat_t stat;          // beside the key: a packet touches both
    atc_avl_tree_t src_tree;  // the sources; initialised in flows only
};

// The head of a source, and the value to search one by.
struct atc_src_key_t {
    atc_avl_node_t link;  // first member, in entry->src_tree
    atc_entry_t *entry;   // the flow that owns it; not compared
    uint32_t src_type;    // ATC_SRC_MAC, _IPV4 or _IPV6
    uint8_t src_addr[ATC_SRC_ADDR_SIZE];
};

// One source of a flow.
struct atc_src_entry_t : atc_src_key_t {
    atc_stat_t stat;
};

// One automatic deny rule in the switching chip. Exactly one of entry and src_entry is set; that owner's hw_deny_on
// is 1.
struct atc_hw_deny_t {
    atc_list_t link;             // first member, on hw_deny_list, newest first
    atc_timer_t timer;           // expiry check, every fast period
    uint64_t last_packets;       // the rule's hardware count at the last check
    atc_entry_t *entry;          // owner of a per-protocol rule
    atc_src_entry_t *src_entry;  // owner of a per-source rule
    atc_filter_rule_t rule;      // just what the chip was given, with its ids
    uint64_t number;             // greater than that of every record made before
    bool is_in_chip;             // false only while the rule moves with a trunk
};

// One hardware filter of the operator's.
struct atc_hw_cfg_filter_t {
    atc_list_t link;  // first member, on hw_cfg_filter_list, newest first
    atc_filter_rule_t rule;
    uint64_t number;  // greater than that of every record made before
    bool is_in_chip;  // its last installation succeeded; an entry id may be 0 and says nothing
};

// One software rule. The host walks these as atc_filter_node_t.
struct atc_filter_record_t {
    atc_list_t link;  // first member, on filter_list[], newest first
    atc_filter_rule_t rule;
};

static_assert(sizeof(atc_filter_record_t) == sizeof(atc_filter_node_t));
static_assert(offsetof(atc_filter_record_t, rule) == offsetof(atc_filter_node_t, rule));

// A walk over a software rule list that pauses: a rule that is taken off its list moves the walks that stand at it on.
struct atc_rule_cursor_t {
    atc_list_t link;  // first member, on rule_cursors
    atc_list_t *at;   // the next record, or the head of its list
};

// One trunk. Never freed.
struct atc_trunk_t {
    atc_list_t link;  // first member, on trunk_list, newest first
    uint32_t trunk_id;
    uint32_t members[ATC_TRUNK_MEMBERS];  // logical ports; 0 = empty slot
    uint32_t member_count;                // slots that are not empty
};

enum atc_msg_type_t : uint32_t {
    ATC_MSG_UPLOAD = 1,
    ATC_MSG_TRUNK_JOIN = 2,
    ATC_MSG_TRUNK_LEAVE = 3,
};

// One message of the monitor task's queue; members that a type does not use are 0.
struct atc_msg_t {
    uint32_t type;
    uint32_t trunk_id;     // joins and leaves
    uint32_t member_port;  // joins and leaves
    uint32_t direction;    // uploads, from here on: the flow ...
    uint32_t vlan;
    uint32_t port;
    uint32_t protocol;
    uint32_t src_type;  // ... 0 for the flow's own capture, else the source's type
    uint8_t src_addr[ATC_SRC_ADDR_SIZE];
    uint8_t *data;  // a copy of the capture file; the message owns it, who takes the message frees it
    uint32_t len;   // bytes of data
};

static_assert(sizeof(void *) != 4 || sizeof(atc_msg_t) == 56, "the message of the 32-bit card has 56 bytes");
