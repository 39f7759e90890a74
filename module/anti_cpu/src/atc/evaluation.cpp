// SPDX-License-Identifier: Apache-2.0
#include "atc/evaluation.h"

#include "atc/accounting.h"
#include "atc/capture.h"
#include "atc/notes.h"
#include "atc/text.h"
#include "atc/walk.h"

namespace {

constexpr uint32_t SECONDS_PER_DAY = 86400;

enum event_t {
    OVER,
    RESTORE,
};

// The wordings of the alarms, by period, event, and whether a source is named.
constexpr const char *WORDING[2][2][2] = {
    {{"anti-cpu rx port %d vlan %d protocol %s over fast period limit,receive/limit:%d/%d(pps)\r\n",
      "anti-cpu rx port %d vlan %d protocol %s src %s over fast period limit,receive/limit:%d/%d(pps)\r\n"},
     {"anti-cpu rx port %d vlan %d protocol %s restore fast period limit,receive/limit:%d/%d(pps)\r\n",
      "anti-cpu rx port %d vlan %d protocol %s src %s restore fast period limit,receive/limit:%d/%d(pps)\r\n"}},
    {{"anti-cpu rx port %d vlan %d protocol %s over long period limit,receive/limit:%d/%d(pps)\r\n",
      "anti-cpu rx port %d vlan %d protocol %s src %s over long period limit,receive/limit:%d/%d(pps)\r\n"},
     {"anti-cpu rx port %d vlan %d protocol %s restore long period limit,receive/limit:%d/%d(pps)\r\n",
      "anti-cpu rx port %d vlan %d protocol %s src %s restore long period limit,receive/limit:%d/%d(pps)\r\n"}},
};

void log_alarm(const atc_entry_t *flow, const atc_src_entry_t *src, atc_period_t period, event_t event,
               uint32_t packets, uint32_t threshold) ATC_REQUIRES(g_atc_lock);
void evaluate_fast(const atc_entry_t *flow, const atc_src_entry_t *src, atc_stat_t *stat) ATC_REQUIRES(g_atc_lock);
void evaluate_long(const atc_entry_t *flow, const atc_src_entry_t *src, atc_stat_t *stat) ATC_REQUIRES(g_atc_lock);
template <typename visit_t>
void each_aggregate_tree(visit_t visit) ATC_REQUIRES(g_atc_lock);
void run_pass(atc_period_t period) ATC_REQUIRES(g_atc_lock);
void close_or_note(const atc_entry_t *flow, const atc_src_entry_t *src, atc_stat_t *stat, atc_period_t period,
                   atc_notes_t *notes) ATC_REQUIRES(g_atc_lock);
void judge_noted(atc_notes_t *notes, atc_period_t period) ATC_REQUIRES(g_atc_lock);
void judge_rest(atc_period_t period) ATC_REQUIRES(g_atc_lock);
void judge_flow(atc_entry_t *flow, atc_period_t period) ATC_REQUIRES(g_atc_lock);
void judge_source(atc_src_entry_t *src, atc_period_t period) ATC_REQUIRES(g_atc_lock);
bool is_closed(const atc_stat_t *stat, atc_period_t period) ATC_REQUIRES(g_atc_lock);
void close_period(atc_stat_t *stat, atc_period_t period) ATC_REQUIRES(g_atc_lock);
bool is_quiet(const atc_stat_t *stat, atc_period_t period);
bool is_silent(const atc_stat_t *stat);
void close_aggregates(atc_period_t period) ATC_REQUIRES(g_atc_lock);
void sweep_source(atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock);
void sweep_flow(atc_entry_t *flow) ATC_REQUIRES(g_atc_lock);

}  // namespace

int atc_fp_expire(uintptr_t, uintptr_t, uintptr_t) {
    g_atc_global.fp_pass++;
    run_pass(ATC_PERIOD_FAST);
    atc_fp_arm();
    return 0;
}

