// SPDX-License-Identifier: Apache-2.0
// floods.h: the floods of a replay, most harmful first.
//
// A flood is a flow that had a second with more packets than its fast limit, or a source with more than a source's, as
// the packets were offered, whatever the chip stopped; or that had an alarm, which may also be one of a long period.
// Used by: verdict, tune. Uses: account, alarm_history, rule_book. Thread: the driving one, behind the last packet.
#pragma once

#include <string>
#include <vector>

#include "events/rule_book.h"
#include "traffic/account.h"
#include "verdict/alarm_history.h"

namespace host {

struct FloodSource {
    Source source;
    const Traffic *traffic;
};

// Who sends a flood, by one kind of address.
struct FloodSources {
    AddressCount number;
    std::vector<FloodSource> busiest;  // at most kBusiest, busiest first

    static constexpr size_t kBusiest = 10;
};

struct Flood {
    FlowKey flow;
    const Traffic *traffic = nullptr;
    const OverLimit *over = nullptr;  // of the flow, or of its busiest source when only sources are over
    uint32_t limit_pps = 0;
    uint32_t source_limit_pps = 0;
    FloodSources addresses;     // those the module counts for
    FloodSources macs;          // of the frames, where the addresses are IP addresses
    uint32_t sources_over = 0;  // how many passed a source's limit
    uint64_t over_packets = 0;  // that these sent
    FlowAlarms alarms;
    FlowRules rules;  // that its packets brought into the chip

    // The limiter keeps no flow of VLAN 4089, and takes no reaction to packets of no class.
    bool is_outside() const { return flow.vlan == kUntrackedVlan || flow.protocol == 0; }
    bool is_held() const { return traffic->stopped + traffic->dropped > 0; }
    // The period has averaged it away: no alarm, and nothing held it.
    bool is_hidden() const { return alarms.raised == 0 && !is_held() && !is_outside(); }
    // Over the limit for a moment: by no more packets than ten seconds allow.
    bool is_moment() const {
        return (alarms.raised == 0 || is_outside()) && !is_held() && excess() < uint64_t{10} * limit_pps;
    }
    // Packets beyond the limit, and those of them that the chip has not stopped.
    uint64_t excess() const;
    uint64_t harm() const;
    // When it was over; of a flood of which no second was, the flow's own times.
    int64_t first_ns() const { return over->times() > 0 ? over->first_ns() : traffic->first_ns; }
    int64_t last_ns() const { return over->times() > 0 ? over->last_ns() : traffic->last_ns; }
    // Packets a second in that time.
    uint64_t average_pps() const;
};

// 'account' must outlive what comes back.
std::vector<Flood> find_floods(const TrafficAccount &account, const AlarmHistory &alarms, const RuleBook &rules);

}  // namespace host
