// SPDX-License-Identifier: Apache-2.0
// notes.h: what a pass at the end of a period has something to say about: flows and sources, noted by their keys as
// they are met and told in the order of the indexes.
//
// Used by evaluation, one pass at a time; uses the card's memory. Keys, not records: those may go before they are told.
// Lock: the notes are their pass's own, the mutex is needed for none of this; the first few cost no memory.
#pragma once

#include "atc/entries.h"

struct atc_note_t {
    uint64_t flow;      // port, VLAN and protocol, so that numbers are in the order of entry_tree
    uint32_t src_type;  // 0 = the flow itself
    uint32_t unused;
    uint8_t src_addr[ATC_SRC_ADDR_SIZE];
};

struct atc_notes_t {
    atc_note_t *items;
    uint32_t count;
    uint32_t room;  // items
    bool is_cut;    // there was no memory for all of them: none counts
};

// Empty ones.
atc_notes_t atc_notes_begin();

// Notes a flow ('src' null) or one of its sources. When there is no room for it the notes are cut.
void atc_notes_add(atc_notes_t *notes, const atc_entry_t *flow, const atc_src_entry_t *src);

// Makes room for what a hold of the mutex can note, so that nothing is moved while it is held.
void atc_notes_make_room(atc_notes_t *notes);

// Sorts them: flows in order, each before its sources.
void atc_notes_sort(atc_notes_t *notes);

// The record that was noted, null when there is none any more: of the two that which src_type tells.
atc_entry_t *atc_note_flow(const atc_note_t *note) ATC_REQUIRES(g_atc_lock);
atc_src_entry_t *atc_note_source(const atc_note_t *note) ATC_REQUIRES(g_atc_lock);

void atc_notes_end(atc_notes_t *notes);
