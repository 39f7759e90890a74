// SPDX-License-Identifier: Apache-2.0
#include "page/limit_table.h"

#include <nlohmann/json.hpp>
#include <set>

#include "verdict/words.h"

namespace host {

void LimitTable::follow(TrafficAccount &account) {
    account.add_reader([this](const CountedPacket &counted) {
        const int64_t slice_ns = int64_t{settings_.fast_period_s} * OverLimit::kSecondNs / kSlicesPerWindow;
        if (counted.number >= periods_.size()) {
            periods_.resize(counted.number + 1);
        }
        periods_[counted.number].add((counted.packet.time_ns - start_ns_) / slice_ns);
    });
}

Peaks LimitTable::peaks_of(uint32_t number, const FlowTraffic &flow) const {
    return {flow.all.second.peak(), number < periods_.size() ? periods_[number].peak() : 0};
}

Json LimitTable::data(const TrafficAccount &account, const std::vector<Flood> &floods) const {
    std::set<FlowKey> flooding;
    for (const Flood &flood : floods) {
        if (!flood.is_moment()) {
            flooding.insert(flood.flow);
        }
    }
    std::array<Evidence, FastLimits::kSlots> classes{};
    uint32_t number = 0;
    for (const FlowTraffic &flow : account.flows()) {
        const Peaks peaks = peaks_of(number++, flow);
        if (flow.key.protocol == 0 || flow.key.vlan == kUntrackedVlan) {
            continue;
        }
        Evidence &of = classes.at(flow.key.protocol);
        if (!flooding.contains(flow.key)) {
            of.good_packets += flow.all.packets;
            of.good.take(peaks);
        } else if (!of.flood || peaks.period < of.flood->period) {
            of.flood = peaks;
        }
    }
    Json rows = Json::array();
    for (uint32_t id = 1; id < classes.size(); id++) {
        Evidence &of = classes.at(id);
        if (of.good_packets == 0 && !of.flood) {
            continue;
        }
        of.margin = kMargin;
        of.now = settings_.protocols.at(id).fast_limit;
        of.period_s = settings_.fast_period_s;
        const Choice choice = choose(of);
        rows.push_back(
            {{"protocol", protocol_name(id)},
             {"good_second", of.good.second},
             {"good_period_pps", static_cast<double>(of.good.period) / of.period_s},
             {"flood_period_pps", of.flood ? Json(static_cast<double>(of.flood->period) / of.period_s) : Json()},
             {"now_pps", of.now},
             {"recommended_pps", choice.pps ? Json(*choice.pps) : Json()},
             {"why", choice.why}});
    }
    return {{"margin", kMargin}, {"fast_period_s", settings_.fast_period_s}, {"classes", std::move(rows)}};
}

}  // namespace host
