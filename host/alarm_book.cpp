// SPDX-License-Identifier: Apache-2.0
#include "alarm_book.h"

namespace host {

void AlarmBook::take(const AlarmEvent &event) {
    StandingAlarms &standing = event.period == AlarmEvent::Period::kFast ? fast_ : long_;
    if (event.is_raised) {
        standing.insert_or_assign(event.subject, event);
        raised_.fetch_add(1, std::memory_order_relaxed);
    } else {
        standing.erase(event.subject);
    }
}

void AlarmBook::forget() {
    fast_.clear();
    long_.clear();
}

}  // namespace host
