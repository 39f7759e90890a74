// SPDX-License-Identifier: Apache-2.0
// needs.h: what one capture holds at most, by class: the busiest second and the busiest fast period of any flow and of
// any sender.
//
// Periods lie anywhere: ten tenths of one in a row, cut from the first packet on, so that those of a replay of the
// capture are among them. Frames of no class and VLAN 4089 have no limits and do not count here. Memory: as account.h.
// Used by: tune. Uses: packet_flow, rates, address_table. Thread: the driving one.
#pragma once

#include <array>
#include <deque>
#include <unordered_map>

#include "packet_flow.h"
#include "traffic/address_table.h"
#include "traffic/rates.h"

namespace host {

struct Peaks {
    uint32_t second = 0;  // packets
    uint32_t period = 0;  // packets of a fast period
    void take(const Peaks &other) {
        second = std::max(second, other.second);
        period = std::max(period, other.period);
    }
};

struct ClassNeeds {
    uint64_t packets = 0;
    uint64_t flows = 0;
    Peaks flow;
    Peaks source;
};

class NeedAccount {
public:
    // 'vlan' and 'device' as for PacketFlow.
    NeedAccount(uint32_t vlan, const MacAddress &device, uint32_t period_s)
        : packet_flow_(vlan, device), period_slice_ns_(int64_t{period_s} * 1'000'000'000 / kSlicesPerWindow) {}

    void count(const Packet &packet);

    // By protocol id.
    std::array<ClassNeeds, ATC_PROTOCOL_COUNT + 1> classes() const;
    Peaks peaks_of(const Subject &subject) const;
    // Senders that are known, at most as many as address_table keeps.
    template <typename Use>
    void each_sender(Use use) const {
        for (const auto &[key, tally] : addresses_.entries()) {
            use(Subject{flows_[key.flow].first, key.source});
        }
    }

private:
    struct Tally {
        uint64_t packets = 0;
        SlidingCount second;
        SlidingCount period;
        void add(int64_t second_slice, int64_t period_slice) {
            packets++;
            second.add(second_slice);
            period.add(period_slice);
        }
        Peaks peaks() const { return {second.peak(), period.peak()}; }
    };

    PacketFlow packet_flow_;
    int64_t period_slice_ns_;
    int64_t start_ns_ = INT64_MIN;  // of the first packet
    std::deque<std::pair<FlowKey, Tally>> flows_;
    std::unordered_map<FlowKey, uint32_t, FlowKeyHash> numbers_;
    AddressTable<Tally> addresses_;
};

}  // namespace host
