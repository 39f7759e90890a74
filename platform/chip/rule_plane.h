// SPDX-License-Identifier: Apache-2.0
// rule_plane.h: whoever matches frames against the chip's rules in the chip's place.
//
// The chip keeps the rules: what they say, their ids, how many there may be. Without a plane it matches frames by
// itself; with one, the plane does, and counts. Implemented by: kernel_rules (the Linux kernel). Used by: chip.
// Threads: the chip calls with its own lock held, one call at a time.
#pragma once

#include <cstdint>

#include "chip/description.h"

namespace card {

class RulePlane {
public:
    virtual ~RulePlane() = default;

    // A rule that is not there yet; 'entry_id' is not 0, and a smaller one goes first. Its count starts at 0. 0, or a
    // refusal (chip.h), which leaves everything as it was.
    virtual int add(uint32_t entry_id, const Description &description) = 0;
    // One that is there.
    virtual void remove(uint32_t entry_id) = 0;
    // Frames that one that is there has matched.
    virtual uint64_t packets(uint32_t entry_id) const = 0;
};

}  // namespace card
