// SPDX-License-Identifier: Apache-2.0
// flood_view.h: the floods of this moment: flows and sources with an alarm or a rule in the chip, and what is done
// about each.
//
// A walk over what floods, not over all flows. Used by: commands_show. Uses: figures, rule_book, alarm_book, the chip.
// Thread: the driving one.
#pragma once

#include <optional>
#include <vector>

#include "json_writer.h"
#include "run.h"

namespace host::console {

struct StandingFlood {
    Subject subject;
    const AlarmEvent *fast = nullptr;  // null: no such alarm stands
    const AlarmEvent *slow = nullptr;
    std::vector<card::ChipRule> rules;  // that it brought into the chip
    uint32_t packets = 0;               // that the module has counted, below the chip
    uint32_t speed_pps = 0;             // of these, in the latest fast period
    uint32_t limit_pps = 0;             // of fast periods
    uint32_t peak_pps = 0;
    bool is_denied = false;  // in software
    bool is_recorded = false;

    // Packets that its rules have stopped since they were installed.
    uint64_t stopped() const;
};

struct StandingFloods {
    size_t fast_alarms = 0;  // that stand
    size_t long_alarms = 0;
    size_t number = 0;                  // of floods
    std::vector<StandingFlood> floods;  // those with the highest rates, highest first
};

StandingFloods standing_floods(const Run &run, size_t at_most);

void print_floods(const StandingFloods &floods);
Json floods_json(const StandingFloods &floods);

}  // namespace host::console
