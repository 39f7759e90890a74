// SPDX-License-Identifier: Apache-2.0
// hw_deny.cpp: installs, checks and withdraws the automatic deny rules.
//
// Whatever fails on the way in is undone in the chip at once, so that a rule there and a record here always come and go
// together.
#include "atc/hw_deny.h"

#include "atc_api_hw/auto_rule.h"
#include "atc_api_hw/driver_lists.h"

namespace {

bool may_install(const atc_entry_t *entry, const atc_protocol_words_t &enabled, const atc_stat_t *owner)
    ATC_REQUIRES(g_atc_lock);
atc_hw_deny_t *install(const atc_pkt_info_t *pkt, bool per_source) ATC_REQUIRES(g_atc_lock);
void remember(atc_hw_deny_t *record) ATC_REQUIRES(g_atc_lock);
atc_hw_deny_t *find(uintptr_t address) ATC_REQUIRES(g_atc_lock);
uint32_t packets_since_last_check(atc_hw_deny_t *record);
atc_stat_t *owner_of(const atc_hw_deny_t *record);
void withdraw_of(const atc_stat_t *owner) ATC_REQUIRES(g_atc_lock);
void arm(atc_hw_deny_t *record) ATC_REQUIRES(g_atc_lock);

}  // namespace

void atc_hw_deny_flow(atc_entry_t *entry, const atc_pkt_info_t *pkt) {
    if (!may_install(entry, g_atc_global.hw_deny, &entry->stat)) {
        return;
    }
    if (atc_hw_deny_t *record = install(pkt, false); record != nullptr) {
        record->entry = entry;
        remember(record);
    }
}

void atc_hw_deny_source(atc_src_entry_t *src, const atc_pkt_info_t *pkt) {
    if (!may_install(src->entry, g_atc_global.src_hw_deny, &src->stat)) {
        return;
    }
    if (atc_hw_deny_t *record = install(pkt, true); record != nullptr) {
        record->src_entry = src;
        remember(record);
    }
}

int atc_hw_filter_expire(uintptr_t address, uintptr_t /*unused2*/, uintptr_t /*unused3*/) {
    atc_hold_spend(ATC_WORK_RULE);
    atc_hw_deny_t *record = find(address);
    if (record == nullptr) {
        return 0;
    }
    if (owner_of(record)->fp_threshold > packets_since_last_check(record)) {
        atc_hw_deny_withdraw(record);
    } else {
        arm(record);
    }
    atc_sem_pause_if_due();
    return 0;
}

void atc_hw_deny_withdraw(atc_hw_deny_t *record) {
    // A refusal is logged there; a chip that has lost the rule must not keep its record alive.
    if (record->is_in_chip) {
        atc_hold_spend(ATC_WORK_RULE);
        atc_hw_filter_del(&record->rule);
    }
    atc_hw_deny_forget(record);
}

int atc_hw_filter_delete_by_pro(atc_entry_t *entry) {
    withdraw_of(&entry->stat);
    return 0;
}

int atc_hw_filter_delete_by_spro(atc_src_entry_t *src) {
    withdraw_of(&src->stat);
    return 0;
}

void atc_hw_deny_forget(atc_hw_deny_t *record) {
    owner_of(record)->hw_deny_on = 0;
    atc_word_store(&g_atc_global.rule_hw_count, g_atc_global.rule_hw_count - 1);
    timer_stop(g_atc_global.timer_list, &record->timer);
    atc_list_remove(&record->link);
    atc_free(record);
}

namespace {

bool may_install(const atc_entry_t *entry, const atc_protocol_words_t &enabled, const atc_stat_t *owner) {
    return enabled[entry->protocol] == 1 && owner->hw_deny_on == 0 && g_atc_global.rule_hw_count < ATC_HW_RULES_MAX &&
           g_atc_global.discards == 0 && entry->port != ATC_HW_PORT_NEVER;
}

// Puts a rule like this packet into the chip. Returns its record, not yet on the list, or null with the chip as it was.
atc_hw_deny_t *install(const atc_pkt_info_t *pkt, bool per_source) {
    atc_filter_rule_t rule = *pkt;
    rule.src_rule = per_source ? 1 : 0;
    const int result = atc_hw_filter_add(&rule);
    if (result < 0) {
        return nullptr;
    }
    // No driver says what a positive result means; only 0 is taken for an installed rule.
    auto *record = result == 0 ? static_cast<atc_hw_deny_t *>(atc_calloc(sizeof(atc_hw_deny_t))) : nullptr;
    if (record == nullptr) {
        atc_hw_filter_del(&rule);
        return nullptr;
    }
    record->rule = rule;
    record->number = g_atc_global.rules_numbered++;
    record->is_in_chip = true;
    return record;
}

void remember(atc_hw_deny_t *record) {
    atc_list_insert_after(&g_atc_global.hw_deny_list, &record->link);
    arm(record);
    owner_of(record)->hw_deny_on = 1;
    atc_word_store(&g_atc_global.rule_hw_count, g_atc_global.rule_hw_count + 1);
}

// The record at this address, or null when it has been freed: it is looked at only once it is known to be there.
atc_hw_deny_t *find(uintptr_t address) {
    return atc_list_find<atc_hw_deny_t>(&g_atc_global.hw_deny_list, [address](const atc_hw_deny_t *record) {
        return reinterpret_cast<uintptr_t>(record) == address;
    });
}

// The chip's counter is wider than the thresholds: the difference counts modulo 2^32. A count of 0 (nothing stopped, or
// a counter that cannot be read) leaves the last one as it is.
uint32_t packets_since_last_check(atc_hw_deny_t *record) {
    uint64_t packets = 0;
    atc_hw_filter_count_get(record->rule.stat_id, &packets);
    if (packets == 0) {
        return 0;
    }
    const uint32_t interval = static_cast<uint32_t>(packets) - static_cast<uint32_t>(record->last_packets);
    record->last_packets = packets;
    return interval;
}

atc_stat_t *owner_of(const atc_hw_deny_t *record) {
    return record->src_entry != nullptr ? &record->src_entry->stat : &record->entry->stat;
}

void withdraw_of(const atc_stat_t *owner) {
    if (owner->hw_deny_on != 0) {
        atc_hw_deny_withdraw(atc_list_find<atc_hw_deny_t>(
            &g_atc_global.hw_deny_list, [owner](const atc_hw_deny_t *record) { return owner_of(record) == owner; }));
    }
}

void arm(atc_hw_deny_t *record) {
    timer_start(g_atc_global.timer_list, &record->timer, g_atc_global.fast_period_time, atc_hw_filter_expire,
                reinterpret_cast<uintptr_t>(record), 0, 0);
}

}  // namespace
