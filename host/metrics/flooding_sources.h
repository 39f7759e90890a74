// SPDX-License-Identifier: Apache-2.0
// flooding_sources.h: the few senders that are named where names cost: each becomes a time series of its own.
//
// There are kPlacesPerPort places for each port and kPlaces in all. A sender keeps its place as long as its flood
// stands; a place that has been taken is given to another one kHoldNs later at the earliest. So an attacker that
// invents senders makes no more than kPlacesPerPort new series a port in that time, whatever it sends; who finds no
// place is counted. Used by: flood_watch. Pure. Thread: any, one at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "flow_key.h"

namespace host {

// One whose flood stands, with what was measured of it last.
struct FloodingSource {
    Subject subject;
    uint64_t rate_pps = 0;
};

class FloodingSources {
public:
    static constexpr size_t kPlacesPerPort = 10;
    static constexpr size_t kPlaces = 100;
    static constexpr int64_t kHoldNs = 300'000'000'000;

    // In this pass, this sender floods; the greatest rate of a pass counts.
    void note(const Subject &subject, uint64_t rate_pps, int64_t now_ns);
    // Who has not been noted in it floods no longer.
    void end_pass();

    // As of the last pass that has ended.
    std::vector<FloodingSource> sources() const;
    size_t left_out() const { return left_out_; }

private:
    struct Place {
        Subject subject;
        int64_t taken_ns;
        bool is_noted = false;
        bool floods = false;
        uint64_t rate_pps = 0;       // of the last pass
        uint64_t next_rate_pps = 0;  // of this one
    };
    Place *place_for(const Subject &subject, int64_t now_ns);

    std::vector<Place> places_;
    size_t left_out_ = 0;
    size_t next_left_out_ = 0;
};

}  // namespace host
