// SPDX-License-Identifier: Apache-2.0
// alarm_book.h: which alarms stand, and since when: an account of what the module has logged.
//
// The module's own listing of alarms has no room for all of a wide flood, tells fast-period alarms only, and neither
// their times nor their rates; the log tells all of it, once. What the log does not tell is that a flow or a source has
// been discarded with its alarm standing (cleared, aged, swept): whoever finds that out tells it here.
// Used by: event_log (feeds it), replay (alarm stop), report. Thread: the one that logs, one at a time, with
// the module's mutex held; read by the driving one while the others wait.
#pragma once

#include <array>
#include <atomic>
#include <map>

#include "alarm_event.h"

namespace host {

// The message that raised each alarm.
using StandingAlarms = std::map<Subject, AlarmEvent>;

// How many fast-period alarms of a port's class stand.
struct StandingCount {
    uint32_t flows = 0;
    uint32_t sources = 0;
};

class AlarmBook {
public:
    void take(const AlarmEvent &event);
    // The module no longer has this flow or source.
    void discard(const Subject &subject);
    // The module has discarded all flows.
    void forget();

    // Alarms raised so far, of both kinds.
    uint64_t raised() const { return raised_.load(std::memory_order_relaxed); }

    // By class and period.
    using Raised = std::array<std::array<uint64_t, 2>, ATC_PROTOCOL_COUNT + 1>;
    const Raised &raised_by_class() const { return raised_by_class_; }

    // Without a row where there is none.
    const std::map<PortClass, StandingCount> &over_limit() const { return over_limit_; }

    // Raised and not taken back.
    const StandingAlarms &standing(AlarmEvent::Period period) const {
        return period == AlarmEvent::Period::kFast ? fast_ : long_;
    }

private:
    void count(const Subject &subject, int change);

    StandingAlarms fast_;
    StandingAlarms long_;
    std::map<PortClass, StandingCount> over_limit_;
    Raised raised_by_class_{};
    std::atomic<uint64_t> raised_ = 0;
};

}  // namespace host
