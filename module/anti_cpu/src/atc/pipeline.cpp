// SPDX-License-Identifier: Apache-2.0
#include "atc/pipeline.h"

#include <string.h>

#include "anti_cpu/anti_cpu.h"
#include "atc/accounting.h"
#include "atc/capture.h"
#include "atc/parser.h"
#include "atc/rule_match.h"
#include "atc/state/context.h"
#include "atc/trace.h"

namespace {

constexpr int PASS = 0;
constexpr int DROP = -1;

constexpr uint32_t SRC_MAC_OFFSET = 6;  // bytes; IEEE 802.3 3.2
constexpr uint32_t SRC_MAC_END = 12;
constexpr uint32_t VLAN_ID_MASK = 0xfff;  // IEEE 802.1Q 9.6

bool is_own_packet(const uint8_t *buf, uint32_t len, uint32_t direction) ATC_REQUIRES(g_atc_lock);
[[gnu::noinline]] int process(const uint8_t *buf, uint32_t len, uint32_t port, uint32_t vlan, uint32_t direction);
bool is_watched() ATC_REQUIRES(g_atc_lock);
// Out of the way of most packets, but not cold: what a thousand rules cost a packet is spent behind them.
[[gnu::noinline]] bool watch(const uint8_t *buf, uint32_t len, const atc_pkt_info_t *info) ATC_REQUIRES(g_atc_lock);
[[gnu::noinline]] int rule_verdict(const atc_pkt_info_t *info, int verdict) ATC_REQUIRES(g_atc_lock);

}  // namespace

int atc_api_receive_packet(const uint8_t *buf, uint32_t len, uint32_t port, uint32_t vlan) {
    return process(buf, len, port, vlan, ATC_DIRECTION_RX);
}

int atc_api_global_send_packet(const uint8_t *buf, uint32_t len) {
    return process(buf, len, 0, 0, ATC_DIRECTION_TX);
}

int atc_packet_process(const uint8_t *buf, uint32_t len, uint32_t port, uint32_t vlan, uint32_t direction) {
    atc_pkt_info_t info;
    atc_packet_begin(&info, direction, port, vlan & VLAN_ID_MASK);
    if (is_own_packet(buf, len, direction)) {
        info.protocol = ATC_SELF;
    } else {
        atc_packet_parser(buf, len, &info);
    }
    const bool watched = is_watched();
    if (watched && !watch(buf, len, &info)) [[unlikely]] {
        return DROP;
    }
    const int verdict = atc_stat_info_process(buf, len, &info);
    if (watched) [[unlikely]] {
        return rule_verdict(&info, verdict);
    }
    return verdict;
}

namespace {

// The switching chip loops the device's own frames back; they are known by their source address alone.
bool is_own_packet(const uint8_t *buf, uint32_t len, uint32_t direction) {
    return direction == ATC_DIRECTION_RX && len >= SRC_MAC_END &&
           memcmp(buf + SRC_MAC_OFFSET, g_atc_global.device_mac, sizeof(g_atc_global.device_mac)) == 0;
}

int process(const uint8_t *buf, uint32_t len, uint32_t port, uint32_t vlan, uint32_t direction) {
    if (buf == nullptr || !atc_is_running()) {
        return PASS;
    }
    const atc_guard_t guard(atc_for_packet_t{});
    return atc_packet_process(buf, len, port, vlan, direction);
}

// Whether a trace, a manual capture or rules look at packets. Hardly ever, so it is asked once.
bool is_watched() {
    return (g_atc_global.debug_enable | g_atc_global.cap_enable | g_atc_global.has_rules) != 0;
}

// Trace and manual capture. Returns false when a packet that is to be recorded finds no memory.
bool watch(const uint8_t *buf, uint32_t len, const atc_pkt_info_t *info) {
    if (atc_debug_check(info) == 1) {
        atc_debug_packet(buf, len, info);
    }
    return atc_cap_check(info) != 1 || atc_capture_manual(buf, len) == 0;
}

// Permit beats deny, and both beat the limiter.
int rule_verdict(const atc_pkt_info_t *info, int verdict) {
    if (atc_filter_rule_check_permit(info) == 1) {
        return PASS;
    }
    return atc_filter_rule_check_deny(info) == 1 ? DROP : verdict;
}

}  // namespace
