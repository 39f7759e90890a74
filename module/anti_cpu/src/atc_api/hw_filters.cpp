// SPDX-License-Identifier: Apache-2.0
// hw_filters.cpp: the operator's hardware filters: configured, kept and deleted.
//
// Owns the records of hw_cfg_filter_list. A record's rule is in the chip, unless a trunk has lost its last usable
// member or the chip refused it when the trunk changed; the record says which (is_in_chip), so that no other filter's
// rule like it is taken out in its place. Lock: both operations hold the module mutex throughout, driver calls
// included.
#include "anti_cpu/anti_cpu.h"
#include "atc/state/context.h"
#include "atc_api_hw/cfg_rule.h"

namespace {

atc_hw_cfg_filter_t *find(uint32_t id) ATC_REQUIRES(g_atc_lock);
bool take_out(atc_hw_cfg_filter_t *record) ATC_REQUIRES(g_atc_lock);

}  // namespace

int atc_api_cfg_hw_filter_rule_add(atc_filter_rule_t *rule) {
    if (rule == nullptr) {
        return -1;
    }
    atc_guard_t guard;
    if (find(rule->id) != nullptr || atc_hw_cfg_filter_add(rule) < 0) {
        return -1;
    }
    auto *record = static_cast<atc_hw_cfg_filter_t *>(atc_calloc(sizeof(atc_hw_cfg_filter_t)));
    if (record == nullptr) {
        atc_hw_cfg_filter_del(rule);
        return -1;
    }
    record->rule = *rule;
    record->number = g_atc_global.rules_numbered++;
    record->is_in_chip = true;
    atc_list_insert_after(&g_atc_global.hw_cfg_filter_list, &record->link);
    return 0;
}

int atc_api_cfg_hw_filter_rule_del(uint32_t id) {
    atc_guard_t guard;
    atc_hw_cfg_filter_t *record = find(id);
    if (record == nullptr || !take_out(record)) {
        return -1;
    }
    atc_list_remove(&record->link);
    atc_free(record);
    return 0;
}

namespace {

atc_hw_cfg_filter_t *find(uint32_t id) {
    return atc_list_find<atc_hw_cfg_filter_t>(
        &g_atc_global.hw_cfg_filter_list, [id](const atc_hw_cfg_filter_t *record) { return record->rule.id == id; });
}

// Returns whether the filter may be forgotten: not one of which the chip keeps the rule, and none of a trunk that has
// no usable member.
bool take_out(atc_hw_cfg_filter_t *record) {
    return record->is_in_chip ? atc_hw_cfg_filter_del(&record->rule) >= 0
                              : atc_hw_cfg_filter_is_placeable(&record->rule);
}

}  // namespace
