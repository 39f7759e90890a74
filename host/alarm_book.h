// SPDX-License-Identifier: Apache-2.0
// alarm_book.h: which alarms stand, and since when: an account of what the module has logged.
//
// The module's own listing of alarms has no room for all of a wide flood, tells fast-period alarms only, and neither
// their times nor their rates; the log tells all of it, once. What the log does not tell is that a flow or a source has
// been discarded with its alarm standing (cleared, aged, swept).
// Used by: event_log (feeds it), replay (alarm stop), report. Thread: the one that logs, one at a time, with
// the module's mutex held; read by the driving one while the others wait.
#pragma once

#include <atomic>
#include <map>

#include "alarm_event.h"

namespace host {

// The message that raised each alarm.
using StandingAlarms = std::map<Subject, AlarmEvent>;

class AlarmBook {
public:
    void take(const AlarmEvent &event);
    // The module has discarded all flows.
    void forget();

    // Alarms raised so far, of both kinds.
    uint64_t raised() const { return raised_.load(std::memory_order_relaxed); }

    // Raised and not taken back.
    const StandingAlarms &standing(AlarmEvent::Period period) const {
        return period == AlarmEvent::Period::kFast ? fast_ : long_;
    }

private:
    StandingAlarms fast_;
    StandingAlarms long_;
    std::atomic<uint64_t> raised_ = 0;
};

}  // namespace host
