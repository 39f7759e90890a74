// SPDX-License-Identifier: Apache-2.0
// rule_index.h: the software rules of one action, found by what they compare instead of by walking the lists.
//
// Rules that compare the same members, addresses by as many bits, have one shape: a mask over the whole record. A
// packet matches such a rule when the two are the same under the mask (and the packet is long enough), so it asks one
// table once a shape. Where nearly every rule has a shape of its own, filters keep it from that: each word of a shape
// has 64 bits, one for each value that its rules have there, and a packet without that bit is done with the shape. The
// word that said so last is asked first by the next packet, for floods come in runs. What is found is a candidate:
// rule_match.cpp, which makes the masks because it knows what a rule compares, confirms it.
// The lists of the context stay the one truth. Used by filter_rules (adds, deletes) and rule_match (look-ups).
// Invariants: (1) a rule that is held has its shape, and its slot in 'held' under the tag of both. (2) a shape is
// that of a rule. (3) an index that holds fewer rules than there are, for want of memory, is not asked; the next add or
// delete tries again. (4) without rules it owns no memory. Lock: part of the context, so the module mutex is held.
#pragma once

#include <cstdint>
#include <cstring>

#include "atc/state/recall.h"
#include "atc/state/records.h"

constexpr uint32_t ATC_RULE_WORDS = sizeof(atc_filter_rule_t) / sizeof(uint32_t);
constexpr uint32_t ATC_RULE_WORDS_COMPARED = 18;  // of them hold members that are compared

// The word of a shape that a packet asks first.
struct atc_rule_lead_t {
    uint64_t filter;
    uint32_t mask;
    uint32_t word;  // of the record
};

struct atc_rule_shape_t {
    atc_filter_rule_t mask;  // the bits that are compared
    uint32_t words;          // bit n: word n of the mask is not 0
    uint32_t rules;          // held
    uint64_t
        filters[ATC_RULE_WORDS_COMPARED];  // one for each of the words: a bit for each value that a rule has, or had
};

struct atc_rule_index_t {
    atc_rule_lead_t *leads;  // one a shape
    atc_rule_shape_t *shapes;
    uint32_t shape_count;
    uint32_t shape_room;               // shapes that there is memory for
    uint32_t rules;                    // of this action on both lists
    atc_recall_table_t held;           // those of them that the index holds
    uint64_t factors[ATC_RULE_WORDS];  // of a key's words, odd; keep senders from choosing keys that collide
};

// Chooses the factors. Once, on an all-zero index.
void atc_rule_index_init(atc_rule_index_t *index, uint64_t secret);

// A rule has come ('mask' says what it compares) or is about to go.
void atc_rule_index_add(atc_rule_index_t *index, atc_filter_record_t *record, const atc_filter_rule_t *mask);
void atc_rule_index_remove(atc_rule_index_t *index, atc_filter_record_t *record, const atc_filter_rule_t *mask);

// Takes in a rule that is known of, unless the index holds it already or there is no memory.
void atc_rule_index_hold(atc_rule_index_t *index, atc_filter_record_t *record, const atc_filter_rule_t *mask);

// True when the index holds all rules, so that it may be asked.
inline bool atc_rule_index_is_whole(const atc_rule_index_t *index) {
    return atc_recall_is_complete(&index->held, index->rules);
}

// Word 'word' of a rule, a packet or a mask.
inline uint32_t atc_rule_word(const atc_filter_rule_t *record, uint32_t word) {
    uint32_t value;
    memcpy(&value, reinterpret_cast<const uint8_t *>(record) + word * sizeof(value), sizeof(value));
    return value;
}

// What a mask lets through of a word of a rule or packet, mixed with that mask.
inline uint64_t atc_rule_mix(const atc_rule_index_t *index, uint32_t word, uint32_t mask,
                             const atc_filter_rule_t *record) {
    return (uint64_t{mask} << 32 | (atc_rule_word(record, word) & mask)) * index->factors[word];
}

// The two bits of a filter for what was mixed, and whether a filter has both.
inline uint64_t atc_rule_filter_bits(uint64_t mixed) {
    return uint64_t{1} << (mixed >> 58) | uint64_t{1} << (mixed >> 52 & 63);
}

inline bool atc_rule_filter_passes(uint64_t filter, uint64_t mixed) {
    const uint64_t bits = atc_rule_filter_bits(mixed);
    return (filter & bits) == bits;
}

// The tag of the shape 'at' with what that compares of a packet or rule (other masks, like other values, have other
// tags), or 0 when a filter tells that the shape has no rule for it; the word of that filter leads from then on.
[[gnu::hot]] uint64_t atc_rule_tag(atc_rule_index_t *index, uint32_t at, const atc_filter_rule_t *record);

// Returns a rule that the index holds and for which is_match(record) holds, among those that the packet may match; null
// when there is none.
template <typename is_match_t>
inline const atc_filter_record_t *atc_rule_index_find(atc_rule_index_t *index, const atc_pkt_info_t *pkt,
                                                      is_match_t is_match) {
    for (uint32_t at = 0; at < index->shape_count; at++) {
        const atc_rule_lead_t *lead = &index->leads[at];
        if (!atc_rule_filter_passes(lead->filter, atc_rule_mix(index, lead->word, lead->mask, pkt))) {
            continue;
        }
        const uint64_t tag = atc_rule_tag(index, at, pkt);
        if (tag != 0) {
            const auto *found = atc_recall_find<atc_filter_record_t>(&index->held, atc_tag_place(tag), tag, is_match);
            if (found != nullptr) {
                return found;
            }
        }
    }
    return nullptr;
}
