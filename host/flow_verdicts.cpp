// SPDX-License-Identifier: Apache-2.0
#include "flow_verdicts.h"

#include <algorithm>

#include "packet_flow.h"

namespace host {

std::vector<FlowVerdict> FlowVerdicts::rows() const {
    std::vector<FlowVerdict> rows;
    for (const auto &[flow, denied] : denied_) {
        FlowVerdict row{flow, {}, denied.stopped, denied.dropped, {}};
        const auto kept = kept_.find(flow);
        const uint64_t counted = flow_packets(flow) + (kept != kept_.end() ? kept->second : 0);
        if (flow.vlan != kUntrackedVlan && counted >= denied.dropped) {
            row.offered = counted + denied.stopped;
            row.passed = counted - denied.dropped;
        }
        rows.push_back(row);
    }
    std::ranges::sort(rows, {}, &FlowVerdict::flow);
    return rows;
}

}  // namespace host
