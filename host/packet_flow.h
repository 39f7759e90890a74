// SPDX-License-Identifier: Apache-2.0
// packet_flow.h: which flow the module counts a received packet in, and for which sender.
//
// By the module's own parser, whose objects are linked into the host. Used by: replay, account, tune. Thread: any.
#pragma once

#include "capture_reader.h"
#include "flow_key.h"

namespace host {

constexpr uint32_t kUntrackedVlan = 4089;  // the module counts its packets for the VLAN, and for no flow

struct SeenPacket {
    FlowKey flow;
    Source address;  // that the module counts it for; type ATC_SRC_NONE: none
    Source mac;      // the frame's source MAC; type ATC_SRC_NONE: the frame is too short to have one
};

// Whether the frame's source MAC is this address.
bool is_from(const Packet &packet, const MacAddress &address);

class PacketFlow {
public:
    // 'vlan' is that of frames without a tag, 'device' the address that the module knows as its own.
    PacketFlow(uint32_t vlan, const MacAddress &device) : vlan_(vlan), device_(device) {}

    FlowKey of(const Packet &packet, uint32_t logical_port) const { return look(packet, logical_port).flow; }
    SeenPacket look(const Packet &packet, uint32_t logical_port) const;
    // With the sender by which the module tells sources apart; the device's own packets have none.
    Subject subject_of(const Packet &packet, uint32_t logical_port) const {
        const SeenPacket seen = look(packet, logical_port);
        return {seen.flow, seen.address};
    }

private:
    uint32_t vlan_;
    MacAddress device_;
};

}  // namespace host
