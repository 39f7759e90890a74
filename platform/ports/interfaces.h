// SPDX-License-Identifier: Apache-2.0
// interfaces.h: the machine's network interfaces and addresses, as they are now, and when they change.
//
// Used by: live_ports. Uses: netlink (route), getifaddrs. Thread: one.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "chip/kernel/guard.h"

namespace card {

struct Interface {
    uint32_t index;
    std::string name;
    std::array<uint8_t, 6> mac;
    bool is_up;
    uint32_t master;  // index of the bridge or bond that it belongs to; 0 = none
    bool is_bond;
};

// Every interface, in order of index.
std::vector<Interface> interfaces();

// The addresses that frames to this machine carry: MAC addresses, IPv4 with the broadcast addresses of its networks,
// IPv6.
AddressSet local_addresses();

// Tells that interfaces or addresses have changed since it was last asked.
class InterfaceWatch {
public:
    // False when the kernel does not tell.
    bool open();
    bool has_changed();
    ~InterfaceWatch();
    InterfaceWatch() = default;
    InterfaceWatch(const InterfaceWatch &) = delete;
    InterfaceWatch &operator=(const InterfaceWatch &) = delete;

private:
    int socket_ = -1;
};

}  // namespace card
