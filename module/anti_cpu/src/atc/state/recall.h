// recall.h: entries remembered by their keys, so that a packet finds them without walking an index.
//
// The ordered indexes stay the one truth: what is not remembered is looked up there, and whatever leaves an index is
// forgotten first. Used by entries (every look-up, creation and discard) and by walks whose order does not matter.
// A table is open-addressed: a word of each key's hash (0 = free slot) and, behind them, the records; the slot that a
// hash asks for is its top bits, so doubling a table moves records in order. It grows and shrinks with what it holds;
// without memory for that it goes on as it is, and may not remember everything. Invariants: (1) every record of a table
// is linked in its index. (2) between a record's slot and the slot that its hash asks for, no slot is free. (3) an
// empty table owns no memory. Lock: part of the context, so the module mutex is held.
#pragma once

#include <cstdint>

#include "atc/state/records.h"

struct atc_recall_table_t {
    uint32_t *hashes;  // of 1 << bits slots, the records behind them; null = no table
    void **records;    // in the same block
    uint32_t bits;     // of a hash that choose a slot
    uint32_t used;     // records held
};

constexpr uint32_t ATC_VLANS = 4096;         // VLAN ids have 12 bits (IEEE 802.1Q 9.6)
constexpr uint32_t ATC_RECALL_PORTS = 1024;  // logical ports below this are remembered: a line card has no more

struct atc_recall_t {
    uint64_t secret;  // odd; keeps senders from choosing keys that collide
    atc_recall_table_t flows;
    atc_recall_table_t sources;
    atc_entry_t *ports[ATC_RECALL_PORTS];  // by number; null = not remembered
    atc_entry_t *vlans[ATC_VLANS];
    atc_entry_t *rx_protocols[ATC_PROTOCOL_COUNT + 1];
    atc_entry_t *tx_protocols[ATC_PROTOCOL_COUNT + 1];
};

// Chooses the secret. Once, on an all-zero recall.
void atc_recall_init(atc_recall_t *recall);

// Remember a record under its hash, and forget it again. Forgetting needs the hash under which it was remembered.
void atc_recall_add(atc_recall_table_t *table, uint32_t hash, void *record);
void atc_recall_remove(atc_recall_table_t *table, uint32_t hash, const void *record);

// True when the table holds every record of an index of 'records' records.
inline bool atc_recall_is_complete(const atc_recall_table_t *table, uint32_t records) {
    return table->used == records;
}

// Hash of a key of up to 64 bits; never 0.
inline uint32_t atc_recall_hash(const atc_recall_t *recall, uint64_t key) {
    return static_cast<uint32_t>((key * recall->secret) >> 32) | 1;
}

// Mixes further 64 bits of a key into one word, for atc_recall_hash.
inline uint64_t atc_recall_mix(const atc_recall_t *recall, uint64_t key, uint64_t more) {
    const uint64_t mixed = (key ^ (key >> 32)) * recall->secret;
    return mixed ^ (mixed >> 29) ^ more;
}

// Returns the remembered record of this hash for which is_wanted(record) holds, or null.
template <typename record_t, typename is_wanted_t>
inline record_t *atc_recall_find(const atc_recall_table_t *table, uint32_t hash, is_wanted_t is_wanted) {
    if (table->hashes == nullptr) {
        return nullptr;
    }
    const uint32_t mask = (1u << table->bits) - 1;
    for (uint32_t slot = hash >> (32 - table->bits);; slot = (slot + 1) & mask) {
        if (table->hashes[slot] == hash) {
            auto *record = static_cast<record_t *>(table->records[slot]);
            if (is_wanted(record)) {
                return record;
            }
        } else if (table->hashes[slot] == 0) {
            return nullptr;
        }
    }
}

// Calls visit(record) for every remembered record, in no order, with the lines that 'visit' will read fetched ahead.
// 'visit' must neither add nor remove.
template <typename record_t, typename visit_t>
inline void atc_recall_each(const atc_recall_table_t *table, visit_t visit) ATC_REQUIRES(g_atc_lock) {
    constexpr uint32_t AHEAD = 12;          // slots; covers the latency of memory
    constexpr uint32_t LINE = 64;           // bytes
    constexpr uint32_t FETCHED = 2 * LINE;  // bytes of a record: its key, counters and thresholds
    const uint32_t slots = table->hashes == nullptr ? 0 : 1u << table->bits;
    for (uint32_t slot = 0; slot < slots; slot++) {
        if (slot + AHEAD < slots && table->hashes[slot + AHEAD] != 0) {
            const char *next = static_cast<const char *>(table->records[slot + AHEAD]);
            for (uint32_t byte = 0; byte <= FETCHED; byte += LINE) {
                __builtin_prefetch(next + byte);
            }
        }
        if (table->hashes[slot] != 0) {
            visit(static_cast<record_t *>(table->records[slot]));
        }
    }
}
