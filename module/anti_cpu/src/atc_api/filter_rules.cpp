// SPDX-License-Identifier: Apache-2.0
// The operator's permit and deny rules, under the host's ids or under ids of the module's choosing.
#include "anti_cpu/anti_cpu.h"
#include "atc/rule_match.h"
#include "atc/state/context.h"
#include "atc_api/rule_id.h"

namespace {

uint32_t list_index(uint32_t list_type);
atc_filter_record_t *rule_find(uint32_t id, uint32_t list_type) ATC_REQUIRES(g_atc_lock);
bool rule_store(const atc_filter_rule_t *rule, uint32_t list_type) ATC_REQUIRES(g_atc_lock);
int rule_delete(uint32_t id, uint32_t list_type) ATC_REQUIRES(g_atc_lock);
// What is done to an index with a rule, under the mask of what that compares.
using index_step_t = void (*)(atc_rule_index_t *index, atc_filter_record_t *record, const atc_filter_rule_t *mask);
void index_rule(atc_filter_record_t *record, index_step_t step) ATC_REQUIRES(g_atc_lock);
void index_missing() ATC_REQUIRES(g_atc_lock);

constexpr uint32_t LIST_OF_CHOSEN_IDS = 0;

}  // namespace

int atc_api_cfg_filter_rule_add(const atc_filter_rule_t *rule, uint32_t list_type) {
    if (rule == nullptr || !atc_rule_masks_fit(rule)) {
        return -1;
    }
    const atc_guard_t guard;
    if (rule_find(rule->id, list_type) != nullptr) {
        return -1;
    }
    return rule_store(rule, list_type) ? 0 : -1;
}

int atc_api_cfg_filter_rule_del(uint32_t id, uint32_t list_type) {
    const atc_guard_t guard;
    return rule_delete(id, list_type);
}

// The host keeps adds and deletes away while it walks, so no mutex could help here.
const atc_filter_node_t *atc_api_cfg_filter_rule_get_first(uint32_t list_type) ATC_NO_THREAD_SAFETY_ANALYSIS {
    return reinterpret_cast<const atc_filter_node_t *>(g_atc_global.filter_list[list_index(list_type)].next);
}

int atc_api_filter_rule_add(atc_filter_rule_t *rule) {
    if (rule == nullptr || rule->id != 0 || !atc_rule_masks_fit(rule)) {
        return -1;
    }
    const atc_guard_t guard;
    const int id = atc_get_rule_id();
    if (id < 0) {
        return -1;
    }
    if (rule_find(static_cast<uint32_t>(id), LIST_OF_CHOSEN_IDS) != nullptr) {
        return -1;  // a rule of the host's own sits on this id: it stays taken, the next add gets another
    }
    rule->id = static_cast<uint32_t>(id);
    if (!rule_store(rule, LIST_OF_CHOSEN_IDS)) {
        rule->id = 0;
        atc_free_rule_id(id);
        return -1;
    }
    return 0;
}

int atc_api_filter_rule_del(uint32_t id) {
    if (id < 1 || id > ATC_RULE_ID_MAX) {
        return -1;
    }
    const atc_guard_t guard;
    if (rule_delete(id, LIST_OF_CHOSEN_IDS) != 0) {
        return -1;
    }
    return atc_free_rule_id(static_cast<int>(id));
}

namespace {

uint32_t list_index(uint32_t list_type) {
    return list_type == 1 ? 1 : 0;
}

atc_filter_record_t *rule_find(uint32_t id, uint32_t list_type) {
    return atc_list_find<atc_filter_record_t>(
        &g_atc_global.filter_list[list_index(list_type)],
        [id](const atc_filter_record_t *record) { return record->rule.id == id; });
}

// Puts a copy of 'rule' at the front of its list. Returns false when there is no memory.
bool rule_store(const atc_filter_rule_t *rule, uint32_t list_type) {
    auto *record = static_cast<atc_filter_record_t *>(atc_calloc(sizeof(atc_filter_record_t)));
    if (record == nullptr) {
        return false;
    }
    record->rule = *rule;
    atc_list_insert_after(&g_atc_global.filter_list[list_index(list_type)], &record->link);
    g_atc_global.has_rules = 1;
    index_rule(record, atc_rule_index_add);
    index_missing();
    return true;
}

int rule_delete(uint32_t id, uint32_t list_type) {
    atc_filter_record_t *record = rule_find(id, list_type);
    if (record == nullptr) {
        return -1;
    }
    atc_list_each<atc_rule_cursor_t>(&g_atc_global.rule_cursors, [record](atc_rule_cursor_t *cursor) {
        cursor->at = cursor->at == &record->link ? record->link.next : cursor->at;
    });
    atc_list_remove(&record->link);
    index_rule(record, atc_rule_index_remove);
    index_missing();
    atc_free(record);
    g_atc_global.has_rules =
        !atc_list_is_empty(&g_atc_global.filter_list[0]) || !atc_list_is_empty(&g_atc_global.filter_list[1]);
    return 0;
}

void index_rule(atc_filter_record_t *record, index_step_t step) {
    atc_rule_index_t *index = atc_rule_index_of(record->rule.action);
    if (index != nullptr) {
        atc_filter_rule_t mask;
        atc_rule_mask(&record->rule, &mask);
        step(index, record, &mask);
    }
}

// Takes in what found no memory before. Seldom: while that is missing, every packet walks the lists.
void index_missing() {
    if (atc_rule_index_is_whole(&g_atc_global.deny_rules) && atc_rule_index_is_whole(&g_atc_global.permit_rules)) {
        return;
    }
    for (atc_list_t &head : g_atc_global.filter_list) {
        atc_list_each<atc_filter_record_t>(&head, [](atc_filter_record_t *record) ATC_REQUIRES(g_atc_lock) {
            index_rule(record, atc_rule_index_hold);
        });
    }
}

}  // namespace
