// SPDX-License-Identifier: Apache-2.0
// flow_account.h: which flows and ports the module may have entries for: those of the packets that it was shown.
//
// The module gives figures of a flow whose name it is told, and lists flows as text of a fixed size only, which the
// names of a wide flood outgrow. So the host keeps the names. One is noted whenever a packet has made the module
// allocate something, which it must to remember a flow; names of what it has not kept, or has discarded since, leave
// the account when somebody walks it and the module does not know them. Used by: replay (notes), module_tables (walks),
// flow_verdicts. Thread: the driving one.
#pragma once

#include <algorithm>
#include <cstddef>
#include <set>
#include <vector>

#include "flow_key.h"

namespace host {

class FlowAccount {
public:
    // May have been noted before.
    void note(const FlowKey &flow) {
        if (flows_.size() == room_) {
            settle();
        }
        flows_.push_back(flow);
        ports_.insert(flow.port);
    }

    // In ascending order, until the next call here.
    const std::vector<FlowKey> &flows() {
        settle();
        return flows_;
    }

    // Call is_there(flow) for each flow, is_there(port) for each port, in ascending order; those of which that is false
    // leave the account.
    template <typename IsThere>
    void each_flow(IsThere is_there) {
        settle();
        std::erase_if(flows_, [&](const FlowKey &flow) { return !is_there(flow); });
    }
    template <typename IsThere>
    void each_port(IsThere is_there) {
        std::erase_if(ports_, [&](uint32_t port) { return !is_there(port); });
    }

private:
    // Puts the names in order, each once, and makes room for as many again.
    void settle() {
        std::ranges::sort(flows_);
        flows_.erase(std::unique(flows_.begin(), flows_.end()), flows_.end());
        room_ = 2 * flows_.size() + kRoomAtFirst;
    }

    static constexpr size_t kRoomAtFirst = 1024;
    std::vector<FlowKey> flows_;
    size_t room_ = kRoomAtFirst;
    std::set<uint32_t> ports_;
};

}  // namespace host
