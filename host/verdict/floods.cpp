// SPDX-License-Identifier: Apache-2.0
#include "verdict/floods.h"

#include <algorithm>
#include <cmath>
#include <tuple>
#include <unordered_map>

namespace host {

namespace {

constexpr uint64_t kSecondNs = OverLimit::kSecondNs;

// The flood of each flow by the flow's number; flows without one have none.
using FloodsByNumber = std::unordered_map<uint32_t, Flood>;

Flood &flood_of(FloodsByNumber &floods, const TrafficAccount &account, uint32_t number) {
    const auto [found, is_new] = floods.try_emplace(number);
    Flood &flood = found->second;
    if (is_new) {
        const FlowTraffic &flow = account.flows()[number];
        flood.flow = flow.key;
        flood.traffic = &flow.all;
        flood.over = &flow.all.over;
        flood.limit_pps = account.limits().flow[flow.key.protocol];
        flood.source_limit_pps = account.limits().source[flow.key.protocol];
    }
    return flood;
}

void find_flows(FloodsByNumber &floods, const TrafficAccount &account, const AlarmHistory &history) {
    for (uint32_t number = 0; number < account.flows().size(); number++) {
        const FlowTraffic &flow = account.flows()[number];
        const auto alarms = history.flows().find(flow.key);
        const bool has_alarms = alarms != history.flows().end();
        // A single packet of no class raises an alarm: its limit is 0.
        if (flow.all.over.times() > 0 || (has_alarms && flow.key.protocol != 0)) {
            flood_of(floods, account, number).alarms = has_alarms ? alarms->second : FlowAlarms{};
        }
    }
}

void find_sources(FloodsByNumber &floods, const TrafficAccount &account) {
    for (const auto &[key, traffic] : account.addresses().entries()) {
        if (traffic.over.times() == 0) {
            continue;
        }
        Flood &flood = flood_of(floods, account, key.flow);
        flood.sources_over++;
        flood.over_packets += traffic.packets;
        if (flood.traffic->over.times() == 0 && flood.over->packets() < traffic.over.packets()) {
            flood.over = &traffic.over;
        }
    }
}

void add_busiest(FloodsByNumber &floods, const AddressTable<Traffic> &table, FloodSources Flood::*member) {
    for (const auto &[key, traffic] : table.entries()) {
        if (const auto found = floods.find(key.flow); found != floods.end()) {
            (found->second.*member).busiest.push_back({key.source, &traffic});
        }
    }
    const auto busier = [](const FloodSource &a, const FloodSource &b) {
        return std::tuple(b.traffic->packets, a.traffic->first_ns, a.source) <
               std::tuple(a.traffic->packets, b.traffic->first_ns, b.source);
    };
    for (auto &[number, flood] : floods) {
        FloodSources &sources = flood.*member;
        sources.number = table.count(number);
        const size_t kept = std::min(sources.busiest.size(), FloodSources::kBusiest);
        std::ranges::partial_sort(sources.busiest, sources.busiest.begin() + static_cast<std::ptrdiff_t>(kept), busier);
        sources.busiest.resize(kept);
    }
}

}  // namespace

uint64_t Flood::excess() const {
    const uint64_t allowed = limit_pps * static_cast<uint64_t>(over->length_ns()) / kSecondNs;
    return over->packets() - std::min(over->packets(), allowed);
}

uint64_t Flood::harm() const {
    return excess() - std::min(excess(), traffic->stopped);
}

// Packets at both ends of a time have one interval less between them.
uint64_t Flood::average_pps() const {
    constexpr int64_t shortest_ns = OverLimit::kSliceNs;  // packets at one time have no rate
    const bool is_over = over->times() > 0;
    const auto packets = static_cast<double>(is_over ? over->packets() : traffic->packets);
    const int64_t length_ns = is_over ? over->length_ns() : traffic->last_ns - traffic->first_ns;
    return static_cast<uint64_t>(
        std::llround((packets - 1) * kSecondNs / static_cast<double>(std::max(length_ns, shortest_ns))));
}

std::vector<Flood> find_floods(const TrafficAccount &account, const AlarmHistory &alarms, const RuleBook &rules) {
    FloodsByNumber by_number;
    find_flows(by_number, account, alarms);
    find_sources(by_number, account);
    add_busiest(by_number, account.addresses(), &Flood::addresses);
    add_busiest(by_number, account.macs(), &Flood::macs);
    std::vector<Flood> floods;
    floods.reserve(by_number.size());
    for (auto &[number, flood] : by_number) {
        if (const auto of_flow = rules.flows().find(flood.flow); of_flow != rules.flows().end()) {
            flood.rules = of_flow->second;
        }
        floods.push_back(std::move(flood));
    }
    std::ranges::sort(floods, [](const Flood &a, const Flood &b) {
        const auto rank = [](const Flood &flood) {
            return std::tuple(flood.is_moment(), UINT64_MAX - flood.harm(), UINT64_MAX - flood.excess(), flood.flow);
        };
        return rank(a) < rank(b);
    });
    return floods;
}

}  // namespace host
