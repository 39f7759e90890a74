// SPDX-License-Identifier: Apache-2.0
#include "traffic/account.h"

namespace host {

void Traffic::add(const Packet &packet, Outcome outcome, uint32_t limit) {
    first_ns = packets == 0 ? packet.time_ns : first_ns;
    last_ns = packet.time_ns;
    packets++;
    bytes += packet.len;
    dropped += outcome == Outcome::kDropped ? 1 : 0;
    if (outcome == Outcome::kStopped) {
        first_stopped_ns = stopped == 0 ? packet.time_ns : first_stopped_ns;
        last_stopped_ns = packet.time_ns;
        stopped++;
    }
    second.add(packet.time_ns / OverLimit::kSliceNs);
    over.add(packet.time_ns, second, limit);
}

void TrafficAccount::count(const Packet &packet, uint32_t port, Outcome outcome) {
    const SeenPacket seen = packet_flow_.look(packet, port);
    const uint32_t number = number_of(seen.flow);
    total_.add(packet, outcome, UINT32_MAX);
    flows_[number].all.add(packet, outcome, limits_.flow[seen.flow.protocol]);
    if (seen.address.type != ATC_SRC_NONE) {
        addresses_({number, seen.address}).add(packet, outcome, limits_.source[seen.flow.protocol]);
    }
    if (seen.address.type != ATC_SRC_MAC && seen.mac.type == ATC_SRC_MAC) {
        macs_({number, seen.mac}).add(packet, outcome, UINT32_MAX);
    }
    for (const Reader &read : readers_) {
        read({packet, outcome, number, flows_[number], total_});
    }
}

uint32_t TrafficAccount::number_of(const FlowKey &flow) {
    if (last_ < flows_.size() && flows_[last_].key == flow) {
        return last_;
    }
    const auto [found, is_new] = numbers_.try_emplace(flow, static_cast<uint32_t>(flows_.size()));
    if (is_new) {
        flows_.push_back({flow, {}});
    }
    last_ = found->second;
    return last_;
}

}  // namespace host
