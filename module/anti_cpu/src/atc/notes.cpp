// SPDX-License-Identifier: Apache-2.0
#include "atc/notes.h"

#include <string.h>

#include <algorithm>

namespace {

constexpr uint32_t NOTES_FEW = 1024;
constexpr uint32_t NOTES_MAX = 1u << 26;  // their bytes fit the card's 32-bit sizes
atc_note_t few_notes[NOTES_FEW];

uint16_t vlan_of(const atc_note_t *note);
uint16_t protocol_of(const atc_note_t *note);
uint32_t port_of(const atc_note_t *note);
bool is_before(const atc_note_t &a, const atc_note_t &b);
bool grow(atc_notes_t *notes);

}  // namespace

atc_notes_t atc_notes_begin() {
    return {few_notes, 0, NOTES_FEW, false};
}

void atc_notes_add(atc_notes_t *notes, const atc_entry_t *flow, const atc_src_entry_t *src) {
    if (notes->count == notes->room && !grow(notes)) {
        notes->is_cut = true;
        return;
    }
    atc_note_t *note = &notes->items[notes->count++];
    *note = {(uint64_t{flow->port} << 32) | (uint64_t{flow->vlan} << 16) | flow->protocol, ATC_SRC_NONE, 0, {}};
    if (src != nullptr) {
        note->src_type = src->src_type;
        memcpy(note->src_addr, src->src_addr, sizeof(note->src_addr));
    }
}

void atc_notes_make_room(atc_notes_t *notes) {
    if (notes->room - notes->count < ATC_HOLD_LIMIT) {
        grow(notes);
    }
}

void atc_notes_sort(atc_notes_t *notes) {
    std::sort(notes->items, notes->items + notes->count, is_before);
}

atc_entry_t *atc_note_flow(const atc_note_t *note) {
    return atc_entry_get(ATC_DIRECTION_RX, vlan_of(note), port_of(note), protocol_of(note));
}

atc_src_entry_t *atc_note_source(const atc_note_t *note) {
    return atc_src_entry_get(ATC_DIRECTION_RX, vlan_of(note), port_of(note), protocol_of(note), note->src_type,
                             note->src_addr);
}

void atc_notes_end(atc_notes_t *notes) {
    if (notes->items != few_notes) {
        atc_free(notes->items);
    }
}

namespace {

uint16_t vlan_of(const atc_note_t *note) {
    return static_cast<uint16_t>(note->flow >> 16);
}

uint16_t protocol_of(const atc_note_t *note) {
    return static_cast<uint16_t>(note->flow);
}

uint32_t port_of(const atc_note_t *note) {
    return static_cast<uint32_t>(note->flow >> 32);
}

bool is_before(const atc_note_t &a, const atc_note_t &b) {
    if (a.flow != b.flow) {
        return a.flow < b.flow;
    }
    if (a.src_type != b.src_type) {
        return a.src_type < b.src_type;
    }
    return memcmp(a.src_addr, b.src_addr, sizeof(a.src_addr)) < 0;
}

// Doubles the room. Returns false when there is no memory for that, or was none before.
bool grow(atc_notes_t *notes) {
    const uint32_t room = notes->room * 2;
    if (notes->is_cut || room > NOTES_MAX) {
        return false;
    }
    auto *items = static_cast<atc_note_t *>(atc_malloc(room * static_cast<uint32_t>(sizeof(atc_note_t))));
    if (items == nullptr) {
        return false;
    }
    std::copy_n(notes->items, notes->count, items);
    atc_notes_end(notes);
    notes->items = items;
    notes->room = room;
    return true;
}

}  // namespace
