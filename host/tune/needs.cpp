// SPDX-License-Identifier: Apache-2.0
#include "tune/needs.h"

namespace host {

void NeedAccount::count(const Packet &packet) {
    start_ns_ = start_ns_ == INT64_MIN ? packet.time_ns : start_ns_;
    const SeenPacket seen = packet_flow_.look(packet, packet.port);
    if (seen.flow.protocol == 0 || seen.flow.vlan == kUntrackedVlan) {
        return;
    }
    const auto [found, is_new] = numbers_.try_emplace(seen.flow, static_cast<uint32_t>(flows_.size()));
    if (is_new) {
        flows_.push_back({seen.flow, {}});
    }
    constexpr int64_t second_slice_ns = 1'000'000'000 / kSlicesPerWindow;
    const int64_t second = packet.time_ns / second_slice_ns;
    const int64_t period = (packet.time_ns - start_ns_) / period_slice_ns_;
    flows_[found->second].second.add(second, period);
    if (seen.address.type != ATC_SRC_NONE) {
        addresses_({found->second, seen.address}).add(second, period);
    }
}

std::array<ClassNeeds, ATC_PROTOCOL_COUNT + 1> NeedAccount::classes() const {
    std::array<ClassNeeds, ATC_PROTOCOL_COUNT + 1> classes{};
    for (const auto &[key, tally] : flows_) {
        ClassNeeds &of = classes.at(key.protocol);
        of.packets += tally.packets;
        of.flows++;
        of.flow.take(tally.peaks());
    }
    for (const auto &[key, tally] : addresses_.entries()) {
        classes.at(flows_[key.flow].first.protocol).source.take(tally.peaks());
    }
    return classes;
}

Peaks NeedAccount::peaks_of(const Subject &subject) const {
    const auto number = numbers_.find(subject.flow);
    if (number == numbers_.end()) {
        return {};
    }
    if (subject.source.type == ATC_SRC_NONE) {
        return flows_[number->second].second.peaks();
    }
    const auto found = addresses_.entries().find({number->second, subject.source});
    return found == addresses_.entries().end() ? Peaks{} : found->second.peaks();
}

}  // namespace host
