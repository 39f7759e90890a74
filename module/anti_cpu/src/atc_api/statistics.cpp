// SPDX-License-Identifier: Apache-2.0
// statistics.cpp: the queries of anti_cpu.h.
//
// Every query of a block is one procedure over a row of output words: sample, wait a second without the mutex, find the
// block again, sample again. What differs between the queries is the block and which of the figures they hand out.
#include "atc_api/statistics.h"

#include <string.h>

#include <algorithm>
#include <array>
#include <utility>

#include "anti_cpu/anti_cpu.h"
#include "atc/walk.h"

namespace {

// Of one kind of period; counts in packets per period, each followed by its rate in packets per second.
struct period_figures_t {
    uint32_t cur, cur_pps;
    uint32_t min, min_pps;
    uint32_t max, max_pps;
    uint32_t avg, avg_pps;
    uint32_t threshold, threshold_pps;
    uint32_t peak, peak_pps;
};

// All that a query can hand out, in the order of its arguments.
struct figures_t {
    uint32_t count;
    uint32_t pps;
    period_figures_t fast;
    period_figures_t slow;
    uint32_t cap_on;
    uint32_t cap_len;
    uint32_t sw_deny_on;
    uint32_t hw_deny_on;
};
constexpr size_t FIGURES = sizeof(figures_t) / sizeof(uint32_t);
static_assert(FIGURES == 30);

// The queries of sums leave out what only flows and sources have: thresholds and what follows the long period.
constexpr size_t SUM_FIGURES = 22;
constexpr bool is_flow_figure(size_t index) {
    constexpr size_t thresholds[] = {offsetof(figures_t, fast.threshold), offsetof(figures_t, slow.threshold)};
    const size_t offset = index * sizeof(uint32_t);
    return offset == thresholds[0] || offset == thresholds[0] + sizeof(uint32_t) || offset == thresholds[1] ||
           offset == thresholds[1] + sizeof(uint32_t) || offset >= offsetof(figures_t, cap_on);
}

using flow_words_t = std::array<uint32_t *, FIGURES>;
using sum_words_t = std::array<uint32_t *, SUM_FIGURES>;

// Where a query's figures go: a word for each figure, or null for those that it leaves out.
struct outputs_t {
    flow_words_t words;
    char *fp_peak_time;  // 64 bytes each, or null
    char *lp_peak_time;
};

int query_sum(const atc_block_name_t *name, const sum_words_t &words, char *fp_peak_time, char *lp_peak_time);
int query_flow(const atc_block_name_t *name, const flow_words_t &words, char *fp_peak_time, char *lp_peak_time);
int query(const atc_block_name_t *name, const outputs_t *out);
void sample(const atc_stat_t *stat, figures_t *figures, char *fp_peak_time, char *lp_peak_time)
    ATC_REQUIRES(g_atc_lock);
void rate(period_figures_t *period, uint32_t seconds);
void hand_out(const figures_t *figures, const outputs_t *out);
atc_stat_t *sum_block(const atc_avl_tree_t *tree, const atc_entry_key_t *key) ATC_REQUIRES(g_atc_lock);
void read_ring(const uint32_t *ring, uint32_t head, uint32_t cur, uint32_t *latest, uint32_t *min, uint32_t *max,
               uint32_t *avg);
uint32_t list_sources(const atc_entry_key_t *name, uint32_t *types, atc_src_stat_t *records) ATC_EXCLUDES(g_atc_lock);
void sort_sources(uint32_t count, uint32_t *types, atc_src_stat_t *records);
void put_source(uint32_t type, uint32_t count, const uint8_t *addr, uint32_t *to_type, atc_src_stat_t *to);

}  // namespace

int atc_api_get_global_statistic(uint32_t direction, uint32_t *count, uint32_t *pps, uint32_t *fp_cur,
                                 uint32_t *fp_cur_pps, uint32_t *fp_min, uint32_t *fp_min_pps, uint32_t *fp_max,
                                 uint32_t *fp_max_pps, uint32_t *fp_avg, uint32_t *fp_avg_pps, uint32_t *fp_peak,
                                 uint32_t *fp_peak_pps, char *fp_peak_time, uint32_t *lp_cur, uint32_t *lp_cur_pps,
                                 uint32_t *lp_min, uint32_t *lp_min_pps, uint32_t *lp_max, uint32_t *lp_max_pps,
                                 uint32_t *lp_avg, uint32_t *lp_avg_pps, uint32_t *lp_peak, uint32_t *lp_peak_pps,
                                 char *lp_peak_time) {
    const atc_block_name_t name = {.kind = atc_block_kind_t::global, .direction = direction};
    return query_sum(&name, {count,  pps,        fp_cur,  fp_cur_pps,  fp_min,  fp_min_pps, fp_max, fp_max_pps,
                             fp_avg, fp_avg_pps, fp_peak, fp_peak_pps, lp_cur,  lp_cur_pps, lp_min, lp_min_pps,
                             lp_max, lp_max_pps, lp_avg,  lp_avg_pps,  lp_peak, lp_peak_pps},
                     fp_peak_time, lp_peak_time);
}

