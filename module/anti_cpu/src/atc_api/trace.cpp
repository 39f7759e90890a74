// SPDX-License-Identifier: Apache-2.0
// Arming and ending the packet trace.
#include "anti_cpu/anti_cpu.h"
#include "atc/state/context.h"

int atc_api_set_debug_start(const atc_filter_rule_t *filter, uint32_t count) {
    if (filter == nullptr) {
        return -1;
    }
    const atc_guard_t guard;
    g_atc_global.debug_filter = *filter;
    g_atc_global.debug_enable = 1;
    g_atc_global.debug_count = static_cast<uint16_t>(count);
    return 0;
}

int atc_api_set_debug_stop() {
    const atc_guard_t guard;
    g_atc_global.debug_filter = {};
    g_atc_global.debug_enable = 0;
    g_atc_global.debug_count = 0;
    return 0;
}
