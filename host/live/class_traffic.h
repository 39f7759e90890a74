// SPDX-License-Identifier: Apache-2.0
// class_traffic.h: packets and bytes of each port by class and by what became of them, as their copies are read.
//
// What the kernel's counters of a port do not tell apart. A copy that is lost is not in here, nor what a rule stopped,
// of which there is no copy. Used by: live_card (counts), metrics (reads). Pure. Thread: the driving one.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>

#include "anti_cpu/types.h"

namespace host {

enum class Fate : uint8_t {
    kPassed,
    kDropped,   // by a software deny
    kFiltered,  // dropped by an operator's filter
    kSent
};
constexpr size_t kFates = 4;

struct PacketCount {
    uint64_t packets = 0;
    uint64_t bytes = 0;
};

class ClassTraffic {
public:
    // By class, slot 0 those without one; then by fate.
    using OfPort = std::array<std::array<PacketCount, kFates>, ATC_PROTOCOL_COUNT + 1>;

    void count(uint32_t port, uint32_t protocol, Fate fate, uint32_t bytes) {
        if (last_ == nullptr || port != last_port_) {
            last_ = &ports_[port];
            last_port_ = port;
        }
        PacketCount &count = (*last_)[std::min<uint32_t>(protocol, ATC_PROTOCOL_COUNT)][static_cast<size_t>(fate)];
        count.packets++;
        count.bytes += bytes;
    }

    // By logical port.
    const std::map<uint32_t, OfPort> &ports() const { return ports_; }

private:
    std::map<uint32_t, OfPort> ports_;
    OfPort *last_ = nullptr;
    uint32_t last_port_ = 0;
};

}  // namespace host