int atc_api_get_port_statistic(uint32_t direction, uint32_t port, uint32_t *count, uint32_t *pps, uint32_t *fp_cur,
                               uint32_t *fp_cur_pps, uint32_t *fp_min, uint32_t *fp_min_pps, uint32_t *fp_max,
                               uint32_t *fp_max_pps, uint32_t *fp_avg, uint32_t *fp_avg_pps, uint32_t *fp_peak,
                               uint32_t *fp_peak_pps, char *fp_peak_time, uint32_t *lp_cur, uint32_t *lp_cur_pps,
                               uint32_t *lp_min, uint32_t *lp_min_pps, uint32_t *lp_max, uint32_t *lp_max_pps,
                               uint32_t *lp_avg, uint32_t *lp_avg_pps, uint32_t *lp_peak, uint32_t *lp_peak_pps,
                               char *lp_peak_time) {
    const atc_block_name_t name = {.kind = atc_block_kind_t::port, .direction = direction, .port = port};
    return query_sum(&name, {count,  pps,        fp_cur,  fp_cur_pps,  fp_min,  fp_min_pps, fp_max, fp_max_pps,
                             fp_avg, fp_avg_pps, fp_peak, fp_peak_pps, lp_cur,  lp_cur_pps, lp_min, lp_min_pps,
                             lp_max, lp_max_pps, lp_avg,  lp_avg_pps,  lp_peak, lp_peak_pps},
                     fp_peak_time, lp_peak_time);
}

int atc_api_get_vlan_statistic(uint32_t direction, uint32_t vlan, uint32_t *count, uint32_t *pps, uint32_t *fp_cur,
                               uint32_t *fp_cur_pps, uint32_t *fp_min, uint32_t *fp_min_pps, uint32_t *fp_max,
                               uint32_t *fp_max_pps, uint32_t *fp_avg, uint32_t *fp_avg_pps, uint32_t *fp_peak,
                               uint32_t *fp_peak_pps, char *fp_peak_time, uint32_t *lp_cur, uint32_t *lp_cur_pps,
                               uint32_t *lp_min, uint32_t *lp_min_pps, uint32_t *lp_max, uint32_t *lp_max_pps,
                               uint32_t *lp_avg, uint32_t *lp_avg_pps, uint32_t *lp_peak, uint32_t *lp_peak_pps,
                               char *lp_peak_time) {
    const atc_block_name_t name = {.kind = atc_block_kind_t::vlan, .direction = direction, .vlan = vlan};
    return query_sum(&name, {count,  pps,        fp_cur,  fp_cur_pps,  fp_min,  fp_min_pps, fp_max, fp_max_pps,
                             fp_avg, fp_avg_pps, fp_peak, fp_peak_pps, lp_cur,  lp_cur_pps, lp_min, lp_min_pps,
                             lp_max, lp_max_pps, lp_avg,  lp_avg_pps,  lp_peak, lp_peak_pps},
                     fp_peak_time, lp_peak_time);
}

int atc_api_get_protocol_statistic(uint32_t direction, uint32_t protocol, uint32_t *count, uint32_t *pps,
                                   uint32_t *fp_cur, uint32_t *fp_cur_pps, uint32_t *fp_min, uint32_t *fp_min_pps,
                                   uint32_t *fp_max, uint32_t *fp_max_pps, uint32_t *fp_avg, uint32_t *fp_avg_pps,
                                   uint32_t *fp_peak, uint32_t *fp_peak_pps, char *fp_peak_time, uint32_t *lp_cur,
                                   uint32_t *lp_cur_pps, uint32_t *lp_min, uint32_t *lp_min_pps, uint32_t *lp_max,
                                   uint32_t *lp_max_pps, uint32_t *lp_avg, uint32_t *lp_avg_pps, uint32_t *lp_peak,
                                   uint32_t *lp_peak_pps, char *lp_peak_time) {
    const atc_block_name_t name = {.kind = atc_block_kind_t::protocol, .direction = direction, .protocol = protocol};
    return query_sum(&name, {count,  pps,        fp_cur,  fp_cur_pps,  fp_min,  fp_min_pps, fp_max, fp_max_pps,
                             fp_avg, fp_avg_pps, fp_peak, fp_peak_pps, lp_cur,  lp_cur_pps, lp_min, lp_min_pps,
                             lp_max, lp_max_pps, lp_avg,  lp_avg_pps,  lp_peak, lp_peak_pps},
                     fp_peak_time, lp_peak_time);
}

