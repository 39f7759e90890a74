// SPDX-License-Identifier: Apache-2.0
// alarm_event.h: what a line of the log says about an alarm, or about captures and memory, as data.
//
// Owns the wording of these messages, as the host reads it. Used by: event_log, journal. Uses: the module's protocol
// names, which take no lock. Thread: any.
#pragma once

#include <optional>

#include "flow_key.h"
#include "services/services.h"

namespace host {

struct AlarmEvent {
    enum class Period {
        kFast,
        kLong
    };
    int64_t realtime_ns = 0;  // since 1970-01-01 UTC
    Period period = Period::kFast;
    bool is_raised = false;  // false: the rate has fallen back
    Subject subject;
    uint32_t rate_pps = 0;  // over the period that has ended
    uint32_t limit_pps = 0;
};

// Nothing for a message about something else.
std::optional<AlarmEvent> read_alarm(const card::LogMessage &message);

// Whose automatic capture has filled its buffer.
std::optional<Subject> read_full_capture(const card::LogMessage &message);

// The card's own line about allocations that the memory budget has forbidden.
bool tells_of_refused_memory(const card::LogMessage &message);

}  // namespace host
