// SPDX-License-Identifier: Apache-2.0
// description.h: the three driver buffers of a rule, checked and understood.
//
//   match list      u16 items; items of 88 bytes: u16 field code, u16 flag (0), u16 value length, u16 mask length (32),
//                   32 bytes value, 32 bytes mask, 16 bytes 0
//   operation list  u16 operations; each u16 code, u16 values n, n times (u16 length, 16 bytes value)
//   port list       u16 kind (1 install or look up, 0 delete), u16 ports, u16 each
//
// Numbers are in the processor's byte order, but for IP addresses. The layout is the driver's; it is written down here
// a second time on purpose, so that this reader checks the writer. Used by: the driver functions in driver.cpp; chip
// keeps what it makes. Uses: frame_key. Pure: no state, no lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "chip/frame_key.h"

namespace card {

// A buffer as it came in.
struct Buffer {
    const void *bytes;
    uint32_t len;
};

enum class Kind : uint16_t {
    kDelete = 0,
    kInstall = 1,  // also: look up
};

// Which operation decides what becomes of a frame. Only the first stops it; what the other two ask for (both come from
// the operator's own filters) leaves the frame on its way to the CPU, so here they count and no more.
enum class Action : uint16_t {
    kDeny = 100,
    kCount = 101,
    kCountToo = 106,
};

struct Description {
    std::string identity;  // all of the buffers but the kind: two rules are the same when these are
    Action action{};
    Pattern pattern{};
    std::vector<uint16_t> ports;  // the low 16 bits of logical ports, as given
    std::string text;             // for people

    bool covers_port(uint32_t port) const;
};

// Reads the buffers of a rule into '*description'. Returns null, or what is wrong with them.
const char *read_description(Buffer match, Buffer operations, Buffer ports, Kind expected, Description *description);

}  // namespace card