int atc_api_get_statistic(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol, uint32_t src_type,
                          const void *src_addr, uint32_t *count, uint32_t *pps, uint32_t *fp_cur, uint32_t *fp_cur_pps,
                          uint32_t *fp_min, uint32_t *fp_min_pps, uint32_t *fp_max, uint32_t *fp_max_pps,
                          uint32_t *fp_avg, uint32_t *fp_avg_pps, uint32_t *fp_threshold, uint32_t *fp_threshold_pps,
                          uint32_t *fp_peak, uint32_t *fp_peak_pps, char *fp_peak_time, uint32_t *lp_cur,
                          uint32_t *lp_cur_pps, uint32_t *lp_min, uint32_t *lp_min_pps, uint32_t *lp_max,
                          uint32_t *lp_max_pps, uint32_t *lp_avg, uint32_t *lp_avg_pps, uint32_t *lp_threshold,
                          uint32_t *lp_threshold_pps, uint32_t *lp_peak, uint32_t *lp_peak_pps, char *lp_peak_time,
                          uint32_t *cap_on, uint32_t *cap_len, uint32_t *sw_deny_on, uint32_t *hw_deny_on) {
    const atc_block_name_t name = {atc_block_kind_t::flow, direction, vlan, port, protocol, src_type, src_addr};
    return query_flow(&name, {count,   pps,         fp_cur, fp_cur_pps, fp_min,       fp_min_pps,
                              fp_max,  fp_max_pps,  fp_avg, fp_avg_pps, fp_threshold, fp_threshold_pps,
                              fp_peak, fp_peak_pps, lp_cur, lp_cur_pps, lp_min,       lp_min_pps,
                              lp_max,  lp_max_pps,  lp_avg, lp_avg_pps, lp_threshold, lp_threshold_pps,
                              lp_peak, lp_peak_pps, cap_on, cap_len,    sw_deny_on,   hw_deny_on},
                      fp_peak_time, lp_peak_time);
}

int atc_api_get_src_statistic(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol, uint32_t *types,
                              uint32_t *count, atc_src_stat_t *records) {
    if (types == nullptr || count == nullptr || records == nullptr) {
        return -1;
    }
    const bool is_key = vlan <= UINT16_MAX && protocol <= UINT16_MAX;
    const atc_entry_key_t key = {{}, direction, port, static_cast<uint16_t>(vlan), static_cast<uint16_t>(protocol)};
    const uint32_t listed = is_key ? list_sources(&key, types, records) : 0;
    if (listed == 0) {
        return -1;
    }
    sort_sources(listed, types, records);
    *count = listed;
    return 0;
}

atc_stat_t *atc_block_find(const atc_block_name_t *name) {
    const bool is_rx = name->direction == ATC_DIRECTION_RX;
    const auto vlan = static_cast<uint16_t>(name->vlan);
    const auto protocol = static_cast<uint16_t>(name->protocol);
    switch (name->kind) {
        case atc_block_kind_t::global:
            return is_rx ? &g_atc_global.rx_stat : &g_atc_global.tx_stat;
        case atc_block_kind_t::port: {
            const atc_entry_key_t key = {{}, name->direction, name->port, 0, 0};
            return is_rx ? sum_block(&g_atc_global.port_tree, &key) : nullptr;
        }
        case atc_block_kind_t::vlan: {
            const atc_entry_key_t key = {{}, name->direction, 0, vlan, 0};
            return is_rx && vlan == name->vlan ? sum_block(&g_atc_global.vlan_tree, &key) : nullptr;
        }
        case atc_block_kind_t::protocol: {
            const atc_entry_key_t key = {{}, name->direction, 0, 0, protocol};
            return protocol == name->protocol
                       ? sum_block(is_rx ? &g_atc_global.rx_protocol_tree : &g_atc_global.tx_protocol_tree, &key)
                       : nullptr;
        }
        case atc_block_kind_t::flow:
            break;
    }
    if (name->src_type == ATC_SRC_NONE) {
        atc_entry_t *flow = atc_entry_get(name->direction, name->vlan, name->port, name->protocol);
        return flow != nullptr ? &flow->stat : nullptr;
    }
    atc_src_entry_t *src = name->src_addr != nullptr ? atc_src_entry_get(name->direction, name->vlan, name->port,
                                                                         name->protocol, name->src_type, name->src_addr)
                                                     : nullptr;
    return src != nullptr ? &src->stat : nullptr;
}

