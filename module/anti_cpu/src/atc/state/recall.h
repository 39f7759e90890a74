// SPDX-License-Identifier: Apache-2.0
// recall.h: entries remembered by their keys, so that a packet finds them without walking an index.
//
// The ordered indexes stay the one truth: what is not remembered is looked up there, and whatever leaves an index is
// forgotten first. Used by entries (every look-up, creation and discard) and by walks whose order does not matter.
// A record is remembered under a word: a flow under its whole key, a source under a tag that its key was mixed into. A
// table is made of pieces of a fixed number of slots; a directory names the piece of a word by the top bits of what the
// word is spread to, others choose the slot that it asks for there, and what is taken pushes it on to the next free
// one. A piece that fills up is divided between two, which are merged again when both are nearly empty: no operation
// moves more than the records of one piece, or asks for more memory than a piece (and now and then a directory of a
// pointer a piece). Where that memory is refused, or division does not help, a piece fills up to a bound at which a
// search still ends soon; what comes then is not remembered. Invariants: (1) every record of a table, and of the flood,
// is linked in its index. (2) between a record's slot and the slot that its word asks for, no slot is free, and no
// piece is full. (3) an empty table owns no memory. Lock: part of the context, so the module mutex is held.
#pragma once

#include <cstdint>

#include "atc/state/records.h"

struct atc_recall_slot_t {
    uint64_t word;  // 0 = free slot
    union {
        void *record;
        uint64_t room;  // a slot has 16 bytes on every processor
    };
};

constexpr uint32_t ATC_RECALL_SLOTS = 1024;  // of a piece: 16 KB, divided in some microseconds

struct atc_recall_piece_t {
    atc_recall_slot_t slots[ATC_RECALL_SLOTS];
    uint32_t used;   // slots taken
    uint32_t depth;  // top bits that the words of this piece are spread to in common
};

struct atc_recall_table_t {
    atc_recall_piece_t **pieces;  // by the top bits of a place, at least one of them; null = no table
    uint32_t shift;               // of a place, to those bits
    uint32_t used;                // records held
    uint32_t moves;               // of records from slot to slot so far; wraps
    uint64_t secret;              // of flows: odd, keeps senders from choosing keys that collide; 0 = words are tags
    uint32_t patience;            // full pieces to be met before memory that was refused is asked for again
};

constexpr uint32_t ATC_VLANS = 4096;         // VLAN ids have 12 bits (IEEE 802.1Q 9.6)
constexpr uint32_t ATC_RECALL_PORTS = 1024;  // logical ports below this are remembered: a line card has no more

// The flow over its limit that was counted last, with everything else that its packets are counted in: a flood comes in
// runs, and what it costs matters most.
struct atc_flood_t {
    uint64_t key;  // atc_flow_key; 0 = none
    atc_entry_t *flow;
    atc_entry_t *vlan;
    atc_entry_t *port;
    atc_entry_t *protocol;
    atc_src_entry_t *src;  // the last sender, or null
};

struct atc_recall_t {
    atc_flood_t flood;
    uint64_t address_secrets[2];  // one for each half of a source's address
    atc_recall_table_t flows;
    atc_recall_table_t sources;
    uint32_t linked_sources;               // of all flows
    uint32_t leaving_sources;              // of them, those of flows that have left entry_tree and are being discarded
    atc_entry_t *ports[ATC_RECALL_PORTS];  // by number; null = not remembered
    atc_entry_t *vlans[ATC_VLANS];
    atc_entry_t *rx_protocols[ATC_PROTOCOL_COUNT + 1];
    atc_entry_t *tx_protocols[ATC_PROTOCOL_COUNT + 1];
};

// The key of a received flow in one word; never 0, because protocols leave the top bit free.
inline uint64_t atc_flow_key(uint32_t port, uint16_t vlan, uint16_t protocol) {
    constexpr uint64_t NOT_ZERO = uint64_t{1} << 63;
    return (uint64_t{protocol} << 48) | (uint64_t{vlan} << 32) | port | NOT_ZERO;
}

