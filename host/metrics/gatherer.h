// SPDX-License-Identifier: Apache-2.0
// gatherer.h: fills a snapshot in slices, between which packets go on.
//
// Counters never go back: what a rule has stopped is added to its class when it is withdrawn, and where a change of the
// rules comes between two slices, the figure of the scrape before stands. What no rule of a class has stopped is of the
// operator's filters, or of no class: class 0. Used by: metrics. Uses: live_card, flood_watch, the chip, the module's
// queries. Thread: the driving one.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <utility>

#include "live/live_card.h"
#include "metrics/flood_watch.h"
#include "metrics/snapshot.h"

namespace host {

class Gatherer {
public:
    using Outputs = std::function<std::vector<OutputState>()>;
    Gatherer(LiveCard &card, const FloodWatch &floods, Outputs outputs)
        : card_(card), floods_(floods), outputs_(std::move(outputs)) {}

    void begin(const ModuleSettings &settings);
    // Goes on for about a slice. True: the snapshot is whole.
    bool advance();
    Snapshot take() { return std::move(snapshot_); }

private:
    using Part = bool (Gatherer::*)();
    // Each does a little; true: it has come to its end.
    bool next_port();
    bool next_rules();
    bool finish_stopped();
    bool next_classes();
    bool next_rates();
    bool finish();

    LiveCard &card_;
    const FloodWatch &floods_;
    Outputs outputs_;
    Snapshot snapshot_;
    size_t part_ = 0;
    size_t next_ = 0;  // within the part
    bool rules_changed_ = false;
    uint64_t withdrawn_before_ = 0;
    std::map<PortClass, uint64_t> owned_;  // packets stopped by rules of a class, in this snapshot
    int64_t gathering_ns_ = 0;
    int64_t longest_slice_ns_ = 0;

    // From scrape to scrape.
    std::map<uint32_t, uint64_t> seen_stopped_;  // by the index of a port's counters
    std::map<uint32_t, uint64_t> stopped_;       // by logical port
    std::map<PortClass, uint64_t> told_;         // packets stopped, as told last; class 0: of no class
    ProcessSnapshot last_;
};

}  // namespace host
