// SPDX-License-Identifier: Apache-2.0
#include "run.h"

#include "services/services.h"

namespace host {

Run::Run(EventLog &events) : events_(events), clock_(card::Clock::instance()), journal_(events.alarms()) {
    events_.set_journal(&journal_);
}

Run::~Run() {
    events_.set_journal(nullptr);
}

PortCounts Run::received() const {
    PortCounts sum;
    for (const auto &[port, counts] : ports()) {
        sum.offered += counts.offered;
        sum.stopped += counts.stopped;
        sum.dropped += counts.dropped;
        sum.passed += counts.passed;
    }
    return sum;
}

std::vector<PortState> Run::port_states() const {
    std::vector<PortState> states;
    for (const auto &[port, counts] : ports()) {
        states.push_back({port, "", "replayed", counts});
    }
    return states;
}

bool Run::trunk_change(uint32_t trunk, uint32_t member, bool joins) {
    if (joins) {
        trunk_of_[member] = trunk;
    } else if (const auto found = trunk_of_.find(member); found != trunk_of_.end() && found->second == trunk) {
        trunk_of_.erase(found);
    }
    const bool is_told = card::trunk_change(trunk, member, joins);
    settle();
    return is_told;
}

uint32_t Run::logical_port(uint32_t port) const {
    const auto trunk = trunk_of_.find(port);
    return trunk != trunk_of_.end() ? trunk->second : port;
}

// A packet that made the module allocate something may be the first of its flow.
void Run::note(const Packet &packet, const PacketFlow &packet_flow, uint32_t logical_port, bool is_dropped) {
    if (const uint64_t blocks = card::blocks_made(); blocks != blocks_seen_) {
        blocks_seen_ = blocks;
        flows_.note(packet_flow.of(packet, logical_port));
    }
    if (journal_.has_news()) {
        const Subject subject = packet_flow.subject_of(packet, logical_port);
        journal_.settle(&subject);
    }
    if (is_dropped) {
        verdicts_.dropped(packet_flow.of(packet, logical_port));
    }
}

void Run::hand_over_sent(const Packet &packet) {
    sent_++;
    sent_dropped_ += atc_api_global_send_packet(packet.data, packet.len) != 0 ? 1 : 0;
}

}  // namespace host
