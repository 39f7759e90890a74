// SPDX-License-Identifier: Apache-2.0
// trunk.cpp: the table of trunks, and the moves of the rules that apply to one.
//
// A rule in the chip names physical ports. It is taken out while the table still holds the members under which it went
// in, and put back once the table holds the new ones.
#include "atc/trunk.h"

#include <algorithm>
#include <iterator>

#include "anti_cpu/anti_cpu.h"
#include "atc/hw_deny.h"
#include "atc/state/message.h"
#include "atc_api_hw/auto_rule.h"
#include "atc_api_hw/cfg_rule.h"
#include "atc_api_hw/driver_lists.h"

namespace {

constexpr uint32_t OP_JOIN = 1;  // the card's; any other number is a leave

uint32_t *find_slot(atc_trunk_t *trunk, uint32_t member);
template <typename record_t, typename visit_t>
void each_missing(atc_list_t *head, uint32_t port, visit_t visit) ATC_REQUIRES(g_atc_lock);

}  // namespace

int atc_api_trunk_member_pro(uint32_t /*unused*/, uint32_t trunk, uint32_t member, uint32_t op) {
    atc_msg_t message = {};
    message.type = op == OP_JOIN ? ATC_MSG_TRUNK_JOIN : ATC_MSG_TRUNK_LEAVE;
    message.trunk_id = trunk;
    message.member_port = member;
    if (!atc_msg_post(&message)) {
        ulogPrintf(atc_word_load(&g_atc_global.mod_id), ATC_LOG_ALARM, "anti-cpu trunk %d member %d change lost\r\n",
                   static_cast<int>(trunk), static_cast<int>(member));
    }
    return 0;
}

int atc_trunk_add_pro(uint32_t trunk, uint32_t member) {
    if (member == 0) {
        return 0;  // no port: 0 marks an empty slot
    }
    atc_trunk_t *record = atc_trunk_find(trunk);
    const bool is_new = record == nullptr;
    if (is_new) {
        record = static_cast<atc_trunk_t *>(atc_calloc(sizeof(atc_trunk_t)));
        if (record == nullptr) {
            return -1;
        }
        record->trunk_id = trunk;
    }
    uint32_t *slot = find_slot(record, 0);
    if (slot == nullptr || find_slot(record, member) != nullptr) {
        return 0;
    }

    // A new trunk goes onto the list in between: until then its rules are those of a plain port.
    atc_hw_filter_update_del(trunk);
    *slot = member;
    record->member_count++;
    if (is_new) {
        atc_list_insert_after(&g_atc_global.trunk_list, &record->link);
    }
    atc_hw_filter_update_add(trunk);
    return 0;
}

int atc_trunk_del_pro(uint32_t trunk, uint32_t member) {
    atc_trunk_t *record = atc_trunk_find(trunk);
    uint32_t *slot = record != nullptr && member != 0 ? find_slot(record, member) : nullptr;
    if (slot == nullptr) {
        return -1;
    }
    atc_hw_filter_update_del(trunk);
    *slot = 0;
    record->member_count--;
    atc_hw_filter_update_add(trunk);
    return 0;
}

int atc_port_is_trunk(uint32_t port) {
    return atc_trunk_find(port) != nullptr ? 1 : 0;
}

// What is installed while others are taken out is taken out as well: behind the last of them comes no pause.
int atc_hw_filter_update_del(uint32_t port) {
    const auto is_there = [port](const auto *record) { return record->rule.port == port && record->is_in_chip; };
    for (;;) {
        if (auto *filter = atc_list_find<atc_hw_cfg_filter_t>(&g_atc_global.hw_cfg_filter_list, is_there)) {
            atc_hw_cfg_filter_del(&filter->rule);
            filter->is_in_chip = false;
        } else if (auto *record = atc_list_find<atc_hw_deny_t>(&g_atc_global.hw_deny_list, is_there)) {
            atc_hw_filter_del(&record->rule);
            record->is_in_chip = false;
        } else {
            return 0;
        }
        if (atc_hold_spend(ATC_WORK_RULE)) {
            atc_sem_pause();
        }
    }
}

// What is installed while others are put back is in place already.
int atc_hw_filter_update_add(uint32_t port) {
    // A filter that cannot be put back stays configured; the trunk's next change tries again.
    each_missing<atc_hw_cfg_filter_t>(&g_atc_global.hw_cfg_filter_list, port,
                                      [](atc_hw_cfg_filter_t *filter) ATC_REQUIRES(g_atc_lock) {
                                          filter->is_in_chip = atc_hw_cfg_filter_add(&filter->rule) >= 0;
                                      });
    each_missing<atc_hw_deny_t>(&g_atc_global.hw_deny_list, port, [](atc_hw_deny_t *record) ATC_REQUIRES(g_atc_lock) {
        record->is_in_chip = atc_hw_filter_add(&record->rule) >= 0;
        if (!record->is_in_chip) {
            atc_hw_deny_forget(record);
        }
    });
    return 0;
}

namespace {

// The first slot that holds 'member' (0: the first empty one), or null.
uint32_t *find_slot(atc_trunk_t *trunk, uint32_t member) {
    uint32_t *slot = std::find(std::begin(trunk->members), std::end(trunk->members), member);
    return slot != std::end(trunk->members) ? slot : nullptr;
}

// Calls visit(record) for every record of a port whose rule is not in the chip, newest first, with pauses.
template <typename record_t, typename visit_t>
void each_missing(atc_list_t *head, uint32_t port, visit_t visit) {
    uint64_t number = UINT64_MAX;
    const auto is_next = [port, &number](const record_t *record) {
        return record->rule.port == port && !record->is_in_chip && record->number < number;
    };
    while (record_t *record = atc_list_find<record_t>(head, is_next)) {
        number = record->number;
        visit(record);
        if (atc_hold_spend(ATC_WORK_RULE)) {
            atc_sem_pause();
        }
    }
}

}  // namespace