int atc_statistic_get(const atc_stat_t *stat, uint32_t *count, uint32_t *fp_cur, uint32_t *fp_min, uint32_t *fp_max,
                      uint32_t *fp_avg, uint32_t *fp_threshold, uint32_t *fp_peak, char *fp_peak_time, uint32_t *lp_cur,
                      uint32_t *lp_min, uint32_t *lp_max, uint32_t *lp_avg, uint32_t *lp_threshold, uint32_t *lp_peak,
                      char *lp_peak_time, uint32_t *cap_on, uint32_t *cap_len, uint32_t *sw_deny_on,
                      uint32_t *hw_deny_on) {
    *count = stat->count;
    read_ring(stat->fp_ring, stat->fp_head, stat->fp_cur, fp_cur, fp_min, fp_max, fp_avg);
    read_ring(stat->lp_ring, stat->lp_head, stat->lp_cur, lp_cur, lp_min, lp_max, lp_avg);
    *fp_threshold = stat->fp_threshold;
    *lp_threshold = stat->lp_threshold;
    *fp_peak = stat->fp_peak;
    *lp_peak = stat->lp_peak;
    if (fp_peak_time != nullptr) {
        bep_StrNCpy(fp_peak_time, stat->fp_peak_time, ATC_NAME_SIZE - 1);
    }
    if (lp_peak_time != nullptr) {
        bep_StrNCpy(lp_peak_time, stat->lp_peak_time, ATC_NAME_SIZE - 1);
    }
    *cap_on = stat->cap_on;
    *cap_len = stat->cap_len;
    *sw_deny_on = stat->sw_deny_on;
    *hw_deny_on = stat->hw_deny_on;
    return 0;
}

int atc_src_compare(const void *a, const void *b) {
    const uint32_t x = static_cast<const atc_src_stat_t *>(a)->count;
    const uint32_t y = static_cast<const atc_src_stat_t *>(b)->count;
    return x > y ? -1 : x < y ? 1 : 0;
}

