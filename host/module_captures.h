// SPDX-License-Identifier: Apache-2.0
// module_captures.h: the captures that the module holds, and what they are called.
//
// Used by: capture_keeper, the console. Thread: the driving one; takes the module's mutex.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "flow_account.h"

namespace host {

// Whose capture: direction 0 and nothing else for the manual one, else that of a flow or one of its sources.
struct CaptureKey {
    uint32_t direction = 0;
    Subject subject;
    auto operator<=>(const CaptureKey &) const = default;
};

// The module's name for its file.
std::string capture_name(const CaptureKey &key);

// How long it is now; 0 = there is none.
uint32_t capture_bytes(const CaptureKey &key);

// The whole file as it is now; nothing when there is none.
std::optional<std::string> capture_content(const CaptureKey &key);

struct HeldCapture {
    CaptureKey key;
    uint32_t bytes;
};
// The automatic ones, by a walk over every flow and source.
std::vector<HeldCapture> held_captures(FlowAccount &account);

}  // namespace host
