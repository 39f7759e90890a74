// packet_flow.h: which flow the module counts a received packet in.
//
// By the module's own parser, whose objects are linked into the host. Used by: replay. Thread: any.
#pragma once

#include "capture_reader.h"
#include "flow_key.h"

namespace host {

class PacketFlow {
public:
    // 'vlan' is that of frames without a tag, 'device' the address that the module knows as its own.
    PacketFlow(uint32_t vlan, const MacAddress &device) : vlan_(vlan), device_(device) {}

    FlowKey of(const Packet &packet, uint32_t logical_port) const;

private:
    uint32_t vlan_;
    MacAddress device_;
};

}  // namespace host
