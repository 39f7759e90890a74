#include "atc/state/recall.h"

#include <stdint.h>
#include <time.h>

#include "atc/state/context.h"

namespace {

constexpr uint32_t MIN_BITS = 4;
constexpr uint32_t MAX_BITS = 26;  // a table of 64 million slots fits the card's 32-bit sizes

constexpr uint64_t GOLDEN_RATIO = 0x9e3779b97f4a7c15;  // 2^64 / phi: spreads keys that differ in few bits

constexpr uint32_t SLOT_SIZE = sizeof(uint32_t) + sizeof(void *);  // bytes

uint32_t slots_of(const atc_recall_table_t *table);
bool has_room(const atc_recall_table_t *table, uint32_t records);
bool resize(atc_recall_table_t *table, uint32_t bits);
void put(atc_recall_table_t *table, uint32_t hash, void *record);
void close_gap(atc_recall_table_t *table, uint32_t gap);

}  // namespace

// Neither address nor moment is known to a sender; both are the same in no two processes.
void atc_recall_init(atc_recall_t *recall) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t seed = reinterpret_cast<uintptr_t>(recall) ^ (static_cast<uint64_t>(now.tv_nsec) << 32);
    recall->secret = ((seed * GOLDEN_RATIO) ^ GOLDEN_RATIO) | 1;
}

void atc_recall_add(atc_recall_table_t *table, uint32_t hash, void *record) {
    if (!has_room(table, table->used + 1)) {
        resize(table, table->hashes == nullptr ? MIN_BITS : table->bits + 1);
    }
    // Without memory a table fills up further; one slot stays free, so that every search ends.
    if (table->hashes != nullptr && table->used + 1 < slots_of(table)) {
        put(table, hash, record);
        table->used++;
    }
}

void atc_recall_remove(atc_recall_table_t *table, uint32_t hash, const void *record) {
    if (table->hashes == nullptr) {
        return;
    }
    const uint32_t mask = slots_of(table) - 1;
    for (uint32_t slot = hash >> (32 - table->bits); table->hashes[slot] != 0; slot = (slot + 1) & mask) {
        if (table->records[slot] == record) {
            close_gap(table, slot);
            table->used--;
            break;
        }
    }
    if (table->used == 0) {
        atc_free(table->hashes);
        *table = {};
    } else if (table->bits > MIN_BITS && table->used < slots_of(table) / 8) {
        resize(table, table->bits - 1);
    }
}

namespace {

uint32_t slots_of(const atc_recall_table_t *table) {
    return 1u << table->bits;
}

// At most three quarters of the slots are taken.
bool has_room(const atc_recall_table_t *table, uint32_t records) {
    return table->hashes != nullptr && records <= slots_of(table) / 4 * 3;
}

// Moves everything into a table of 1 << bits slots. Without memory for one the table stays as it is.
bool resize(atc_recall_table_t *table, uint32_t bits) {
    if (bits > MAX_BITS) {
        return false;
    }
    const uint32_t slots = 1u << bits;
    auto *hashes = static_cast<uint32_t *>(atc_calloc(slots * SLOT_SIZE));
    if (hashes == nullptr) {
        return false;
    }
    const atc_recall_table_t old = *table;
    table->hashes = hashes;
    table->records = reinterpret_cast<void **>(hashes + slots);
    table->bits = bits;
    for (uint32_t slot = 0; old.hashes != nullptr && slot < slots_of(&old); slot++) {
        if (old.hashes[slot] != 0) {
            put(table, old.hashes[slot], old.records[slot]);
        }
    }
    if (old.hashes != nullptr) {
        atc_free(old.hashes);
    }
    return true;
}

void put(atc_recall_table_t *table, uint32_t hash, void *record) {
    const uint32_t mask = slots_of(table) - 1;
    uint32_t slot = hash >> (32 - table->bits);
    while (table->hashes[slot] != 0) {
        slot = (slot + 1) & mask;
    }
    table->hashes[slot] = hash;
    table->records[slot] = record;
}

// Frees a slot and moves back what was pushed behind it, up to the next free slot.
void close_gap(atc_recall_table_t *table, uint32_t gap) {
    const uint32_t mask = slots_of(table) - 1;
    for (uint32_t slot = (gap + 1) & mask; table->hashes[slot] != 0; slot = (slot + 1) & mask) {
        const uint32_t wanted = table->hashes[slot] >> (32 - table->bits);
        // The record may move to the gap unless that is before the slot that it asks for.
        if (((slot - wanted) & mask) >= ((slot - gap) & mask)) {
            table->hashes[gap] = table->hashes[slot];
            table->records[gap] = table->records[slot];
            gap = slot;
        }
    }
    table->hashes[gap] = 0;
}

}  // namespace