int atc_lp_expire(uintptr_t, uintptr_t, uintptr_t) {
    g_atc_global.lp_pass++;
    run_pass(ATC_PERIOD_LONG);
    atc_lp_arm();
    return 0;
}

int atc_24h_expire(uintptr_t, uintptr_t, uintptr_t) {
    atc_flows_walk([](atc_entry_t *) { return true; },
                   [](atc_entry_t *, atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock) {
                       sweep_source(src);
                       return true;
                   },
                   [](atc_entry_t *flow) ATC_REQUIRES(g_atc_lock) {
                       sweep_flow(flow);
                       return true;
                   });
    each_aggregate_tree([](atc_avl_tree_t *tree) ATC_REQUIRES(g_atc_lock) {
        atc_entries_walk(tree, [tree](atc_entry_t *entry) ATC_REQUIRES(g_atc_lock) {
            if (entry->stat.count == 0) {
                atc_aggregate_discard(tree, entry);
            }
            return true;
        });
    });
    atc_24h_arm();
    return 0;
}

void atc_fp_arm() {
    timer_start(g_atc_global.timer_list, &g_atc_timer_fp, g_atc_global.fast_period_time, atc_fp_expire, 0, 0, 0);
}

void atc_lp_arm() {
    timer_start(g_atc_global.timer_list, &g_atc_timer_lp, g_atc_global.long_period_time, atc_lp_expire, 0, 0, 0);
}

void atc_24h_arm() {
    timer_start(g_atc_global.timer_list, &g_atc_timer_24h, SECONDS_PER_DAY, atc_24h_expire, 0, 0, 0);
}

int atc_fp_expire_process(atc_entry_t *entry) {
    evaluate_fast(entry, nullptr, &entry->stat);
    return 0;
}

int atc_fp_expire_src_process(atc_src_entry_t *src) {
    evaluate_fast(src->entry, src, &src->stat);
    return 0;
}

int atc_lp_expire_process(atc_entry_t *entry) {
    evaluate_long(entry, nullptr, &entry->stat);
    return 0;
}

int atc_lp_expire_src_process(atc_src_entry_t *src) {
    evaluate_long(src->entry, src, &src->stat);
    // One whose packets the chip stops sends none that are counted here: it ages when the expiry check has withdrawn
    // its rule. What is_silent says of it before its period is closed is the same.
    if (src->stat.lp_ring[src->stat.lp_cur] == 0 && src->stat.hw_deny_on == 0) {
        atc_src_entry_discard(src);
    }
    return 0;
}

