// SPDX-License-Identifier: Apache-2.0
// walk.h: walks over everything that is remembered, in slices: when a hold of the mutex has done enough, it is given
// back for a moment (atc_sem_pause), and the walk goes on where it was although records came and went meanwhile.
//
// Used by evaluation, settings, clearing and the reports. In order, a walk goes on behind the key that it has seen
// last: it meets each key once, and what is made meanwhile if it lies ahead. In no order, it meets every record that is
// there all the time, seldom one twice, and what is made meanwhile or not. Nothing that a visit looks at survives a
// pause. Without a pause the walks do what one hold would. Lock: the module mutex is held, but for the pauses.
#pragma once

#include "atc/entries.h"

// Calls visit(record) for every record of the index that index() names, in order, until it returns false; index() is
// asked again after each pause, and null ends the walk. 'visit' may discard the record that it is given, and pause.
// Returns whether the walk came to its end.
template <typename record_t, typename key_t, typename index_t, typename visit_t>
inline bool atc_walk_in_order(index_t index, visit_t visit) ATC_REQUIRES(g_atc_lock) {
    const atc_avl_tree_t *tree = index();
    void *record = tree != nullptr ? atc_avl_first(tree) : nullptr;
    while (record != nullptr) {
        const key_t key = *static_cast<const key_t *>(record);
        void *next = atc_avl_next(tree, record);
        const uint32_t pauses = g_atc_global.hold.pauses;
        if (!visit(static_cast<record_t *>(record))) {
            return false;
        }
        if (atc_hold_spend(ATC_WORK_STEP)) {
            atc_sem_pause();
        }
        if (pauses != g_atc_global.hold.pauses) {
            tree = index();
            next = tree != nullptr ? atc_avl_after(tree, &key) : nullptr;
        }
        record = next;
    }
    return true;
}

// The same of one of the context's indexes.
template <typename visit_t>
inline bool atc_entries_walk(atc_avl_tree_t *tree, visit_t visit) ATC_REQUIRES(g_atc_lock) {
    return atc_walk_in_order<atc_entry_t, atc_entry_key_t>([tree] { return tree; }, visit);
}

// Calls before(flow) for every flow in order, visit(flow, src) for each of its sources in order, then after(flow),
// which may discard it, as visit may the source; each returns whether to go on.
template <typename before_t, typename visit_t, typename after_t>
inline bool atc_flows_walk(before_t before, visit_t visit, after_t after) ATC_REQUIRES(g_atc_lock) {
    return atc_entries_walk(&g_atc_global.entry_tree, [&](atc_entry_t *first) ATC_REQUIRES(g_atc_lock) {
        const atc_entry_key_t key = *first;
        const uint32_t pauses = g_atc_global.hold.pauses;
        if (!before(first)) {
            return false;
        }
        atc_entry_t *flow = first;
        const auto sources = [&]() ATC_REQUIRES(g_atc_lock) -> const atc_avl_tree_t * {
            if (pauses != g_atc_global.hold.pauses) {
                flow = static_cast<atc_entry_t *>(atc_avl_find(&g_atc_global.entry_tree, &key, nullptr));
            }
            return flow != nullptr ? &flow->src_tree : nullptr;
        };
        const bool goes_on = atc_walk_in_order<atc_src_entry_t, atc_src_key_t>(
            sources, [&](atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock) { return visit(flow, src); });
        return goes_on && (sources() == nullptr || after(flow));
    });
}

// Calls visit(record) for the remembered records of a table in no order, and between() in each pause, without the
// mutex.
template <typename record_t, typename visit_t, typename between_t>
inline void atc_recalled_each(const atc_recall_table_t *table, visit_t visit, between_t between)
    ATC_REQUIRES(g_atc_lock) {
    atc_recall_cursor_t cursor = {};
    const auto visit_one = [&visit](record_t *record) ATC_REQUIRES(g_atc_lock) {
        visit(record);
        return !atc_hold_spend(1);
    };
    while (atc_recall_walk<record_t>(table, &cursor, visit_one)) {
        atc_sem_pause(between);
    }
}

// Call visit(record) for every flow, or for every source of all flows, in any order; 'visit' must not discard, nor
// pause. Much faster than in order when there are many. What is remembered at the beginning stays so, and what is made
// meanwhile need not be met: if nothing is missing at the beginning, the order of memory will do.
template <typename visit_t, typename between_t>
inline void atc_flows_each(visit_t visit, between_t between) ATC_REQUIRES(g_atc_lock) {
    const atc_recall_table_t *remembered = &g_atc_global.recall.flows;
    if (atc_recall_is_complete(remembered, atc_avl_numnodes(&g_atc_global.entry_tree))) {
        atc_recalled_each<atc_entry_t>(remembered, visit, between);
        return;
    }
    atc_entries_walk(&g_atc_global.entry_tree, [&visit](atc_entry_t *flow) ATC_REQUIRES(g_atc_lock) {
        visit(flow);
        return true;
    });
}

template <typename visit_t, typename between_t>
inline void atc_sources_each(visit_t visit, between_t between) ATC_REQUIRES(g_atc_lock) {
    const atc_recall_t *recall = &g_atc_global.recall;
    if (atc_recall_is_complete(&recall->sources, recall->linked_sources)) {
        atc_recalled_each<atc_src_entry_t>(&recall->sources, visit, between);
        return;
    }
    const auto nothing = [](atc_entry_t *) { return true; };
    atc_flows_walk(
        nothing,
        [&visit](atc_entry_t *, atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock) {
            visit(src);
            return true;
        },
        nothing);
}
