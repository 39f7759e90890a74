// SPDX-License-Identifier: Apache-2.0
#include "alarm_book.h"

#include <algorithm>

namespace host {

void AlarmBook::take(const AlarmEvent &event) {
    const bool is_fast = event.period == AlarmEvent::Period::kFast;
    StandingAlarms &standing = is_fast ? fast_ : long_;
    if (!event.is_raised) {
        if (standing.erase(event.subject) == 1 && is_fast) {
            count(event.subject, -1);
        }
        return;
    }
    if (standing.insert_or_assign(event.subject, event).second && is_fast) {
        count(event.subject, 1);
    }
    raised_by_class_[std::min<uint32_t>(event.subject.flow.protocol, ATC_PROTOCOL_COUNT)]
                    [static_cast<size_t>(event.period)]++;
    raised_.fetch_add(1, std::memory_order_relaxed);
}

void AlarmBook::discard(const Subject &subject) {
    long_.erase(subject);
    if (fast_.erase(subject) == 1) {
        count(subject, -1);
    }
}

void AlarmBook::forget() {
    fast_.clear();
    long_.clear();
    over_limit_.clear();
}

void AlarmBook::count(const Subject &subject, int change) {
    const PortClass key{subject.flow.port, subject.flow.protocol};
    StandingCount &over = over_limit_[key];
    uint32_t &number = subject.source.type == ATC_SRC_NONE ? over.flows : over.sources;
    number += static_cast<uint32_t>(change);
    if (over.flows == 0 && over.sources == 0) {
        over_limit_.erase(key);
    }
}

}  // namespace host
