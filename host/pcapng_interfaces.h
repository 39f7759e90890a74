// SPDX-License-Identifier: Apache-2.0
// pcapng_interfaces.h: which interface each packet of a pcapng file came in on.
//
// libpcap reads pcapng but hides the interface of a packet. This takes the same bytes on their way to it, walks the
// blocks' headers and notes that one thing. It reads no packet data and judges nothing: from where the file is broken
// it repeats its last answer, and libpcap says what is wrong. What is no pcapng at all has interface 0.
// Used by: capture_stream. Format: PCAP Next Generation Capture File Format (IETF draft-ietf-opsawg-pcapng).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>

namespace host {

class PcapngInterfaces {
public:
    // The next bytes of the file.
    void take(const uint8_t *bytes, size_t count);

    // Interface of the next packet, counted from 0 through all sections of the file.
    uint32_t next();

private:
    // What tells one block from another: type, length, and the first word behind them, which every block has.
    static constexpr size_t kHeadSize = 12;

    void read_head();
    uint32_t word(size_t offset) const;
    uint32_t number(uint32_t raw) const { return swapped_ ? __builtin_bswap32(raw) : raw; }

    std::array<uint8_t, kHeadSize> head_{};
    size_t held_ = 0;    // bytes of head_ so far
    uint64_t skip_ = 0;  // bytes to the next block
    bool in_section_ = false;
    bool lost_ = false;          // no pcapng, or broken
    bool swapped_ = false;       // the section has the other byte order
    uint32_t section_base_ = 0;  // interfaces of all sections before this one
    uint32_t section_interfaces_ = 0;
    std::deque<uint32_t> packets_;  // interfaces of packets that have been taken and not asked for
    uint32_t last_ = 0;
};

}  // namespace host