// What a flow's key was made of.
struct atc_flow_word_t {
    uint32_t port;
    uint16_t vlan;
    uint16_t protocol;
};
inline atc_flow_word_t atc_flow_of(uint64_t key) {
    constexpr uint64_t PROTOCOL_BITS = 0x7fff;
    return {static_cast<uint32_t>(key), static_cast<uint16_t>(key >> 32),
            static_cast<uint16_t>((key >> 48) & PROTOCOL_BITS)};
}

// Chooses the secrets. Once, on an all-zero recall.
void atc_recall_init(atc_recall_t *recall);

// Remember a record under its word, which is not 0, if there is room; forget it again.
[[gnu::hot]] void atc_recall_add(atc_recall_table_t *table, uint64_t word, void *record);
void atc_recall_remove(atc_recall_table_t *table, uint64_t word, const void *record);

// True when the table holds every record of an index of 'records' records.
inline bool atc_recall_is_complete(const atc_recall_table_t *table, uint32_t records) {
    return table->used == records;
}

// Spreads a word over all bits, one to one.
inline uint64_t atc_recall_spread(uint64_t word) {
    constexpr uint64_t GOLDEN_RATIO = 0x9e3779b97f4a7c15;  // 2^64 / phi, an odd number without a pattern
    return (word ^ (word >> 32)) * GOLDEN_RATIO;
}

// Folds two words, each under a secret of its own, into one: the upper half of their product lies over the lower, so
// that each bit of either moves bits everywhere, by amounts that the other word and its secret decide. Not one to one,
// but which words collide cannot be told without the secrets.
inline uint64_t atc_recall_fold(const uint64_t *secrets, uint64_t a, uint64_t b) {
    a ^= secrets[0];
    b ^= secrets[1];
#ifdef __SIZEOF_INT128__
    __extension__ using product_t = unsigned __int128;
    // The lower half by itself: taken from the wide product, it goes through memory.
    return (a * b) ^ static_cast<uint64_t>((static_cast<product_t>(a) * b) >> 64);
#else
    constexpr uint64_t LOW = UINT32_MAX;
    const uint64_t low = (a & LOW) * (b & LOW);
    const uint64_t cross = (a >> 32) * (b & LOW) + (low >> 32);
    const uint64_t middle = (a & LOW) * (b >> 32) + (cross & LOW);
    const uint64_t high = (a >> 32) * (b >> 32) + (cross >> 32) + (middle >> 32);
    return ((middle << 32) | (low & LOW)) ^ high;
#endif
}

// Where a word belongs. Words that differ in few bits belong apart, whatever the secret.
struct atc_recall_place_t {
    uint64_t bits;    // the top ones choose the piece
    uint32_t offset;  // bytes to the slot that it asks for there; only the bits of ATC_RECALL_OFFSETS count
};
constexpr uint32_t ATC_RECALL_OFFSETS = (ATC_RECALL_SLOTS - 1) * sizeof(atc_recall_slot_t);
constexpr uint32_t ATC_RECALL_OFFSET_SHIFT = 28;  // of spread bits; beyond those that choose a piece

// The place of a flow. Port and VLAN alone choose the piece: they are known long before the class of a packet, which
// only moves the slot; the classes of one VLAN are few, and lie apart.
inline atc_recall_place_t atc_flow_place(uint64_t secret, uint32_t port, uint16_t vlan, uint16_t protocol) {
    constexpr uint32_t APART = 16 * sizeof(atc_recall_slot_t);
    const uint64_t group = atc_recall_spread(((uint64_t{vlan} << 32) | port) * secret);
    return {group, static_cast<uint32_t>(group >> ATC_RECALL_OFFSET_SHIFT) + protocol * APART};
}

// The place of a tag.
inline atc_recall_place_t atc_tag_place(uint64_t tag) {
    const uint64_t bits = atc_recall_spread(tag);
    return {bits, static_cast<uint32_t>(bits >> ATC_RECALL_OFFSET_SHIFT)};
}

