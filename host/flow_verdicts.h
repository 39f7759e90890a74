// flow_verdicts.h: what became of the packets of each flow that had one stopped in the chip or dropped in software.
//
// A packet that passes costs nothing here: how many there were is the module's count of the flow, less those dropped.
// So only stopped and dropped packets are looked into, by the module's own parser. What a clear of the module's counts
// takes away is kept here; packets that pass while the module is off are counted by nobody.
// Used by: replay (packets), the console (clears), report (rows). Uses: the module's parser, module_tables. Thread: the
// driving one.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

#include "addresses.h"
#include "capture_reader.h"
#include "module_tables.h"

namespace host {

// Packets of one flow. 'offered' and 'passed' are missing where the module's count is not known: it keeps no flow (in
// its untracked VLAN, or for want of memory), or it has more flows than its table has room for.
struct FlowVerdict {
    FlowKey flow;
    std::optional<uint64_t> offered;
    uint64_t stopped = 0;  // in the chip
    uint64_t dropped = 0;  // by the module's verdict
    std::optional<uint64_t> passed;
};

class FlowVerdicts {
public:
    // 'vlan' is that of frames without a tag, 'device' the address the module knows as its own.
    FlowVerdicts(uint32_t vlan, const MacAddress &device) : vlan_(vlan), device_(device) {}

    // A packet of the flow that it belongs to on this logical port.
    void stopped(const Packet &packet, uint32_t port) { denied(packet, port).stopped++; }
    void dropped(const Packet &packet, uint32_t port) { denied(packet, port).dropped++; }

    // Runs 'clear', which may set counts of the module to zero. Gives what it gives.
    template <typename Clear>
    auto keep_counts(Clear clear) {
        const FlowCounts before = flow_counts();
        const auto result = clear();
        keep(before, flow_counts());
        return result;
    }

    // By port, VLAN and protocol.
    std::vector<FlowVerdict> rows() const;

private:
    struct Denied {
        uint64_t stopped = 0;
        uint64_t dropped = 0;
    };
    struct Hash {
        size_t operator()(const FlowKey &flow) const {
            return std::hash<uint64_t>()(uint64_t{flow.port} << 32 | flow.vlan << 16 | flow.protocol);
        }
    };

    Denied &denied(const Packet &packet, uint32_t port);
    FlowKey flow_of(const Packet &packet, uint32_t port) const;
    void keep(const FlowCounts &before, const FlowCounts &after);

    uint32_t vlan_;
    MacAddress device_;
    std::unordered_map<FlowKey, Denied, Hash> denied_;
    std::map<FlowKey, uint64_t> kept_;  // counts that clears took away
    bool complete_ = true;              // every clear's counts were all seen
};

}  // namespace host
