// SPDX-License-Identifier: Apache-2.0
// figures.h: what the module counts of one thing, by its queries.
//
// A query samples twice, a second apart, to tell the rate of that second: in a replay that second's packets are
// replayed. In a card::SleeplessScope no time passes, 'pps' is 0 and the rest is as it is now.
// Used by: module_tables, flow_verdicts, capture_keeper, the console. Thread: the driving one; takes the module's
// mutex.
#pragma once

#include <cstdint>

#include "flow_key.h"

namespace host {

// Of one kind of period. Counts are packets per period.
struct PeriodFigures {
    uint32_t latest, latest_pps;
    uint32_t smallest, smallest_pps;
    uint32_t largest, largest_pps;
    uint32_t average, average_pps;
    uint32_t limit, limit_pps;  // of a flow or source only
    uint32_t peak, peak_pps;
    char peak_time[ATC_NAME_SIZE];
};

struct Figures {
    uint32_t count = 0;  // packets
    uint32_t pps = 0;    // in the second that was measured
    PeriodFigures fast{};
    PeriodFigures slow{};
    // Of a flow or source only.
    uint32_t cap_on = 0;
    uint32_t cap_len = 0;  // bytes
    uint32_t sw_deny_on = 0;
    uint32_t hw_deny_on = 0;
};

// False when the module has no such entry.
bool global_figures(uint32_t direction, Figures &figures);
bool port_figures(uint32_t direction, uint32_t port, Figures &figures);
bool vlan_figures(uint32_t direction, uint32_t vlan, Figures &figures);
bool protocol_figures(uint32_t direction, uint32_t protocol, Figures &figures);
bool flow_figures(uint32_t direction, const Subject &subject, Figures &figures);

// Whether the module has this received flow or source now. No time passes.
bool is_known(const Subject &subject);

}  // namespace host
