#include "flow_verdicts.h"

#include <algorithm>
#include <cstring>

#include "atc/parser.h"
#include "atc/protocol.h"

namespace host {

namespace {

constexpr uint32_t kVlanMask = 0xfff;      // IEEE 802.1Q 9.6
constexpr size_t kSourceOffset = 6;        // of a frame; IEEE 802.3 3.2
constexpr uint32_t kUntrackedVlan = 4089;  // the module counts its packets for the VLAN, and for no flow

uint64_t count_of(const std::map<FlowKey, uint64_t> &counts, const FlowKey &flow) {
    const auto found = counts.find(flow);
    return found != counts.end() ? found->second : 0;
}

}  // namespace

std::vector<FlowVerdict> FlowVerdicts::rows() const {
    std::vector<FlowVerdict> rows;
    if (denied_.empty()) {
        return rows;
    }
    const FlowCounts counts = flow_counts();
    for (const auto &[flow, denied] : denied_) {
        FlowVerdict row{flow, {}, denied.stopped, denied.dropped, {}};
        const uint64_t counted = count_of(counts.packets, flow) + count_of(kept_, flow);
        const bool listed = counts.complete || counts.packets.contains(flow);
        if (complete_ && listed && flow.vlan != kUntrackedVlan && counted >= denied.dropped) {
            row.offered = counted + denied.stopped;
            row.passed = counted - denied.dropped;
        }
        rows.push_back(row);
    }
    std::ranges::sort(rows, {}, &FlowVerdict::flow);
    return rows;
}

FlowVerdicts::Denied &FlowVerdicts::denied(const Packet &packet, uint32_t port) {
    return denied_[flow_of(packet, port)];
}

// As the module takes a received packet.
FlowKey FlowVerdicts::flow_of(const Packet &packet, uint32_t port) const {
    atc_pkt_info_t info;
    atc_packet_begin(&info, ATC_DIRECTION_RX, port, vlan_ & kVlanMask);
    if (packet.len >= kSourceOffset + device_.size() &&
        std::memcmp(packet.data + kSourceOffset, device_.data(), device_.size()) == 0) {
        info.protocol = ATC_SELF;
    } else {
        atc_packet_parser(packet.data, packet.len, &info);
    }
    // Without a class: see FlowCounts.
    return {port, info.vlan, info.protocol != 0 ? info.protocol : uint32_t{ATC_UNKNOWN_PACKET}};
}

void FlowVerdicts::keep(const FlowCounts &before, const FlowCounts &after) {
    for (const auto &[flow, packets] : before.packets) {
        const uint64_t left = count_of(after.packets, flow);
        if (left < packets) {
            kept_[flow] += packets - left;
        }
    }
    complete_ = complete_ && before.complete;
}

}  // namespace host
