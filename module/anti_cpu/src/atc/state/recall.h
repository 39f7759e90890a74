// recall.h: entries remembered by their keys, so that a packet finds them without walking an index.
//
// The ordered indexes stay the one truth: what is not remembered is looked up there, and whatever leaves an index is
// forgotten first. Used by entries (every look-up, creation and discard) and by walks whose order does not matter.
// A table is open-addressed. A slot holds a record and its tag, a word that its key was mixed into (0 = free slot); the
// slot that a tag asks for is its top bits, so doubling a table moves records in order. It grows and shrinks with what
// it holds; without memory for that it goes on as it is, and may not remember everything. Invariants: (1) every record
// of a table, and of the flood, is linked in its index. (2) between a record's slot and the slot that its tag asks for,
// no slot is free. (3) an empty table owns no memory. Lock: part of the context, so the module mutex is held.
#pragma once

#include <cstdint>

#include "atc/state/records.h"

struct atc_recall_slot_t {
    uint64_t tag;
    void *record;
};

struct atc_recall_table_t {
    atc_recall_slot_t *slots;  // mask + 1 of them; null = no table
    uint32_t mask;
    uint32_t shift;  // of a tag, to the slot that it asks for
    uint32_t used;   // records held
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
    uint64_t secret;  // odd; keeps senders from choosing keys that collide
    atc_recall_table_t flows;
    atc_recall_table_t sources;
    uint32_t linked_sources;               // of all flows
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

// Chooses the secret. Once, on an all-zero recall.
void atc_recall_init(atc_recall_t *recall);

// Remember a record under its tag, which is not 0, and forget it again.
[[gnu::hot]] void atc_recall_add(atc_recall_table_t *table, uint64_t tag, void *record);
void atc_recall_remove(atc_recall_table_t *table, uint64_t tag, const void *record);

// True when the table holds every record of an index of 'records' records.
inline bool atc_recall_is_complete(const atc_recall_table_t *table, uint32_t records) {
    return table->used == records;
}

// Mixes a key into a tag, one to one: other keys have other tags, and only 0 has the tag 0. Keys that differ in few
// bits ask for slots that lie apart, whatever the secret, which is odd.
inline uint64_t atc_recall_tag(uint64_t secret, uint64_t key) {
    constexpr uint64_t GOLDEN_RATIO = 0x9e3779b97f4a7c15;  // 2^64 / phi, an odd number without a pattern
    const uint64_t mixed = key * secret;
    return (mixed ^ (mixed >> 32)) * GOLDEN_RATIO;
}

// Folds two words of a longer key into one, for atc_recall_tag; not one to one.
inline uint64_t atc_recall_fold(uint64_t secret, uint64_t high, uint64_t low) {
    const uint64_t mixed = high * secret;
    return mixed ^ (mixed >> 32) ^ low;
}

// Returns the remembered record of this tag for which is_wanted(record) holds, or null.
template <typename record_t, typename is_wanted_t>
inline record_t *atc_recall_find(const atc_recall_table_t *table, uint64_t tag, is_wanted_t is_wanted) {
    if (table->slots == nullptr) {
        return nullptr;
    }
    for (uint64_t at = tag >> table->shift;; at = (at + 1) & table->mask) {
        const atc_recall_slot_t *slot = &table->slots[at];
        if (slot->tag == tag) {
            auto *record = static_cast<record_t *>(slot->record);
            if (is_wanted(record)) {
                return record;
            }
        } else if (slot->tag == 0) {
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
    const uint32_t slots = table->slots == nullptr ? 0 : table->mask + 1;
    for (uint32_t at = 0; at < slots; at++) {
        if (at + AHEAD < slots && table->slots[at + AHEAD].tag != 0) {
            const char *next = static_cast<const char *>(table->slots[at + AHEAD].record);
            for (uint32_t byte = 0; byte <= FETCHED; byte += LINE) {
                __builtin_prefetch(next + byte);
            }
        }
        if (table->slots[at].tag != 0) {
            visit(static_cast<record_t *>(table->slots[at].record));
        }
    }
}
