// SPDX-License-Identifier: Apache-2.0
// rate_series.h: how the rate of each flow went over the whole of a replay, in a bounded number of points.
//
// A point is a stretch of time: a second at first, twice as long whenever there would be more than kPoints of them. The
// first kFlows flows have a series from their first packet; later ones, as many again, from where they pass their
// limit. Used by: html_report. Uses: account. Thread: the driving one.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "traffic/account.h"

namespace host {

// Packets of one stretch of time.
struct RatePoint {
    int64_t place = 0;  // of the stretch: 0, 1, ...
    uint64_t offered = 0;
    uint64_t stopped = 0;
    uint64_t dropped = 0;
    uint32_t peak = 0;  // greatest number in any one second that ended in it
};

class RateSeries {
public:
    static constexpr int64_t kPoints = 600;
    static constexpr size_t kFlows = 1000;

    // The first stretch begins at 'start_ns'.
    explicit RateSeries(int64_t start_ns) : start_ns_(start_ns) {}

    // Reads 'account' from now on.
    void follow(TrafficAccount &account);

    // Those with packets, in order; null for a flow without a series. By the flow's number.
    const std::vector<RatePoint> *flow(uint32_t number) const;
    const std::vector<RatePoint> &total() const { return total_; }

    int64_t start_ns() const { return start_ns_; }
    int64_t width_ns() const { return width_ns_; }

private:
    using Points = std::vector<RatePoint>;

    void take(const CountedPacket &counted);
    Points *series_of(const CountedPacket &counted);
    void widen();

    int64_t start_ns_;
    int64_t width_ns_ = OverLimit::kSecondNs;
    Points total_;
    std::unordered_map<uint32_t, Points> flows_;
};

}  // namespace host
