// SPDX-License-Identifier: Apache-2.0
#include "atc/accounting.h"

#include <string.h>

#include "atc/capture.h"
#include "atc/hw_deny.h"
#include "atc/upload.h"

namespace {

constexpr int PASS = 0;
constexpr int DROP = -1;

// One kind of period of a block, fast or long.
struct period_t {
    uint32_t *last;
    uint8_t *head;
    uint8_t *cur;
    uint32_t *ring;
    uint32_t *peak;
    char *peak_time;
};

// A pass over everything is one moment, so its peaks share one time text.
struct pass_time_t {
    bool is_valid;  // text is this pass's
    char text[ATC_NAME_SIZE];
};

pass_time_t pass_time ATC_GUARDED_BY(g_atc_lock);

bool count(atc_entry_t *entry) ATC_REQUIRES(g_atc_lock);
uint32_t running_count(const atc_stat_t *stat);
void record(atc_entry_t *flow, atc_src_entry_t *src, const uint8_t *buf, uint32_t len) ATC_REQUIRES(g_atc_lock);
int account_source(atc_entry_t *flow, const uint8_t *buf, uint32_t len, const atc_pkt_info_t *info, int verdict)
    ATC_REQUIRES(g_atc_lock);
int account_flow(atc_entry_t *flow, const uint8_t *buf, uint32_t len, const atc_pkt_info_t *info)
    ATC_REQUIRES(g_atc_lock);
uint8_t next_slot(const period_t &period);
void close_period(uint32_t total, const period_t &period) ATC_REQUIRES(g_atc_lock);
const char *time_text() ATC_REQUIRES(g_atc_lock);
void clear_period(const period_t &period);
period_t fast_period(atc_stat_t *stat);
period_t long_period(atc_stat_t *stat);

}  // namespace

int atc_stat_info_process(const uint8_t *buf, uint32_t len, const atc_pkt_info_t *info) {
    switch (info->direction) {
        case ATC_DIRECTION_RX:
            return atc_stat_info_rx_process(buf, len, info);
        case ATC_DIRECTION_TX:
            return atc_stat_info_tx_process(buf, len, info);
        default:
            return PASS;
    }
}

int atc_stat_info_rx_process(const uint8_t *buf, uint32_t len, const atc_pkt_info_t *info) {
    // Read once: the compiler cannot know that no counter is part of the description.
    const uint32_t port = info->port;
    const uint16_t vlan = info->vlan;
    const uint16_t protocol = info->protocol;
    const atc_flood_t *flood = &g_atc_global.recall.flood;
    atc_entry_t *flow = flood->flow;
    g_atc_global.rx_stat.count++;
    if (flood->key == atc_flow_key(port, vlan, protocol)) {
        flood->vlan->stat.count++;
        flood->port->stat.count++;
        flood->protocol->stat.count++;
    } else {
        if (!count(atc_vlan_obtain(vlan))) {
            return DROP;
        }
        if (vlan == ATC_VLAN_UNTRACKED) {
            return PASS;
        }
        if (!count(atc_port_obtain(port)) || !count(atc_protocol_obtain(ATC_DIRECTION_RX, protocol))) {
            return DROP;
        }
        flow = atc_flow_obtain(port, vlan, protocol);
    }
    return flow != nullptr ? account_flow(flow, buf, len, info) : DROP;
}

int atc_stat_info_tx_process(const uint8_t * /*buf*/, uint32_t /*len*/, const atc_pkt_info_t *info) {
    g_atc_global.tx_stat.count++;
    return count(atc_protocol_obtain(ATC_DIRECTION_TX, info->protocol)) ? PASS : DROP;
}

int atc_stat_process(atc_stat_t *stat, int period) {
    close_period(stat->count, period == ATC_PERIOD_FAST ? fast_period(stat) : long_period(stat));
    return 0;
}

void atc_stat_pass(uint8_t period) {
    g_atc_global.pass = period;
    pass_time.is_valid = false;
}

void atc_clear_statistic(atc_stat_t *stat) {
    atc_capture_auto_release(stat);
    stat->count = 0;
    clear_period(fast_period(stat));
    clear_period(long_period(stat));
}

