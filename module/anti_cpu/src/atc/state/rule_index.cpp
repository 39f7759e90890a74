// SPDX-License-Identifier: Apache-2.0
#include "atc/state/rule_index.h"

#include "atc/state/context.h"

namespace {

constexpr uint32_t MIN_SHAPES = 4;

uint32_t find_shape(const atc_rule_index_t *index, const atc_filter_rule_t *mask);
bool make_shape(atc_rule_index_t *index, const atc_filter_rule_t *mask);
void drop_without_rules(atc_rule_index_t *index, uint32_t at);
bool make_room(atc_rule_index_t *index);
void pass_filters(atc_rule_index_t *index, uint32_t at, const atc_filter_rule_t *rule);

}  // namespace

void atc_rule_index_init(atc_rule_index_t *index, uint64_t secret) {
    for (uint32_t word = 0; word < ATC_RULE_WORDS; word++) {
        index->factors[word] = atc_recall_spread((word + 1) * secret) | 1;
    }
}

void atc_rule_index_add(atc_rule_index_t *index, atc_filter_record_t *record, const atc_filter_rule_t *mask) {
    index->rules++;
    atc_rule_index_hold(index, record, mask);
}

void atc_rule_index_remove(atc_rule_index_t *index, atc_filter_record_t *record, const atc_filter_rule_t *mask) {
    index->rules--;
    const uint32_t at = find_shape(index, mask);
    if (at < index->shape_count) {
        const uint32_t before = index->held.used;
        atc_recall_remove(&index->held, atc_rule_tag(index, at, &record->rule), record);
        index->shapes[at].rules -= before - index->held.used;
        drop_without_rules(index, at);
    }
}

void atc_rule_index_hold(atc_rule_index_t *index, atc_filter_record_t *record, const atc_filter_rule_t *mask) {
    const uint32_t at = find_shape(index, mask);
    if (at == index->shape_count && !make_shape(index, mask)) {
        return;
    }
    pass_filters(index, at, &record->rule);
    const uint64_t tag = atc_rule_tag(index, at, &record->rule);
    const auto is_it = [record](const atc_filter_record_t *held) { return held == record; };
    if (atc_recall_find<atc_filter_record_t>(&index->held, atc_tag_place(tag), tag, is_it) == nullptr) {
        const uint32_t before = index->held.used;
        index->held.patience = 0;  // rules change seldom, and every packet walks while one is missing
        atc_recall_add(&index->held, tag, record);
        index->shapes[at].rules += index->held.used - before;
    }
}

uint64_t atc_rule_tag(atc_rule_index_t *index, uint32_t at, const atc_filter_rule_t *record) {
    const atc_rule_shape_t *shape = &index->shapes[at];
    const uint64_t *filter = shape->filters;
    uint64_t sum = 0;
    for (uint32_t words = shape->words; words != 0; words &= words - 1, filter++) {
        const auto word = static_cast<uint32_t>(__builtin_ctz(words));
        const uint32_t mask = atc_rule_word(&shape->mask, word);
        const uint64_t mixed = atc_rule_mix(index, word, mask, record);
        if (!atc_rule_filter_passes(*filter, mixed)) {
            index->leads[at] = {*filter, mask, word};
            return 0;
        }
        sum += mixed;
    }
    return atc_recall_spread(sum * index->factors[0]) | 1;
}

namespace {

// Returns the number of shapes when there is none.
uint32_t find_shape(const atc_rule_index_t *index, const atc_filter_rule_t *mask) {
    uint32_t at = 0;
    while (at < index->shape_count && memcmp(&index->shapes[at].mask, mask, sizeof(*mask)) != 0) {
        at++;
    }
    return at;
}

// Puts a new shape behind the others. Returns false when there is no memory.
bool make_shape(atc_rule_index_t *index, const atc_filter_rule_t *mask) {
    if (index->shape_count == index->shape_room && !make_room(index)) {
        return false;
    }
    const uint32_t at = index->shape_count++;
    atc_rule_shape_t *shape = &index->shapes[at];
    *shape = {};
    shape->mask = *mask;
    for (uint32_t word = 0; word < ATC_RULE_WORDS; word++) {
        shape->words |= atc_rule_word(mask, word) != 0 ? 1U << word : 0;
    }
    return true;
}

// The last shape takes the place of one that is dropped; when none is left, the memory goes back.
void drop_without_rules(atc_rule_index_t *index, uint32_t at) {
    if (index->shapes[at].rules > 0) {
        return;
    }
    const uint32_t last = --index->shape_count;
    index->leads[at] = index->leads[last];
    index->shapes[at] = index->shapes[last];
    if (last == 0) {
        atc_free(index->leads);
        index->leads = nullptr;
        index->shapes = nullptr;
        index->shape_room = 0;
    }
}

// Doubles what there is room for, one block that begins with the leads. Returns false, and leaves all as it is, when
// there is no memory.
bool make_room(atc_rule_index_t *index) {
    const uint32_t room = index->shape_room == 0 ? MIN_SHAPES : index->shape_room * 2;
    auto *leads = static_cast<atc_rule_lead_t *>(
        atc_malloc(room * static_cast<uint32_t>(sizeof(atc_rule_lead_t) + sizeof(atc_rule_shape_t))));
    if (leads == nullptr) {
        return false;
    }
    auto *shapes = reinterpret_cast<atc_rule_shape_t *>(leads + room);
    if (index->shape_count > 0) {
        memcpy(leads, index->leads, index->shape_count * sizeof(*leads));
        memcpy(shapes, index->shapes, index->shape_count * sizeof(*shapes));
        atc_free(index->leads);
    }
    index->leads = leads;
    index->shapes = shapes;
    index->shape_room = room;
    return true;
}

// Adds a rule's values to the filters of its shape. The last word leads until another has turned a packet away; a shape
// that compares nothing has a lead that lets any packet pass.
void pass_filters(atc_rule_index_t *index, uint32_t at, const atc_filter_rule_t *rule) {
    atc_rule_shape_t *shape = &index->shapes[at];
    index->leads[at] = {~uint64_t{0}, 0, 0};
    uint64_t *filter = shape->filters;
    for (uint32_t words = shape->words; words != 0; words &= words - 1, filter++) {
        const auto word = static_cast<uint32_t>(__builtin_ctz(words));
        const uint32_t mask = atc_rule_word(&shape->mask, word);
        *filter |= atc_rule_filter_bits(atc_rule_mix(index, word, mask, rule));
        index->leads[at] = {*filter, mask, word};
    }
}

}  // namespace
