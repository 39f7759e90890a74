// SPDX-License-Identifier: Apache-2.0
// limit_table.h: which limits would fit, by what one replay has seen.
//
// The flows of its floods aside, all is taken for good traffic; a flow over its limit for a moment only, too. What is
// good is better told by captures of good days (tune), of which this is the part that one capture can give. Used by:
// html_report. Uses: the account, choice, floods. Memory: a small record a flow. Thread: the driving one.
#pragma once

#include <vector>

#include "json_writer.h"
#include "module_settings.h"
#include "traffic/account.h"
#include "tune/choice.h"
#include "verdict/floods.h"

namespace host {

class LimitTable {
public:
    static constexpr double kMargin = 2;

    LimitTable(int64_t start_ns, const ModuleSettings &settings) : start_ns_(start_ns), settings_(settings) {}

    // Reads every packet from now on.
    void follow(TrafficAccount &account);

    // {margin, fast_period_s, classes: of each class seen its id, name, limit in force, busiest second and busiest
    // period of good traffic and of the flood, the limit that fits (null: they overlap) and why}.
    Json data(const TrafficAccount &account, const std::vector<Flood> &floods) const;

private:
    Peaks peaks_of(uint32_t number, const FlowTraffic &flow) const;

    int64_t start_ns_;
    ModuleSettings settings_;
    std::vector<SlidingCount> periods_;  // by number of flow
};

}  // namespace host
