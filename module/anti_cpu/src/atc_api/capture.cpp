// SPDX-License-Identifier: Apache-2.0
// Starting, ending and clearing captures.
#include "atc/capture.h"

#include "anti_cpu/anti_cpu.h"
#include "atc/walk.h"

int atc_api_set_cap_start(const atc_filter_rule_t *filter, uint32_t count) {
    if (filter == nullptr) {
        return -1;
    }
    const atc_guard_t guard;
    atc_capture_manual_buffer();  // without memory now, the first matching packet tries again
    g_atc_global.cap_filter = *filter;
    g_atc_global.cap_enable = 1;
    g_atc_global.cap_count = count;
    return 0;
}

int atc_api_set_cap_disable() {
    const atc_guard_t guard;
    g_atc_global.cap_filter = {};
    g_atc_global.cap_enable = 0;
    g_atc_global.cap_count = 0;
    return 0;
}

int atc_api_get_cap_is_exist() {
    return atc_capture_manual_exists() ? 1 : 0;
}

int atc_api_set_cap_clear() {
    const atc_guard_t guard;
    atc_capture_manual_release();
    return 0;
}

int atc_api_set_auto_cap_clear() {
    const atc_guard_t guard;
    const auto nothing = [] {};
    atc_flows_each([](atc_entry_t *flow) ATC_REQUIRES(g_atc_lock) { atc_capture_auto_release(&flow->stat); }, nothing);
    atc_sources_each([](atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock) { atc_capture_auto_release(&src->stat); },
                     nothing);
    return 0;
}
