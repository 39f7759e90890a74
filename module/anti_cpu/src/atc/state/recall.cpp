// SPDX-License-Identifier: Apache-2.0
#include "atc/state/recall.h"

#include <stdint.h>
#include <time.h>

#include <initializer_list>

#include "atc/state/context.h"

namespace {

constexpr uint64_t FIRST_SECRET = 0xd1342543de82ef95;  // mixes what the secrets are made of; odd, without a pattern

constexpr uint32_t PLACE_BITS = 64;
constexpr uint32_t MAX_DEPTH = 20;                            // bits that choose a piece; far from those of the slot
constexpr uint32_t DIVIDED_AT = ATC_RECALL_SLOTS / 8 * 5;     // records: a search looks into one or two slots
constexpr uint32_t FULL_AT = ATC_RECALL_SLOTS / 8 * 7;        // records: a search still ends soon
constexpr uint32_t MERGED_AT = ATC_RECALL_SLOTS / 8;          // records of both pieces
constexpr uint32_t RECORDS_AN_ENTRY = ATC_RECALL_SLOTS / 16;  // of the directory, at least
constexpr uint32_t PATIENCE = 256;                            // full pieces met from one refusal to the next request
constexpr uint32_t ENTRY_SIZE = sizeof(void *);               // of the directory

atc_recall_place_t place_of(const atc_recall_table_t *table, uint64_t word);
uint32_t wanted_slot(const atc_recall_table_t *table, uint64_t word);
uint32_t depth_of(const atc_recall_table_t *table);
uint32_t entries_of(const atc_recall_table_t *table);
atc_recall_piece_t *piece_of(const atc_recall_table_t *table, uint64_t bits);
bool is_patient(atc_recall_table_t *table);
template <typename room_t>
room_t *request(atc_recall_table_t *table, uint32_t size);
bool begin(atc_recall_table_t *table);
void end(atc_recall_table_t *table);
bool divide(atc_recall_table_t *table, uint64_t bits);
bool double_directory(atc_recall_table_t *table);
void merge(atc_recall_table_t *table, uint64_t bits);
void enter(atc_recall_table_t *table, uint64_t bits, atc_recall_piece_t *piece);
void put(const atc_recall_table_t *table, atc_recall_piece_t *piece, const atc_recall_slot_t &slot);
void close_gap(atc_recall_table_t *table, atc_recall_piece_t *piece, uint32_t gap);

}  // namespace

// Neither address nor moment is known to a sender; both are the same in no two processes.
void atc_recall_init(atc_recall_t *recall) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    uint64_t word = reinterpret_cast<uintptr_t>(recall) ^ (static_cast<uint64_t>(now.tv_nsec) << 32);
    for (uint64_t *secret : {&recall->flows.secret, &recall->address_secrets[0], &recall->address_secrets[1]}) {
        word = atc_recall_spread((word + FIRST_SECRET) * FIRST_SECRET);
        *secret = word | 1;
    }
}

void atc_recall_add(atc_recall_table_t *table, uint64_t word, void *record) {
    if (table->pieces == nullptr && (!is_patient(table) || !begin(table))) {
        return;
    }
    const uint64_t bits = place_of(table, word).bits;
    if (piece_of(table, bits)->used >= DIVIDED_AT && is_patient(table)) {
        divide(table, bits);
    }
    atc_recall_piece_t *piece = piece_of(table, bits);
    if (piece->used < FULL_AT) {
        put(table, piece, {word, {record}});
        table->used++;
    }
}

void atc_recall_remove(atc_recall_table_t *table, uint64_t word, const void *record) {
    if (table->pieces == nullptr) {
        return;
    }
    const uint64_t bits = place_of(table, word).bits;
    atc_recall_piece_t *piece = piece_of(table, bits);
    for (uint32_t at = wanted_slot(table, word); piece->slots[at].word != 0; at = (at + 1) % ATC_RECALL_SLOTS) {
        if (piece->slots[at].record == record) {
            close_gap(table, piece, at);
            table->used--;
            break;
        }
    }
    if (table->used == 0) {
        end(table);
    } else if (piece->used < MERGED_AT) {
        merge(table, bits);
    }
}

atc_recall_table_t atc_recall_detach(atc_recall_table_t *table) {
    const atc_recall_table_t detached = *table;
    table->pieces = nullptr;
    table->used = 0;
    table->moves++;
    return detached;
}

void atc_recall_free(atc_recall_table_t *detached) {
    if (detached->pieces != nullptr) {
        end(detached);
    }
}

