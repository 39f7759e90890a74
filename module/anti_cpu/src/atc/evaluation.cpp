#include "atc/evaluation.h"

#include <algorithm>

#include "atc/accounting.h"
#include "atc/capture.h"
#include "atc/text.h"

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

// What a pass has something to say about: a flow ('src' null), or one of its sources.
struct notable_t {
    atc_entry_t *flow;
    atc_src_entry_t *src;
};

// What a pass has noted. It begins in the room for a few, which costs no memory; more are noted in memory of the pass's
// own, so that it costs what there is to say and not a walk over everything.
struct notables_t {
    notable_t *items;
    uint32_t count;
    uint32_t room;  // items
    bool is_cut;    // there was no memory for all: nothing that was noted counts
};

constexpr uint32_t NOTABLES_FEW = 1024;
constexpr uint32_t NOTABLES_MAX = 1u << 26;  // their bytes fit the card's 32-bit sizes
notable_t few_notables[NOTABLES_FEW] ATC_GUARDED_BY(g_atc_lock);
notables_t notables ATC_GUARDED_BY(g_atc_lock);

bool is_before(const notable_t &a, const notable_t &b);
void log_alarm(const atc_entry_t *flow, const atc_src_entry_t *src, atc_period_t period, event_t event,
               uint32_t packets, uint32_t threshold) ATC_REQUIRES(g_atc_lock);
void evaluate_fast(const atc_entry_t *flow, const atc_src_entry_t *src, atc_stat_t *stat) ATC_REQUIRES(g_atc_lock);
void evaluate_long(const atc_entry_t *flow, const atc_src_entry_t *src, atc_stat_t *stat) ATC_REQUIRES(g_atc_lock);
template <typename visit_t>
void each_aggregate_tree(visit_t visit) ATC_REQUIRES(g_atc_lock);
void begin_pass() ATC_REQUIRES(g_atc_lock);
void close_or_note(atc_entry_t *flow, atc_src_entry_t *src, atc_stat_t *stat, atc_period_t period)
    ATC_REQUIRES(g_atc_lock);
void note(atc_entry_t *flow, atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock);
bool grow_notables() ATC_REQUIRES(g_atc_lock);
void free_notables() ATC_REQUIRES(g_atc_lock);
template <typename evaluate_t>
bool evaluate_notables(evaluate_t evaluate) ATC_REQUIRES(g_atc_lock);
void end_pass(atc_period_t period) ATC_REQUIRES(g_atc_lock);
void evaluate_rest(atc_entry_t *flow) ATC_REQUIRES(g_atc_lock);
void evaluate_whole(atc_entry_t *flow) ATC_REQUIRES(g_atc_lock);
bool is_quiet(const atc_stat_t *stat, atc_period_t period);
void close_aggregates(atc_period_t period) ATC_REQUIRES(g_atc_lock);
void sweep_source(atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock);
void sweep_flow(atc_entry_t *flow) ATC_REQUIRES(g_atc_lock);

}  // namespace

int atc_fp_expire(uintptr_t, uintptr_t, uintptr_t) {
    begin_pass();
    atc_sources_each([](atc_src_entry_t *src)
                         ATC_REQUIRES(g_atc_lock) { close_or_note(src->entry, src, &src->stat, ATC_PERIOD_FAST); });
    atc_flows_each([](atc_entry_t *flow)
                       ATC_REQUIRES(g_atc_lock) { close_or_note(flow, nullptr, &flow->stat, ATC_PERIOD_FAST); });
    const bool done = evaluate_notables([](const notable_t &notable) ATC_REQUIRES(g_atc_lock) {
        notable.src != nullptr ? atc_fp_expire_src_process(notable.src) : atc_fp_expire_process(notable.flow);
    });
    if (!done) {
        atc_tree_each<atc_entry_t>(&g_atc_global.entry_tree, evaluate_rest);
    }
    end_pass(ATC_PERIOD_FAST);
    atc_fp_arm();
    return 0;
}

// Sources are walked in order here, because those that have aged go.
int atc_lp_expire(uintptr_t, uintptr_t, uintptr_t) {
    begin_pass();
    atc_flows_each([](atc_entry_t *flow) ATC_REQUIRES(g_atc_lock) {
        if (!atc_avl_is_empty(&flow->src_tree)) {
            note(flow, nullptr);
        } else {
            close_or_note(flow, nullptr, &flow->stat, ATC_PERIOD_LONG);
        }
    });
    const bool done =
        evaluate_notables([](const notable_t &notable) ATC_REQUIRES(g_atc_lock) { evaluate_whole(notable.flow); });
    if (!done) {
        atc_tree_each<atc_entry_t>(&g_atc_global.entry_tree, [](atc_entry_t *flow) ATC_REQUIRES(g_atc_lock) {
            if (!atc_avl_is_empty(&flow->src_tree) || !is_quiet(&flow->stat, ATC_PERIOD_LONG)) {
                evaluate_whole(flow);
            }
        });
    }
    end_pass(ATC_PERIOD_LONG);
    atc_lp_arm();
    return 0;
}

