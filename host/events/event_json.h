// SPDX-License-Identifier: Apache-2.0
// event_json.h: an entry of the journal as one JSON object; docs/events.schema.json says what it may hold.
//
// Used by: event_file, syslog. Uses: journal, the card's port map. Thread: the driving one.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "events/journal.h"

namespace host {

// Keys stay in the order in which they are written: "time", "event", then what the event is about.
nlohmann::ordered_json event_json(const JournalEntry &entry);

// {"bgp": 69, "none": 2}: classes without packets are left out.
nlohmann::ordered_json class_counts_json(const ClassCounts &counts);

}  // namespace host