// Returns the record remembered at this place under this word for which is_wanted(record) holds, or null.
template <typename record_t, typename is_wanted_t>
inline record_t *atc_recall_find(const atc_recall_table_t *table, const atc_recall_place_t &place, uint64_t word,
                                 is_wanted_t is_wanted) {
    if (table->pieces == nullptr) {
        return nullptr;
    }
    const auto *piece = reinterpret_cast<const char *>(table->pieces[place.bits >> table->shift]);
    for (uint32_t at = place.offset & ATC_RECALL_OFFSETS;; at = (at + sizeof(atc_recall_slot_t)) & ATC_RECALL_OFFSETS) {
        const auto *slot = reinterpret_cast<const atc_recall_slot_t *>(piece + at);
        if (slot->word == word) {
            auto *record = static_cast<record_t *>(slot->record);
            if (record == nullptr) {
                __builtin_unreachable();  // saves the packet a look
            }
            if (is_wanted(record)) {
                return record;
            }
        } else if (slot->word == 0) {
            return nullptr;
        }
    }
}

// How far a walk over a table has come. All zero before it begins.
struct atc_recall_cursor_t {
    uint64_t bits;   // records whose place has smaller ones have been visited ...
    uint32_t slot;   // ... and those in the slots before this one of the piece of these bits, ...
    uint32_t moves;  // ... if none has moved since
    bool is_over;
};

// Calls visit(record) for remembered records, in no order, with the lines that 'visit' will read fetched ahead, until
// it returns false; that is for every record that the table holds from the first of these calls to the last, seldom
// twice for one that was near others which have moved. 'visit' must neither add nor remove. Returns false when all are
// done.
template <typename record_t, typename visit_t>
inline bool atc_recall_walk(const atc_recall_table_t *table, atc_recall_cursor_t *cursor, visit_t visit)
    ATC_REQUIRES(g_atc_lock) {
    constexpr uint32_t AHEAD = 12;          // slots; covers the latency of memory
    constexpr uint32_t LINE = 64;           // bytes
    constexpr uint32_t FETCHED = 2 * LINE;  // bytes of a record: its key, counters and thresholds
    while (table->pieces != nullptr && !cursor->is_over) {
        const atc_recall_piece_t *piece = table->pieces[cursor->bits >> table->shift];
        // A piece that has changed is walked again, to its end: it shall not be for ever.
        const bool is_again = cursor->slot > 0 && cursor->moves != table->moves;
        bool goes_on = true;
        for (uint32_t at = is_again ? 0 : cursor->slot; at < ATC_RECALL_SLOTS; at++) {
            if (!goes_on && !is_again) {
                cursor->slot = at;
                cursor->moves = table->moves;
                return true;
            }
            if (at + AHEAD < ATC_RECALL_SLOTS && piece->slots[at + AHEAD].word != 0) {
                const char *next = static_cast<const char *>(piece->slots[at + AHEAD].record);
                for (uint32_t byte = 0; byte <= FETCHED; byte += LINE) {
                    __builtin_prefetch(next + byte);
                }
            }
            if (piece->slots[at].word != 0) {
                goes_on = visit(static_cast<record_t *>(piece->slots[at].record));
            }
        }
        // The piece may have taken in what was visited before; it ends where its top bits do.
        const uint64_t last = cursor->bits | (piece->depth == 0 ? UINT64_MAX : UINT64_MAX >> piece->depth);
        *cursor = {last + 1, 0, 0, last == UINT64_MAX};
        if (!goes_on) {
            return !cursor->is_over;
        }
    }
    return false;
}

// Takes everything out of a table: returns it as a table of its own, which is nobody else's, to be freed without the
// mutex.
atc_recall_table_t atc_recall_detach(atc_recall_table_t *table) ATC_REQUIRES(g_atc_lock);
void atc_recall_free(atc_recall_table_t *detached);
