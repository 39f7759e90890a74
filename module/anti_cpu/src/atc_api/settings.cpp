// SPDX-License-Identifier: Apache-2.0
// settings.cpp: the settings that steer protection, and bringing what exists into line with them at once.
//
// Four limits (of flows and of sources, per fast and per long period) have the same shape: a table row each says which
// words of the context and of a statistics block they are. Lock: every setter but the three display words holds the
// module mutex, and gives it back now and then while it goes through what exists; what is made meanwhile has the new
// setting already. Each block is given what is set at the moment when it is met, so that of two setters at once the
// later one holds for all.
#include <cstdint>

#include "anti_cpu/anti_cpu.h"
#include "atc/accounting.h"
#include "atc/entries.h"
#include "atc/evaluation.h"
#include "atc/hw_deny.h"
#include "atc/walk.h"

namespace {

constexpr uint32_t REFUSED = UINT32_MAX;
constexpr uint32_t EVERY_PROTOCOL = 0;

enum owner_t : bool {
    FLOWS,
    SOURCES,
};

using end_fn_t = void (*)(uint32_t id);
using words_t = atc_protocol_words_t atc_global_t::*;

struct limit_t {
    owner_t owner;
    atc_period_t period;
    words_t configured;               // as the operator set it, 0 = default
    words_t in_force;                 // packets per second
    uint32_t atc_global_t::*seconds;  // length of the period
    uint32_t atc_stat_t::*threshold;  // packets per period
};

// clang-format off
constexpr limit_t FP_LIMIT = {
    FLOWS, ATC_PERIOD_FAST, &atc_global_t::fp_limit_cfg, &atc_global_t::fp_limit,
    &atc_global_t::fast_period_time, &atc_stat_t::fp_threshold};
constexpr limit_t LP_LIMIT = {
    FLOWS, ATC_PERIOD_LONG, &atc_global_t::lp_limit_cfg, &atc_global_t::lp_limit,
    &atc_global_t::long_period_time, &atc_stat_t::lp_threshold};
constexpr limit_t SRC_FP_LIMIT = {
    SOURCES, ATC_PERIOD_FAST, &atc_global_t::src_fp_limit_cfg, &atc_global_t::src_fp_limit,
    &atc_global_t::fast_period_time, &atc_stat_t::fp_threshold};
constexpr limit_t SRC_LP_LIMIT = {
    SOURCES, ATC_PERIOD_LONG, &atc_global_t::src_lp_limit_cfg, &atc_global_t::src_lp_limit,
    &atc_global_t::long_period_time, &atc_stat_t::lp_threshold};
// clang-format on

uint32_t store_display_word(uint32_t *word, uint32_t value);
uint32_t set_period(const limit_t *limit, const limit_t *src_limit, uint32_t seconds, atc_timer_t *timer,
                    void (*arm)());
uint32_t set_limit(const limit_t *limit, uint32_t id, uint32_t pps);
void update_thresholds(const limit_t *limit, uint32_t id) ATC_REQUIRES(g_atc_lock);
uint32_t default_of(const limit_t *limit, uint32_t id);
uint32_t set_enable(words_t words, uint32_t id, uint32_t value, end_fn_t end);
template <owner_t owner>
void end_deny(uint32_t id) ATC_REQUIRES(g_atc_lock);
void end_flow_hw_deny(uint32_t id) ATC_REQUIRES(g_atc_lock);
void end_source_hw_deny(uint32_t id) ATC_REQUIRES(g_atc_lock);
void end_nothing(uint32_t id);
template <typename visit_t>
void each_block(owner_t owner, uint32_t id, visit_t visit) ATC_REQUIRES(g_atc_lock);

}  // namespace

uint32_t atc_api_set_global_enable(uint32_t value) {
    atc_guard_t guard;
    atc_word_store(&g_atc_global.global_enable, value);
    return 0;
}

uint32_t atc_api_set_fast_period_time(uint32_t seconds) {
    return set_period(&FP_LIMIT, &SRC_FP_LIMIT, seconds, &g_atc_timer_fp, atc_fp_arm);
}

uint32_t atc_api_set_long_period_time(uint32_t seconds) {
    return set_period(&LP_LIMIT, &SRC_LP_LIMIT, seconds, &g_atc_timer_lp, atc_lp_arm);
}

uint32_t atc_api_set_ipattack(uint32_t value) {
    return store_display_word(&g_atc_global.ipattack, value);
}

uint32_t atc_api_set_icmpattack(uint32_t value) {
    return store_display_word(&g_atc_global.icmpattack, value);
}

uint32_t atc_api_set_icmpattack_size(uint32_t value) {
    return store_display_word(&g_atc_global.icmpattack_size, value);
}

uint32_t atc_api_set_protocol_fp_limit(uint32_t id, uint32_t pps) {
    return set_limit(&FP_LIMIT, id, pps);
}

uint32_t atc_api_set_protocol_lp_limit(uint32_t id, uint32_t pps) {
    return set_limit(&LP_LIMIT, id, pps);
}

uint32_t atc_api_set_protocol_src_fp_limit(uint32_t id, uint32_t pps) {
    return set_limit(&SRC_FP_LIMIT, id, pps);
}

uint32_t atc_api_set_protocol_src_lp_limit(uint32_t id, uint32_t pps) {
    return set_limit(&SRC_LP_LIMIT, id, pps);
}