namespace {

// Refuses a null word, then asks for the figures that a sum has.
int query_sum(const atc_block_name_t *name, const sum_words_t &words, char *fp_peak_time, char *lp_peak_time) {
    outputs_t out = {{}, fp_peak_time, lp_peak_time};
    size_t next = 0;
    for (size_t i = 0; i < FIGURES; ++i) {
        if (is_flow_figure(i)) {
            continue;
        }
        if (words[next] == nullptr) {
            return -1;
        }
        out.words[i] = words[next++];
    }
    return query(name, &out);
}

// The same for all figures.
int query_flow(const atc_block_name_t *name, const flow_words_t &words, char *fp_peak_time, char *lp_peak_time) {
    for (const uint32_t *word : words) {
        if (word == nullptr) {
            return -1;
        }
    }
    const outputs_t out = {words, fp_peak_time, lp_peak_time};
    return query(name, &out);
}

int query(const atc_block_name_t *name, const outputs_t *out) {
    figures_t figures = {};
    {
        const atc_guard_t guard;
        const atc_stat_t *stat = atc_block_find(name);
        if (stat == nullptr) {
            return -1;
        }
        sample(stat, &figures, nullptr, nullptr);
        hand_out(&figures, out);
    }
    const uint32_t before = figures.count;
    bep_taskDelayEx(bep_sysClkRateGetEx());

    const atc_guard_t guard;
    const atc_stat_t *stat = atc_block_find(name);
    if (stat == nullptr) {
        return -1;
    }
    sample(stat, &figures, out->fp_peak_time, out->lp_peak_time);
    figures.pps = figures.count - before;
    rate(&figures.fast, g_atc_global.fast_period_time);
    rate(&figures.slow, g_atc_global.long_period_time);
    hand_out(&figures, out);
    return 0;
}

void sample(const atc_stat_t *stat, figures_t *figures, char *fp_peak_time, char *lp_peak_time) {
    period_figures_t *fast = &figures->fast;
    period_figures_t *slow = &figures->slow;
    atc_statistic_get(stat, &figures->count, &fast->cur, &fast->min, &fast->max, &fast->avg, &fast->threshold,
                      &fast->peak, fp_peak_time, &slow->cur, &slow->min, &slow->max, &slow->avg, &slow->threshold,
                      &slow->peak, lp_peak_time, &figures->cap_on, &figures->cap_len, &figures->sw_deny_on,
                      &figures->hw_deny_on);
}

void rate(period_figures_t *period, uint32_t seconds) {
    period->cur_pps = atc_rate(period->cur, seconds);
    period->min_pps = atc_rate(period->min, seconds);
    period->max_pps = atc_rate(period->max, seconds);
    period->avg_pps = atc_rate(period->avg, seconds);
    period->threshold_pps = atc_rate(period->threshold, seconds);
    period->peak_pps = atc_rate(period->peak, seconds);
}

void hand_out(const figures_t *figures, const outputs_t *out) {
    uint32_t values[FIGURES];
    memcpy(values, figures, sizeof(values));
    for (size_t i = 0; i < FIGURES; ++i) {
        if (out->words[i] != nullptr) {
            *out->words[i] = values[i];
        }
    }
}

atc_stat_t *sum_block(const atc_avl_tree_t *tree, const atc_entry_key_t *key) {
    auto *entry = static_cast<atc_entry_t *>(atc_avl_find(tree, key, nullptr));
    return entry != nullptr ? &entry->stat : nullptr;
}

// Fills in the sources of a flow in order, with pauses. Returns how many.
uint32_t list_sources(const atc_entry_key_t *name, uint32_t *types, atc_src_stat_t *records) {
    const auto sources = [name]() ATC_REQUIRES(g_atc_lock) -> const atc_avl_tree_t * {
        const auto *flow = static_cast<atc_entry_t *>(atc_avl_find(&g_atc_global.entry_tree, name, nullptr));
        return flow != nullptr ? &flow->src_tree : nullptr;
    };
    uint32_t count = 0;
    const atc_guard_t guard;
    atc_walk_in_order<const atc_src_entry_t, atc_src_key_t>(sources, [&](const atc_src_entry_t *src) {
        if (count == ATC_SOURCES_PER_FLOW) {
            return false;  // others have come while those before them went
        }
        put_source(src->src_type, src->stat.count, src->src_addr, &types[count], &records[count]);
        count++;
        return true;
    });
    return count;
}

// Largest count first, in the caller's memory: the order is found by numbers, then each row goes to its place.
void sort_sources(uint32_t count, uint32_t *types, atc_src_stat_t *records) {
    std::array<uint16_t, ATC_SOURCES_PER_FLOW> order;  // of the row that belongs here
    for (uint32_t i = 0; i < count; ++i) {
        order[i] = static_cast<uint16_t>(i);
    }
    std::sort(order.begin(), order.begin() + count, [records](uint16_t a, uint16_t b) {
        const int compared = atc_src_compare(&records[a], &records[b]);
        return compared != 0 ? compared < 0 : a < b;
    });
    for (uint32_t i = 0; i < count; ++i) {
        uint16_t from = order[i];
        while (from < i) {
            from = order[from];  // the row that was there has moved on
        }
        const uint32_t type = types[i];
        const atc_src_stat_t record = records[i];
        put_source(types[from], records[from].count, records[from].addr, &types[i], &records[i]);
        put_source(type, record.count, record.addr, &types[from], &records[from]);
    }
}

// Writes no more than the bytes that an address has.
void put_source(uint32_t type, uint32_t count, const uint8_t *addr, uint32_t *to_type, atc_src_stat_t *to) {
    *to_type = type;
    to->count = count;
    memmove(to->addr, addr, atc_src_addr_len(type));
}

// From the oldest slot to the newest; a ring that no period has been closed in has one slot, of 0.
void read_ring(const uint32_t *ring, uint32_t head, uint32_t cur, uint32_t *latest, uint32_t *min, uint32_t *max,
               uint32_t *avg) {
    *min = ring[head];
    *max = ring[head];
    uint64_t sum = ring[head];
    uint32_t slots = 1;
    for (uint32_t slot = head; slot != cur; ++slots) {
        slot = (slot + 1) % ATC_RING_SLOTS;
        *min = ring[slot] < *min ? ring[slot] : *min;
        *max = ring[slot] > *max ? ring[slot] : *max;
        sum += ring[slot];
    }
    *latest = ring[cur];
    *avg = static_cast<uint32_t>(sum / slots);
}

}  // namespace
