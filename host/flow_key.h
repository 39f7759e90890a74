// SPDX-License-Identifier: Apache-2.0
// flow_key.h: the names of what the module counts and judges: a received flow, or one of its sources.
//
// In the order of the module's indexes, so that a walk here and a listing of the module come in the same order.
// Used by: everything of the host that speaks of flows. Pure.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>

#include "addresses.h"

namespace host {

struct FlowKey {
    uint32_t port = 0;
    uint32_t vlan = 0;
    uint32_t protocol = 0;  // 0: its packets have no class (the module names it like the class of unknown packets)
    auto operator<=>(const FlowKey &) const = default;
};

// A port's packets of one class, on all its VLANs.
struct PortClass {
    uint32_t port = 0;
    uint32_t protocol = 0;
    auto operator<=>(const PortClass &) const = default;
};

struct FlowKeyHash {
    size_t operator()(const FlowKey &flow) const {
        return std::hash<uint64_t>()(uint64_t{flow.port} << 32 | flow.vlan << 16 | flow.protocol);
    }
};

// A flow (source type 0), or one of its sources.
struct Subject {
    FlowKey flow;
    Source source;
    auto operator<=>(const Subject &) const = default;
};

}  // namespace host