uint32_t atc_api_set_protocol_deny_enable(uint32_t id, uint32_t value) {
    return set_enable(&atc_global_t::deny, id, value, end_deny<FLOWS>);
}

uint32_t atc_api_set_protocol_src_deny_enable(uint32_t id, uint32_t value) {
    return set_enable(&atc_global_t::src_deny, id, value, end_deny<SOURCES>);
}

uint32_t atc_api_set_protocol_hw_deny_enable(uint32_t id, uint32_t value) {
    return set_enable(&atc_global_t::hw_deny, id, value, end_flow_hw_deny);
}

uint32_t atc_api_set_protocol_src_hw_deny_enable(uint32_t id, uint32_t value) {
    return set_enable(&atc_global_t::src_hw_deny, id, value, end_source_hw_deny);
}

uint32_t atc_api_set_protocol_cap_enable(uint32_t id, uint32_t value) {
    return set_enable(&atc_global_t::cap, id, value, end_nothing);
}

uint32_t atc_api_set_protocol_src_cap_enable(uint32_t id, uint32_t value) {
    return set_enable(&atc_global_t::src_cap, id, value, end_nothing);
}

namespace {

uint32_t store_display_word(uint32_t *word, uint32_t value) {
    atc_word_store(word, value);
    return 0;
}

// Starts a new period of this length now.
uint32_t set_period(const limit_t *limit, const limit_t *src_limit, uint32_t seconds, atc_timer_t *timer,
                    void (*arm)()) {
    if (seconds == 0) {
        return REFUSED;
    }
    atc_guard_t guard;
    g_atc_global.*limit->seconds = seconds;
    timer_stop(g_atc_global.timer_list, timer);
    arm();
    update_thresholds(limit, EVERY_PROTOCOL);
    update_thresholds(src_limit, EVERY_PROTOCOL);
    return 0;
}

uint32_t set_limit(const limit_t *limit, uint32_t id, uint32_t pps) {
    if (!atc_protocol_is_valid(id)) {
        return REFUSED;
    }
    atc_guard_t guard;
    (g_atc_global.*limit->configured)[id] = pps;
    (g_atc_global.*limit->in_force)[id] = pps != 0 ? pps : default_of(limit, id);
    update_thresholds(limit, id);
    return 0;
}

void update_thresholds(const limit_t *limit, uint32_t id) {
    each_block(limit->owner, id, [limit](uint16_t protocol, atc_stat_t *stat) ATC_REQUIRES(g_atc_lock) {
        const uint32_t seconds = g_atc_global.*limit->seconds;
        stat->*limit->threshold = atc_threshold(seconds, (g_atc_global.*limit->in_force)[protocol]);
    });
}

// Stores an enable; 0 ends at once what it had switched on.
uint32_t set_enable(words_t words, uint32_t id, uint32_t value, end_fn_t end) {
    if (!atc_protocol_is_valid(id)) {
        return REFUSED;
    }
    atc_guard_t guard;
    (g_atc_global.*words)[id] = value;
    if (value == 0) {
        end(id);
    }
    return 0;
}

template <owner_t owner>
void end_deny(uint32_t id) {
    each_block(owner, id, [id](uint16_t /*protocol*/, atc_stat_t *stat) ATC_REQUIRES(g_atc_lock) {
        const auto &enabled = owner == FLOWS ? g_atc_global.deny : g_atc_global.src_deny;
        stat->sw_deny_on = enabled[id] == 0 ? 0 : stat->sw_deny_on;
    });
}

void end_flow_hw_deny(uint32_t id) {
    atc_hw_deny_withdraw_if(
        [id](const atc_hw_deny_t *record) { return record->entry != nullptr && record->entry->protocol == id; });
}

void end_source_hw_deny(uint32_t id) {
    atc_hw_deny_withdraw_if([id](const atc_hw_deny_t *record) {
        return record->src_entry != nullptr && record->src_entry->entry->protocol == id;
    });
}

// A running capture goes on.
void end_nothing(uint32_t /*id*/) {}

// Calls visit(protocol, block) for every flow of protocol 'id' (or of EVERY_PROTOCOL), or for every source of them;
// the order does not matter.
template <typename visit_t>
void each_block(owner_t owner, uint32_t id, visit_t visit) {
    const auto visit_if_meant = [id, visit](const atc_entry_t *flow, atc_stat_t *stat) ATC_REQUIRES(g_atc_lock) {
        if (id == EVERY_PROTOCOL || flow->protocol == id) {
            visit(flow->protocol, stat);
        }
    };
    const auto nothing = [] {};
    if (owner == FLOWS) {
        atc_flows_each([visit_if_meant](atc_entry_t *flow)
                           ATC_REQUIRES(g_atc_lock) { visit_if_meant(flow, &flow->stat); },
                       nothing);
    } else {
        atc_sources_each([visit_if_meant](atc_src_entry_t *src)
                             ATC_REQUIRES(g_atc_lock) { visit_if_meant(src->entry, &src->stat); },
                         nothing);
    }
}

uint32_t default_of(const limit_t *limit, uint32_t id) {
    const auto catalogue = limit->owner == FLOWS ? atc_protocol_lmt_init : atc_protocol_src_lmt_init;
    uint32_t fp_limit = 0;
    uint32_t lp_limit = 0;
    catalogue(static_cast<int32_t>(id), &fp_limit, &lp_limit);
    return limit->period == ATC_PERIOD_FAST ? fp_limit : lp_limit;
}

}  // namespace
