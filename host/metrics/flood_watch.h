// SPDX-License-Identifier: Apache-2.0
// flood_watch.h: goes round the standing alarms and the chip's rules, a few at a time, to know which senders flood.
//
// A sender floods while its alarm stands or a rule of its own stops packets; once the chip stops it, the module sees
// nothing of it and takes its alarm back. On its way the watch finds alarms whose flow or source the module has
// discarded, and takes them out of the book. A round takes a second, or as long as it has to with kAtOnce at a time.
// Used by: metrics. Uses: live_card, figures, the chip. Thread: the driving one.
#pragma once

#include <cstdint>
#include <map>

#include "live/live_card.h"
#include "metrics/flooding_sources.h"

namespace host {

class FloodWatch {
public:
    explicit FloodWatch(LiveCard &card) : card_(card) {}

    // A short piece of the round, in each look.
    void look(int64_t now_ns);

    const FloodingSources &sources() const { return sources_; }

private:
    struct Measured {
        uint64_t packets;
        int64_t time_ns;
    };
    bool look_at_alarm(int64_t now_ns);
    bool look_at_rule(int64_t now_ns);

    LiveCard &card_;
    FloodingSources sources_;
    int64_t next_round_ns_ = 0;
    bool is_at_rules_ = false;
    Subject alarm_;                          // the last one looked at
    uint32_t rule_ = 0;                      // entry id of the last one looked at
    std::map<uint32_t, Measured> measured_;  // rules of one source, by entry id, in the last round
    std::map<uint32_t, Measured> measuring_;
};

}  // namespace host
