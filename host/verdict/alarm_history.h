// SPDX-License-Identifier: Apache-2.0
// alarm_history.h: which flows have had alarms, of their own or of their sources, and when.
//
// Used by: event_log (feeds it), floods. Thread: the one that logs, with the module's mutex held; read by the driving
// one behind the last packet.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "alarm_event.h"

namespace host {

// Of a flow and its sources, of both periods.
struct FlowAlarms {
    uint32_t raised = 0;
    uint32_t standing = 0;
    int64_t first_raised_ns = 0;
    int64_t last_cleared_ns = 0;
    std::optional<AlarmEvent> lowest_cleared;  // the one that was taken back at the lowest rate
};

class AlarmHistory {
public:
    void take(const AlarmEvent &event) {
        FlowAlarms &alarms = flows_[event.subject.flow];
        if (event.is_raised) {
            alarms.first_raised_ns = alarms.raised == 0 ? event.realtime_ns : alarms.first_raised_ns;
            alarms.raised++;
            alarms.standing++;
            return;
        }
        alarms.standing -= alarms.standing > 0 ? 1 : 0;
        alarms.last_cleared_ns = event.realtime_ns;
        if (!alarms.lowest_cleared || event.rate_pps < alarms.lowest_cleared->rate_pps) {
            alarms.lowest_cleared = event;
        }
    }

    const std::map<FlowKey, FlowAlarms> &flows() const { return flows_; }

private:
    std::map<FlowKey, FlowAlarms> flows_;
};

}  // namespace host