namespace {

// Counts one packet in an entry. Returns false when there was no memory for it.
bool count(atc_entry_t *entry) {
    if (entry == nullptr) {
        return false;
    }
    entry->stat.count++;
    return true;
}

// The packets of the fast period that is running. Counters wrap, their difference does not mind.
uint32_t running_count(const atc_stat_t *stat) {
    return stat->count - stat->fp_last;
}

// Feeds the automatic capture of a flow, or of one of its sources.
void record(atc_entry_t *flow, atc_src_entry_t *src, const uint8_t *buf, uint32_t len) {
    atc_stat_t *stat = src != nullptr ? &src->stat : &flow->stat;
    if (stat->cap_on == 1 && !atc_capture_auto_record(stat, buf, len)) {
        atc_capture_overflow(flow, src);
    }
}

// Counts a packet for its source. 'verdict' is the flow's.
int account_source(atc_entry_t *flow, const uint8_t *buf, uint32_t len, const atc_pkt_info_t *info, int verdict) {
    bool is_full;
    atc_src_entry_t *src = atc_source_obtain(flow, info, &is_full);
    if (src == nullptr) {
        return is_full ? verdict : DROP;
    }
    // A source is judged by the packets before this one: it must be strictly over its limit.
    const uint32_t packets = running_count(&src->stat);
    src->stat.count++;
    if (src->stat.fp_threshold < packets && g_atc_global.src_hw_deny[flow->protocol] == 1) {
        atc_hw_deny_source(src, info);
    }
    if (src->stat.sw_deny_on == 1) {
        verdict = DROP;
    }
    record(flow, src, buf, len);
    return verdict;
}

int account_flow(atc_entry_t *flow, const uint8_t *buf, uint32_t len, const atc_pkt_info_t *info) {
    flow->stat.count++;
    const int verdict = flow->stat.sw_deny_on == 1 ? DROP : PASS;
    record(flow, nullptr, buf, len);

    const bool over = flow->stat.fp_threshold <= running_count(&flow->stat);
    if (over && g_atc_global.hw_deny[flow->protocol] == 1) {
        atc_hw_deny_flow(flow, info);
    }
    // Sources are told apart only while the flow is over its limit, and never for the device's own packets.
    if (info->src_type == ATC_SRC_NONE || (!over && flow->stat.fp_alarm != 1)) {
        return verdict;
    }
    if (flow != g_atc_global.recall.flood.flow) {
        atc_flood_remember(flow);
    }
    return account_source(flow, buf, len, info, verdict);
}

// Chooses the ring slot of a period that closes. While only zeros were recorded, slot 0 is written again.
uint8_t next_slot(const period_t &period) {
    const auto step = [](uint8_t slot) { return static_cast<uint8_t>((slot + 1) % ATC_RING_SLOTS); };
    if (*period.head == 0 && *period.cur == 0 && period.ring[0] == 0) {
        return 0;
    }
    *period.cur = step(*period.cur);
    if (*period.cur == *period.head) {
        *period.head = step(*period.head);
    }
    return *period.cur;
}

void close_period(uint32_t total, const period_t &period) {
    const uint32_t packets = total - *period.last;
    period.ring[next_slot(period)] = packets;
    if (packets >= *period.peak) {
        *period.peak = packets;
        memcpy(period.peak_time, time_text(), ATC_NAME_SIZE);
    }
    *period.last = total;
}

// The present time; during a pass, the time at which its first peak was met.
const char *time_text() {
    if (!pass_time.is_valid) {
        memset(pass_time.text, 0, sizeof(pass_time.text));
        syslog_get_timestamp(pass_time.text, sizeof(pass_time.text));
        pass_time.is_valid = g_atc_global.pass != 0;
    }
    return pass_time.text;
}

void clear_period(const period_t &period) {
    *period.last = 0;
    *period.head = 0;
    *period.cur = 0;
    memset(period.ring, 0, ATC_RING_SLOTS * sizeof(uint32_t));
    *period.peak = 0;
    memset(period.peak_time, 0, ATC_NAME_SIZE);
}

period_t fast_period(atc_stat_t *stat) {
    return {&stat->fp_last, &stat->fp_head, &stat->fp_cur, stat->fp_ring, &stat->fp_peak, stat->fp_peak_time};
}

period_t long_period(atc_stat_t *stat) {
    return {&stat->lp_last, &stat->lp_head, &stat->lp_cur, stat->lp_ring, &stat->lp_peak, stat->lp_peak_time};
}

}  // namespace
