// SPDX-License-Identifier: Apache-2.0
// account.h: what the captures themselves hold: every received packet, by flow and by sender, whatever became of it.
//
// The module sees only what the chip lets through, and averages over its periods; this counts what was offered, second
// by second. A second is any ten tenths of a second in a row (rates.h). Memory: a record a flow, of which the module
// keeps larger ones, and address_table's bound for senders.
// Used by: replay (packets), floods. Uses: packet_flow. Thread: the driving one.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <unordered_map>
#include <vector>

#include "anti_cpu/types.h"
#include "packet_flow.h"
#include "traffic/address_table.h"
#include "traffic/rates.h"

namespace host {

// What became of a received packet.
enum class Outcome : uint8_t {
    kPassed,
    kDropped,  // by the module's verdict
    kStopped,  // in the chip
};

// Fast limits in packets a second, by protocol id; slot 0 is that of packets without a class.
struct FastLimits {
    static constexpr uint32_t kSlots = ATC_PROTOCOL_COUNT + 1;
    std::array<uint32_t, kSlots> flow{};
    std::array<uint32_t, kSlots> source{};
};

// Of a flow, a sender or all packets.
struct Traffic {
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t dropped = 0;
    uint64_t stopped = 0;
    int64_t first_ns = 0;
    int64_t last_ns = 0;
    int64_t first_stopped_ns = 0;
    int64_t last_stopped_ns = 0;
    SlidingCount second;
    OverLimit over;

    uint64_t passed() const { return packets - dropped - stopped; }
    void add(const Packet &packet, Outcome outcome, uint32_t limit);
};

struct FlowTraffic {
    FlowKey key;  // protocol 0: no class
    Traffic all;
};

// A packet behind its addition.
struct CountedPacket {
    const Packet &packet;
    Outcome outcome;
    uint32_t number;          // of its flow
    const FlowTraffic &flow;  // with it
    const Traffic &total;     // of all packets
};

class TrafficAccount {
public:
    TrafficAccount(uint32_t vlan, const MacAddress &device, const FastLimits &limits)
        : packet_flow_(vlan, device), limits_(limits) {}

    // A packet that came in on this logical port.
    void count(const Packet &packet, uint32_t port, Outcome outcome);

    // Called with every packet from now on.
    using Reader = std::function<void(const CountedPacket &)>;
    void add_reader(Reader reader) { readers_.push_back(std::move(reader)); }

    const FastLimits &limits() const { return limits_; }
    const Traffic &total() const { return total_; }
    // In the order of their first packets; a flow's place is its number in the two tables.
    const std::deque<FlowTraffic> &flows() const { return flows_; }
    // By the address that the module counts for, and, of packets with an IP address, by the frame's MAC address.
    const AddressTable<Traffic> &addresses() const { return addresses_; }
    const AddressTable<Traffic> &macs() const { return macs_; }

private:
    uint32_t number_of(const FlowKey &flow);

    PacketFlow packet_flow_;
    FastLimits limits_;
    Traffic total_;
    std::deque<FlowTraffic> flows_;
    std::unordered_map<FlowKey, uint32_t, FlowKeyHash> numbers_;
    uint32_t last_ = 0;  // number of the last packet's flow
    AddressTable<Traffic> addresses_;
    AddressTable<Traffic> macs_;
    std::vector<Reader> readers_;
};

}  // namespace host