namespace {

// Logs that a flow, or one of its sources ('src' not null), crossed its limit with 'packets' in the period.
void log_alarm(const atc_entry_t *flow, const atc_src_entry_t *src, atc_period_t period, event_t event,
               uint32_t packets, uint32_t threshold) {
    const bool fast = period == ATC_PERIOD_FAST;
    const uint32_t seconds = fast ? g_atc_global.fast_period_time : g_atc_global.long_period_time;
    const char *wording = WORDING[fast ? 0 : 1][event][src != nullptr ? 1 : 0];
    const int port = static_cast<int>(flow->port);
    const int received = static_cast<int>(atc_rate(packets, seconds));
    const int limit = static_cast<int>(atc_rate(threshold, seconds));
    char name[ATC_NAME_SIZE] = "";
    atc_protocol_id_to_name(flow->protocol, name, sizeof(name));
    if (src == nullptr) {
        ulogPrintf(g_atc_global.mod_id, ATC_LOG_ALARM, wording, port, flow->vlan, name, received, limit);
        return;
    }
    char source[ATC_NAME_SIZE];
    atc_src_text(src->src_type, src->src_addr, source, sizeof(source));
    ulogPrintf(g_atc_global.mod_id, ATC_LOG_ALARM, wording, port, flow->vlan, name, source, received, limit);
}

// Closes and judges a fast period of a flow ('src' null) or of one of its sources.
void evaluate_fast(const atc_entry_t *flow, const atc_src_entry_t *src, atc_stat_t *stat) {
    close_period(stat, ATC_PERIOD_FAST);
    const uint32_t packets = stat->fp_ring[stat->fp_cur];
    const uint32_t deny = src == nullptr ? g_atc_global.deny[flow->protocol] : g_atc_global.src_deny[flow->protocol];
    const uint32_t cap = src == nullptr ? g_atc_global.cap[flow->protocol] : g_atc_global.src_cap[flow->protocol];
    if (packets > stat->fp_threshold) {
        if (stat->fp_alarm == 0) {
            log_alarm(flow, src, ATC_PERIOD_FAST, OVER, packets, stat->fp_threshold);
            stat->fp_alarm = 1;
        }
        if (deny == 1) {
            stat->sw_deny_on = 1;
        }
        if (cap == 1) {
            atc_capture_auto_start(stat);
        }
    } else if (stat->fp_alarm == 1) {
        stat->sw_deny_on = 0;
        stat->cap_on = 0;
        stat->fp_alarm = 0;
        log_alarm(flow, src, ATC_PERIOD_FAST, RESTORE, packets, stat->fp_threshold);
    }
}

// The same for a long period, which only alarms.
void evaluate_long(const atc_entry_t *flow, const atc_src_entry_t *src, atc_stat_t *stat) {
    close_period(stat, ATC_PERIOD_LONG);
    const uint32_t packets = stat->lp_ring[stat->lp_cur];
    if (packets > stat->lp_threshold) {
        if (stat->lp_alarm == 0) {
            log_alarm(flow, src, ATC_PERIOD_LONG, OVER, packets, stat->lp_threshold);
            stat->lp_alarm = 1;
        }
    } else if (stat->lp_alarm == 1) {
        log_alarm(flow, src, ATC_PERIOD_LONG, RESTORE, packets, stat->lp_threshold);
        stat->lp_alarm = 0;
    }
}

// Calls visit(tree) for the indexes that only count.
template <typename visit_t>
void each_aggregate_tree(visit_t visit) {
    visit(&g_atc_global.port_tree);
    visit(&g_atc_global.vlan_tree);
    visit(&g_atc_global.rx_protocol_tree);
    visit(&g_atc_global.tx_protocol_tree);
}

// A pass begins with its number: what is made from then on has it already, what it closes gets it. First everything
// about which there is nothing to say is closed, in whatever order it lies in memory, which is many times faster than
// in that of the indexes; the rest is noted, and then judged in order.
void run_pass(atc_period_t period) {
    atc_notes_t notes = atc_notes_begin();
    const auto between = [&notes] { atc_notes_make_room(&notes); };
    atc_stat_pass(static_cast<uint8_t>(period));
    atc_sources_each([&notes, period](atc_src_entry_t *src)
                         ATC_REQUIRES(g_atc_lock) { close_or_note(src->entry, src, &src->stat, period, &notes); },
                     between);
    atc_flows_each([&notes, period](atc_entry_t *flow)
                       ATC_REQUIRES(g_atc_lock) { close_or_note(flow, nullptr, &flow->stat, period, &notes); },
                   between);
    if (notes.is_cut) {
        judge_rest(period);
    } else {
        judge_noted(&notes, period);
    }
    atc_notes_end(&notes);
    close_aggregates(period);
    atc_stat_pass(0);
}

void close_or_note(const atc_entry_t *flow, const atc_src_entry_t *src, atc_stat_t *stat, atc_period_t period,
                   atc_notes_t *notes) {
    if (is_closed(stat, period)) {
        return;  // made or met before
    }
    if (is_quiet(stat, period) && (src == nullptr || period == ATC_PERIOD_FAST || !is_silent(stat))) {
        close_period(stat, period);
    } else {
        atc_notes_add(notes, flow, src);
    }
}

// In the order of the indexes, so that what is logged and captured does not depend on where it lies in memory. What has
// gone meanwhile, and perhaps come again, is left out.
void judge_noted(atc_notes_t *notes, atc_period_t period) {
    if (notes->count > ATC_HOLD_LIMIT) {
        atc_sem_pause([notes] { atc_notes_sort(notes); });
    } else {
        atc_notes_sort(notes);
    }
    for (uint32_t i = 0; i < notes->count; i++) {
        const atc_note_t *note = &notes->items[i];
        if (note->src_type != ATC_SRC_NONE) {
            judge_source(atc_note_source(note), period);
        } else {
            judge_flow(atc_note_flow(note), period);
        }
        atc_sem_pause_if_due();
    }
}

// The same for all that is not closed yet.
void judge_rest(atc_period_t period) {
    atc_flows_walk(
        [period](atc_entry_t *flow) ATC_REQUIRES(g_atc_lock) {
            judge_flow(flow, period);
            return true;
        },
        [period](atc_entry_t *, atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock) {
            judge_source(src, period);
            return true;
        },
        [](atc_entry_t *) { return true; });
}

void judge_flow(atc_entry_t *flow, atc_period_t period) {
    if (flow != nullptr && !is_closed(&flow->stat, period)) {
        atc_hold_spend(ATC_WORK_LINE);
        period == ATC_PERIOD_FAST ? atc_fp_expire_process(flow) : atc_lp_expire_process(flow);
    }
}

void judge_source(atc_src_entry_t *src, atc_period_t period) {
    if (src != nullptr && !is_closed(&src->stat, period)) {
        atc_hold_spend(ATC_WORK_LINE);
        period == ATC_PERIOD_FAST ? atc_fp_expire_src_process(src) : atc_lp_expire_src_process(src);
    }
}

// Whether the pass under way, or the last one, has closed this block, or the block was made after its beginning.
bool is_closed(const atc_stat_t *stat, atc_period_t period) {
    return period == ATC_PERIOD_FAST ? stat->fp_pass == g_atc_global.fp_pass : stat->lp_pass == g_atc_global.lp_pass;
}

void close_period(atc_stat_t *stat, atc_period_t period) {
    (period == ATC_PERIOD_FAST ? stat->fp_pass : stat->lp_pass) =
        period == ATC_PERIOD_FAST ? g_atc_global.fp_pass : g_atc_global.lp_pass;
    atc_stat_process(stat, period);
}

// True when closing this period raises and clears nothing.
bool is_quiet(const atc_stat_t *stat, atc_period_t period) {
    return period == ATC_PERIOD_FAST ? stat->fp_alarm == 0 && stat->count - stat->fp_last <= stat->fp_threshold
                                     : stat->lp_alarm == 0 && stat->count - stat->lp_last <= stat->lp_threshold;
}

// True when a source without packets in the running long period goes at its end.
bool is_silent(const atc_stat_t *stat) {
    return stat->count == stat->lp_last && stat->hw_deny_on == 0;
}

// Closes a period of everything that has no limits.
void close_aggregates(atc_period_t period) {
    each_aggregate_tree([period](atc_avl_tree_t *tree) ATC_REQUIRES(g_atc_lock) {
        atc_entries_walk(tree, [period](atc_entry_t *entry) ATC_REQUIRES(g_atc_lock) {
            atc_stat_process(&entry->stat, period);
            return true;
        });
    });
    atc_stat_process(&g_atc_global.rx_stat, period);
    atc_stat_process(&g_atc_global.tx_stat, period);
}

void sweep_source(atc_src_entry_t *src) {
    atc_capture_auto_release(&src->stat);
    if (src->stat.count == 0) {
        atc_src_entry_discard(src);
    }
}

void sweep_flow(atc_entry_t *flow) {
    atc_capture_auto_release(&flow->stat);
    if (flow->stat.count == 0) {
        atc_flow_discard(flow);
    }
}

}  // namespace
