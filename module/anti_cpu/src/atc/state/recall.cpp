#include "atc/state/recall.h"

#include <stdint.h>
#include <time.h>

#include "atc/state/context.h"

namespace {

constexpr uint64_t FIRST_SECRET = 0xd1342543de82ef95;  // mixes what the secret is made of; odd, without a pattern

constexpr uint32_t TAG_BITS = 64;
constexpr uint32_t MIN_SLOTS = 16;
constexpr uint32_t MAX_SLOTS = 1u << 26;  // their bytes fit the card's 32-bit sizes

uint32_t slots_of(const atc_recall_table_t *table);
bool has_room(const atc_recall_table_t *table, uint32_t records);
void resize(atc_recall_table_t *table, uint32_t slots);
void put(atc_recall_table_t *table, const atc_recall_slot_t &slot);
void close_gap(atc_recall_table_t *table, uint64_t gap);

}  // namespace

// Neither address nor moment is known to a sender; both are the same in no two processes.
void atc_recall_init(atc_recall_t *recall) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t seed = reinterpret_cast<uintptr_t>(recall) ^ (static_cast<uint64_t>(now.tv_nsec) << 32);
    recall->secret = atc_recall_tag(FIRST_SECRET, seed) | 1;
}

void atc_recall_add(atc_recall_table_t *table, uint64_t tag, void *record) {
    if (!has_room(table, table->used + 1)) {
        resize(table, table->slots == nullptr ? MIN_SLOTS : slots_of(table) * 2);
    }
    // Without memory a table fills up further; one slot stays free, so that every search ends.
    if (table->used + 1 < slots_of(table)) {
        put(table, {tag, record});
        table->used++;
    }
}

void atc_recall_remove(atc_recall_table_t *table, uint64_t tag, const void *record) {
    if (table->slots == nullptr) {
        return;
    }
    for (uint64_t at = tag >> table->shift; table->slots[at].tag != 0; at = (at + 1) & table->mask) {
        if (table->slots[at].record == record) {
            close_gap(table, at);
            table->used--;
            break;
        }
    }
    if (table->used == 0) {
        atc_free(table->slots);
        *table = {};
    } else if (slots_of(table) > MIN_SLOTS && table->used < slots_of(table) / 8) {
        resize(table, slots_of(table) / 2);
    }
}

namespace {

uint32_t slots_of(const atc_recall_table_t *table) {
    return table->slots == nullptr ? 0 : table->mask + 1;
}

// At most five eighths of the slots are taken: a search looks into one or two of them.
bool has_room(const atc_recall_table_t *table, uint32_t records) {
    return records <= slots_of(table) / 8 * 5;
}

// Moves everything into a table of 'slots' slots, a power of two. Without memory for one the table stays as it is.
void resize(atc_recall_table_t *table, uint32_t slots) {
    if (slots > MAX_SLOTS) {
        return;
    }
    auto *room = static_cast<atc_recall_slot_t *>(atc_calloc(slots * static_cast<uint32_t>(sizeof(atc_recall_slot_t))));
    if (room == nullptr) {
        return;
    }
    const atc_recall_table_t old = *table;
    table->slots = room;
    table->mask = slots - 1;
    table->shift = TAG_BITS - static_cast<uint32_t>(__builtin_ctz(slots));
    for (uint32_t at = 0; at < slots_of(&old); at++) {
        if (old.slots[at].tag != 0) {
            put(table, old.slots[at]);
        }
    }
    if (old.slots != nullptr) {
        atc_free(old.slots);
    }
}

void put(atc_recall_table_t *table, const atc_recall_slot_t &slot) {
    uint64_t at = slot.tag >> table->shift;
    while (table->slots[at].tag != 0) {
        at = (at + 1) & table->mask;
    }
    table->slots[at] = slot;
}

// Frees a slot and moves back what was pushed behind it, up to the next free slot.
void close_gap(atc_recall_table_t *table, uint64_t gap) {
    const uint64_t mask = table->mask;
    for (uint64_t at = (gap + 1) & mask; table->slots[at].tag != 0; at = (at + 1) & mask) {
        const uint64_t wanted = table->slots[at].tag >> table->shift;
        // The record may move to the gap unless that is before the slot that it asks for.
        if (((at - wanted) & mask) >= ((at - gap) & mask)) {
            table->slots[gap] = table->slots[at];
            gap = at;
        }
    }
    table->slots[gap].tag = 0;
}

}  // namespace
