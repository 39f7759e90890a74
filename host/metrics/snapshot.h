// SPDX-License-Identifier: Apache-2.0
// snapshot.h: what a scrape tells, as plain data: gathered by the driving thread, written out by the one that serves.
//
// Used by: gatherer (fills it), families (reads it). Pure.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "alarm_book.h"
#include "chip/chip.h"
#include "events/delivery.h"
#include "events/journal.h"
#include "flow_key.h"
#include "live/class_traffic.h"
#include "metrics/flooding_sources.h"
#include "module_settings.h"
#include "run.h"

namespace host {

// A port of the card as the kernel counts it.
struct PortSnapshot {
    PortState state;
    bool is_protected = false;
};

struct ClassSnapshot {
    uint64_t stopped = 0;  // by the chip's rules
    std::array<PacketCount, kFates> fates{};
};

struct ChipSnapshot {
    size_t automatic = 0;  // rules whose owner is known
    size_t filters = 0;    // all others
    card::ChipUse use{};
    size_t software_denies = 0;
    size_t most_software_denies = 0;  // at once, since the start
    uint64_t software_denies_refused = 0;
};

struct ProcessSnapshot {
    size_t ring_size = 0;  // bytes
    size_t ring_used = 0;
    uint64_t ring_peak = 0;
    int64_t longest_wait_ns = 0;
    uint64_t memory = 0;  // of the module, bytes
    uint64_t memory_budget = 0;
    uint64_t memory_refused = 0;  // blocks
    int64_t gathering_ns = 0;     // what the scrape before took of the driving thread
    int64_t longest_slice_ns = 0;
};

struct Snapshot {
    static constexpr size_t kClasses = ATC_PROTOCOL_COUNT + 1;  // slot 0: without a class

    std::vector<PortSnapshot> ports;
    std::map<PortClass, ClassSnapshot> classes;                      // by logical port
    std::map<uint32_t, std::array<uint32_t, kClasses>> class_rates;  // by direction; packets a second
    std::map<PortClass, StandingCount> over_limit;
    AlarmBook::Raised alarms{};
    std::vector<FloodingSource> sources;
    size_t sources_left_out = 0;
    ModuleSettings settings;
    RuleTotals rules;
    ChipSnapshot chip;
    CaptureTotals captures;
    std::vector<OutputState> outputs;
    ProcessSnapshot process;
};

}  // namespace host
