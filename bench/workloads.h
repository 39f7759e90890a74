// SPDX-License-Identifier: Apache-2.0
// workloads.h: the inputs that are measured: packets of known kinds in a known order, and what they must leave behind.
//
// Used by every benchmark. Everything is seeded and built beforehand: each packet has bytes of its own, back to back in
// memory in the order in which they are sent, as a burst in a receive ring has. The workloads reach the module through
// its exported operations only. Failed checks end the program: figures of another input would be worse than none.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace bench {

// One packet of a workload.
struct Packet {
    uint32_t offset;  // of its first byte in Workload::bytes
    uint32_t len;     // bytes
    uint32_t port;    // logical port
    uint32_t vlan;
};

struct Workload {
    std::vector<uint8_t> bytes;
    std::vector<Packet> packets;
    uint32_t limit = 0;    // packets that a flow and a source may have; the period in force never ends
    int64_t records = 0;   // flows, sources, ports, VLANs and protocols that the module remembers after all packets
    bool creates = false;  // every packet is the first of its flow: a second pass needs the module emptied
};

// One flow far over its limit, from one sender: ARP requests.
Workload one_flow();
// All 58 classes on 200 VLANs of 48 ports in random order, within their limits: 11,600 flows, each seen four times. The
// half of it has every second class on each VLAN: 5,800 flows.
enum class Mix {
    kFull,
    kHalf
};
Workload mix(Mix which);
// TCP SYN of 'count' IPv4 sources (1..2048) of one flow in random order; the flow and every source are over their
// limits.
Workload sources(uint32_t count);
// 'count' flows (1..1,002,240) in random order, one packet each, within their limits: ports, VLANs and classes vary.
Workload flows(uint32_t count);
// The same where each packet is the first of its flow: 100,000 packets.
Workload new_flows();
// 'count' flows that are over their limits from the first packet on, each with 2048 sources in random order, one packet
// a source; the first 'count' packets are the first of each flow.
Workload sources_of_flows(uint32_t count);

// The workload of a packet benchmark: one-flow, mix, half-mix, sources, new-flow or million. Ends the program for
// another name.
Workload packet_workload(std::string_view name);

// Empties the module and makes the workload's limits those of every protocol.
void reset(const Workload &workload);
// reset(), and lets the module see every packet once, unless the workload creates; checks what it then remembers.
void warm(const Workload &workload);

// The module may keep some blocks besides its records: tables that grow with them, a piece for some hundred.
constexpr int64_t kRecordsABlock = 256;
constexpr int64_t kBlocksBeside = 16;

using PacketCall = int (*)(const uint8_t *buf, uint32_t len, uint32_t port, uint32_t vlan);

// Hands 'count' packets from packet 'first' on to 'call', beginning anew at the end. Returns the packet to go on with.
uint32_t send(const Workload &workload, uint32_t first, uint32_t count, PacketCall call);

}  // namespace bench

// What send() sends with, and nothing else does: callgrind counts inside of this name.
extern "C" void atc_bench_measured(const uint8_t *bytes, const bench::Packet *packets, uint32_t count,
                                   bench::PacketCall call);
