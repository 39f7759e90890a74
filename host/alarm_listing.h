// SPDX-License-Identifier: Apache-2.0
// alarm_listing.h: which fast-period alarms stand now, however many.
//
// The module's listing is the truth as far as it has room: it knows what has been discarded with its alarm standing. Of
// the alarms behind its end those of the book stand whose flow or source the module still has.
// Used by: report, the console. Thread: the driving one; takes the module's mutex.
#pragma once

#include <cstddef>

#include "alarm_book.h"

namespace host {

struct AlarmListing {
    StandingAlarms standing;  // in the order of the module's listing
    size_t beyond = 0;        // how many of them it has no room for
};

AlarmListing list_alarms(const AlarmBook &book);

}  // namespace host