namespace {

atc_recall_place_t place_of(const atc_recall_table_t *table, uint64_t word) {
    if (table->secret == 0) {
        return atc_tag_place(word);
    }
    const atc_flow_word_t key = atc_flow_of(word);
    return atc_flow_place(table->secret, key.port, key.vlan, key.protocol);
}

uint32_t wanted_slot(const atc_recall_table_t *table, uint64_t word) {
    constexpr uint32_t SLOT_SIZE = sizeof(atc_recall_slot_t);
    return (place_of(table, word).offset & ATC_RECALL_OFFSETS) / SLOT_SIZE;
}

uint32_t depth_of(const atc_recall_table_t *table) {
    return PLACE_BITS - table->shift;
}

uint32_t entries_of(const atc_recall_table_t *table) {
    return 1u << depth_of(table);
}

// The piece of these bits; one that was divided less often than others stands in several entries of the directory.
atc_recall_piece_t *piece_of(const atc_recall_table_t *table, uint64_t bits) {
    return table->pieces[bits >> table->shift];
}

// Whether memory may be asked for: after a refusal others have their turn first.
bool is_patient(atc_recall_table_t *table) {
    if (table->patience == 0) {
        return true;
    }
    table->patience--;
    return false;
}

// Returns zeroed memory, or null.
template <typename room_t>
room_t *request(atc_recall_table_t *table, uint32_t size) {
    auto *room = static_cast<room_t *>(atc_calloc(size));
    if (room == nullptr) {
        table->patience = PATIENCE;
    }
    return room;
}

// The first piece, in both entries of the smallest directory.
bool begin(atc_recall_table_t *table) {
    auto **pieces = request<atc_recall_piece_t *>(table, 2 * ENTRY_SIZE);
    auto *piece = pieces != nullptr ? request<atc_recall_piece_t>(table, sizeof(atc_recall_piece_t)) : nullptr;
    if (piece == nullptr) {
        atc_free(pieces);
        return false;
    }
    pieces[0] = piece;
    pieces[1] = piece;
    table->pieces = pieces;
    table->shift = PLACE_BITS - 1;
    return true;
}

void end(atc_recall_table_t *table) {
    const uint32_t entries = entries_of(table);
    for (uint32_t entry = 0; entry < entries;) {
        atc_recall_piece_t *piece = table->pieces[entry];
        entry += entries >> piece->depth;
        atc_free(piece);
    }
    atc_free(table->pieces);
    table->pieces = nullptr;
}

// Divides the piece of these bits: where the next bit is 1, a new piece takes over. Returns whether it did.
bool divide(atc_recall_table_t *table, uint64_t bits) {
    atc_recall_piece_t *piece = piece_of(table, bits);
    if (piece->depth == depth_of(table) && !double_directory(table)) {
        return false;
    }
    auto *other = request<atc_recall_piece_t>(table, sizeof(atc_recall_piece_t));
    if (other == nullptr) {
        return false;
    }
    table->moves++;
    piece->depth++;
    other->depth = piece->depth;
    const uint64_t next_bit = uint64_t{1} << (PLACE_BITS - piece->depth);
    for (uint32_t at = 0; at < ATC_RECALL_SLOTS; at++) {
        const atc_recall_slot_t *slot = &piece->slots[at];
        while (slot->word != 0 && (place_of(table, slot->word).bits & next_bit) != 0) {
            put(table, other, *slot);
            close_gap(table, piece, at);  // which may bring another here
        }
    }
    enter(table, bits | next_bit, other);
    return true;
}

// A directory is no larger than the records need: those that have more bits than that in common stay together.
bool double_directory(atc_recall_table_t *table) {
    const uint32_t entries = entries_of(table);
    if (depth_of(table) == MAX_DEPTH || table->used / RECORDS_AN_ENTRY < 2 * entries) {
        return false;
    }
    auto **pieces = request<atc_recall_piece_t *>(table, 2 * entries * ENTRY_SIZE);
    if (pieces == nullptr) {
        return false;
    }
    for (uint32_t entry = 0; entry < 2 * entries; entry++) {
        pieces[entry] = table->pieces[entry / 2];
    }
    atc_free(table->pieces);
    table->pieces = pieces;
    table->shift--;
    return true;
}

// Takes into the piece of these bits the one that was divided from it, or it from, when both have few records.
void merge(atc_recall_table_t *table, uint64_t bits) {
    atc_recall_piece_t *piece = piece_of(table, bits);
    if (piece->depth == 0) {
        return;
    }
    atc_recall_piece_t *other = piece_of(table, bits ^ (uint64_t{1} << (PLACE_BITS - piece->depth)));
    if (other->depth != piece->depth || piece->used + other->used > MERGED_AT) {
        return;
    }
    table->moves++;
    for (const atc_recall_slot_t &slot : other->slots) {
        if (slot.word != 0) {
            put(table, piece, slot);
        }
    }
    piece->depth--;
    enter(table, bits, piece);
    atc_free(other);
}

// Makes this piece that of everything that has its number of top bits in common with 'bits'.
void enter(atc_recall_table_t *table, uint64_t bits, atc_recall_piece_t *piece) {
    const uint64_t entries = entries_of(table) >> piece->depth;
    const uint64_t first = (bits >> table->shift) / entries * entries;
    for (uint64_t entry = first; entry < first + entries; entry++) {
        table->pieces[entry] = piece;
    }
}

void put(const atc_recall_table_t *table, atc_recall_piece_t *piece, const atc_recall_slot_t &slot) {
    uint32_t at = wanted_slot(table, slot.word);
    while (piece->slots[at].word != 0) {
        at = (at + 1) % ATC_RECALL_SLOTS;
    }
    piece->slots[at] = slot;
    piece->used++;
}

// Frees a slot and moves back what was pushed behind it, up to the next free slot.
void close_gap(atc_recall_table_t *table, atc_recall_piece_t *piece, uint32_t gap) {
    for (uint32_t at = (gap + 1) % ATC_RECALL_SLOTS; piece->slots[at].word != 0; at = (at + 1) % ATC_RECALL_SLOTS) {
        const uint32_t wanted = wanted_slot(table, piece->slots[at].word);
        // The record may move to the gap unless that is before the slot that it asks for.
        if ((at - wanted) % ATC_RECALL_SLOTS >= (at - gap) % ATC_RECALL_SLOTS) {
            piece->slots[gap] = piece->slots[at];
            gap = at;
            table->moves++;
        }
    }
    piece->slots[gap].word = 0;
    piece->used--;
}

}  // namespace
