// SPDX-License-Identifier: Apache-2.0
#include "timeline/rate_series.h"

#include <algorithm>

namespace host {

namespace {

void add(std::vector<RatePoint> &points, int64_t place, const RatePoint &more) {
    if (points.empty() || points.back().place < place) {
        points.push_back({place});
    }
    RatePoint &point = points.back();
    point.offered += more.offered;
    point.stopped += more.stopped;
    point.dropped += more.dropped;
    point.peak = std::max(point.peak, more.peak);
}

}  // namespace

void RateSeries::follow(TrafficAccount &account) {
    account.add_reader([this](const CountedPacket &counted) { take(counted); });
}

const std::vector<RatePoint> *RateSeries::flow(uint32_t number) const {
    const auto found = flows_.find(number);
    return found != flows_.end() ? &found->second : nullptr;
}

void RateSeries::take(const CountedPacket &counted) {
    const int64_t since_ns = std::max<int64_t>(counted.packet.time_ns - start_ns_, 0);
    while (since_ns / width_ns_ >= kPoints) {
        widen();
    }
    RatePoint point{0, 1, counted.outcome == Outcome::kStopped ? 1U : 0U,
                    counted.outcome == Outcome::kDropped ? 1U : 0U, counted.total.second.in_window()};
    add(total_, since_ns / width_ns_, point);
    if (Points *const points = series_of(counted)) {
        point.peak = counted.flow.all.second.in_window();
        add(*points, since_ns / width_ns_, point);
    }
}

RateSeries::Points *RateSeries::series_of(const CountedPacket &counted) {
    if (const auto found = flows_.find(counted.number); found != flows_.end()) {
        return &found->second;
    }
    const bool is_over = counted.flow.all.over.times() > 0;
    return flows_.size() < (is_over ? 2 : 1) * kFlows ? &flows_[counted.number] : nullptr;
}

// Two stretches become one.
void RateSeries::widen() {
    width_ns_ *= 2;
    const auto merge = [](Points &points) {
        Points merged;
        for (const RatePoint &point : points) {
            add(merged, point.place / 2, point);
        }
        points = std::move(merged);
    };
    merge(total_);
    for (auto &[number, points] : flows_) {
        merge(points);
    }
}

}  // namespace host
