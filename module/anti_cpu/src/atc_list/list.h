// SPDX-License-Identifier: Apache-2.0
// list.h: the intrusive, circular, doubly linked list of all rule, trunk and timer records.
//
// A record embeds an atc_list_t as its first member, so a link is its record (atc_list_record). A head is a link of its
// own; an empty list is a head that points to itself. Nothing is allocated.
// Invariants: every link on a list has next->prev == itself == prev->next. An idle link points to itself, or is all
// zero. Lock: none of its own; every list of the module is reached under the module mutex.
#pragma once

#include "atc_lock/lock.h"

struct atc_list_t {
    atc_list_t *next;
    atc_list_t *prev;
};

inline void atc_list_init(atc_list_t *head) {
    head->next = head;
    head->prev = head;
}

inline bool atc_list_is_empty(const atc_list_t *head) {
    return head->next == head;
}

// Links 'link', which must be idle, right behind 'position'.
inline void atc_list_insert_after(atc_list_t *position, atc_list_t *link) {
    link->next = position->next;
    link->prev = position;
    position->next->prev = link;
    position->next = link;
}

// Links 'link', which must be idle, right before 'position'; before the head is at the end of the list.
inline void atc_list_insert_before(atc_list_t *position, atc_list_t *link) {
    atc_list_insert_after(position->prev, link);
}

// Takes 'link' off its list and makes it point to itself. Harmless for an idle link, all zero included.
inline void atc_list_remove(atc_list_t *link) {
    if (link->next != nullptr) {
        link->next->prev = link->prev;
    }
    if (link->prev != nullptr) {
        link->prev->next = link->next;
    }
    atc_list_init(link);
}

// The record that embeds 'link' as its first member.
template <typename record_t>
inline record_t *atc_list_record(atc_list_t *link) {
    static_assert(__builtin_offsetof(record_t, link) == 0, "the link is the record's first member");
    return reinterpret_cast<record_t *>(link);
}

// Calls visit(record) for every record of the list, front first. 'visit' may unlink and free the record it is given,
// and no other.
template <typename record_t, typename visit_t>
inline void atc_list_each(atc_list_t *head, visit_t visit) ATC_REQUIRES(g_atc_lock) {
    for (atc_list_t *link = head->next; link != head;) {
        atc_list_t *next = link->next;
        visit(atc_list_record<record_t>(link));
        link = next;
    }
}

// Returns the first record for which match(record) holds, or null.
template <typename record_t, typename match_t>
inline record_t *atc_list_find(atc_list_t *head, match_t match) ATC_REQUIRES(g_atc_lock) {
    for (atc_list_t *link = head->next; link != head; link = link->next) {
        if (record_t *record = atc_list_record<record_t>(link); match(record)) {
            return record;
        }
    }
    return nullptr;
}
