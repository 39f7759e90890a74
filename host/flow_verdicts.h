// SPDX-License-Identifier: Apache-2.0
// flow_verdicts.h: what became of the packets of each flow that had one stopped in the chip or dropped in software.
//
// A packet that passes costs nothing here: how many there were is the module's count of the flow, less those dropped.
// So only stopped and dropped packets are looked into. What a clear of the module's counts takes away is kept here;
// packets that pass while the module is off are counted by nobody.
// Used by: replay (packets), the console (clears), report (rows). Uses: module_tables, packet_flow. Thread: the driving
// one.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

#include "flow_key.h"
#include "module_tables.h"

namespace host {

// Packets of one flow. 'offered' and 'passed' are missing where the module's count is not known: it keeps no flow, in
// its untracked VLAN or for want of memory.
struct FlowVerdict {
    FlowKey flow;
    std::optional<uint64_t> offered;
    uint64_t stopped = 0;  // in the chip
    uint64_t dropped = 0;  // by the module's verdict
    std::optional<uint64_t> passed;
};

class FlowVerdicts {
public:
    void stopped(const FlowKey &flow) { denied_[flow].stopped++; }
    void dropped(const FlowKey &flow) { denied_[flow].dropped++; }

    // Runs 'clear', which may set the module's counts of these flows to zero. Gives what it gives.
    template <typename Clear>
    auto keep_counts(std::span<const FlowKey> flows, Clear clear) {
        std::vector<uint32_t> before;
        for (const FlowKey &flow : flows) {
            before.push_back(flow_packets(flow));
        }
        const auto result = clear();
        for (size_t i = 0; i < flows.size(); i++) {
            const uint32_t left = flow_packets(flows[i]);
            if (left < before[i]) {
                kept_[flows[i]] += before[i] - left;
            }
        }
        return result;
    }

    // By port, VLAN and protocol.
    std::vector<FlowVerdict> rows() const;

private:
    struct Denied {
        uint64_t stopped = 0;
        uint64_t dropped = 0;
    };

    std::unordered_map<FlowKey, Denied, FlowKeyHash> denied_;
    std::map<FlowKey, uint64_t> kept_;  // counts that clears took away
};

}  // namespace host