int atc_24h_expire(uintptr_t, uintptr_t, uintptr_t) {
    atc_tree_each<atc_entry_t>(&g_atc_global.entry_tree, sweep_flow);
    each_aggregate_tree([](atc_avl_tree_t *tree) ATC_REQUIRES(g_atc_lock) {
        atc_tree_each<atc_entry_t>(tree, [tree](atc_entry_t *entry) ATC_REQUIRES(g_atc_lock) {
            if (entry->stat.count == 0) {
                atc_aggregate_discard(tree, entry);
            }
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
    // its rule.
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
    atc_stat_process(stat, ATC_PERIOD_FAST);
    if (flow->direction != ATC_DIRECTION_RX) {
        return;
    }
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
    atc_stat_process(stat, ATC_PERIOD_LONG);
    if (flow->direction != ATC_DIRECTION_RX) {
        return;
    }
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

void begin_pass() {
    notables = {few_notables, 0, NOTABLES_FEW, false};
    atc_stat_pass(true);
}

// Closes a period of a flow ('src' null) or of a source about which there is nothing to say, in whatever order they
// come, which is many times faster than in that of the indexes. The others are noted.
void close_or_note(atc_entry_t *flow, atc_src_entry_t *src, atc_stat_t *stat, atc_period_t period) {
    if (is_quiet(stat, period)) {
        atc_stat_process(stat, period);
    } else {
        note(flow, src);
    }
}

void note(atc_entry_t *flow, atc_src_entry_t *src) {
    if (notables.count == notables.room && !grow_notables()) {
        notables.is_cut = true;
        return;
    }
    notables.items[notables.count] = {flow, src};
    notables.count++;
}

// Doubles the room. Returns false when there is no memory for that, or was none before.
bool grow_notables() {
    const uint32_t room = notables.room * 2;
    if (notables.is_cut || room > NOTABLES_MAX) {
        return false;
    }
    auto *items = static_cast<notable_t *>(atc_malloc(room * static_cast<uint32_t>(sizeof(notable_t))));
    if (items == nullptr) {
        return false;
    }
    std::copy_n(notables.items, notables.count, items);
    free_notables();
    notables.items = items;
    notables.room = room;
    return true;
}

void free_notables() {
    if (notables.items != few_notables) {
        atc_free(notables.items);
    }
}

// Calls evaluate(notable) for what has been noted, in the order of the indexes, so that what is logged and captured
// does not depend on where it lies in memory. Returns false when not everything could be noted: then nothing is done.
template <typename evaluate_t>
bool evaluate_notables(evaluate_t evaluate) {
    if (!notables.is_cut) {
        std::sort(notables.items, notables.items + notables.count, is_before);
        std::for_each(notables.items, notables.items + notables.count, evaluate);
    }
    free_notables();
    return !notables.is_cut;
}

// A flow comes before its sources.
bool is_before(const notable_t &a, const notable_t &b) {
    if (a.flow != b.flow) {
        return atc_tree_compare(a.flow, b.flow) < 0;
    }
    return b.src != nullptr && (a.src == nullptr || atc_src_tree_compare(a.src, b.src) < 0);
}

void end_pass(atc_period_t period) {
    close_aggregates(period);
    atc_stat_pass(false);
}

// A fast period of a flow and its sources, but for what has been closed: that stays quiet.
void evaluate_rest(atc_entry_t *flow) {
    if (!is_quiet(&flow->stat, ATC_PERIOD_FAST)) {
        atc_fp_expire_process(flow);
    }
    atc_tree_each<atc_src_entry_t>(&flow->src_tree, [](atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock) {
        if (!is_quiet(&src->stat, ATC_PERIOD_FAST)) {
            atc_fp_expire_src_process(src);
        }
    });
}

void evaluate_whole(atc_entry_t *flow) {
    atc_lp_expire_process(flow);
    atc_tree_each<atc_src_entry_t>(&flow->src_tree, atc_lp_expire_src_process);
}

// True when closing this period raises and clears nothing.
bool is_quiet(const atc_stat_t *stat, atc_period_t period) {
    return period == ATC_PERIOD_FAST ? stat->fp_alarm == 0 && stat->count - stat->fp_last <= stat->fp_threshold
                                     : stat->lp_alarm == 0 && stat->count - stat->lp_last <= stat->lp_threshold;
}

// Closes a period of everything that has no limits.
void close_aggregates(atc_period_t period) {
    each_aggregate_tree([period](atc_avl_tree_t *tree) ATC_REQUIRES(g_atc_lock) {
        atc_tree_each<atc_entry_t>(
            tree, [period](atc_entry_t *entry) ATC_REQUIRES(g_atc_lock) { atc_stat_process(&entry->stat, period); });
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
    atc_tree_each<atc_src_entry_t>(&flow->src_tree, sweep_source);
    atc_capture_auto_release(&flow->stat);
    if (flow->stat.count == 0) {
        atc_flow_discard(flow);
    }
}

}  // namespace
