// SPDX-License-Identifier: Apache-2.0
// mask_slots.h: the masks under which the kernel's program looks a frame up, one slot each.
//
// The program goes through the slots in front of the count. A slot's mask changes only while nothing is looked up in
// it. Used by: kernel_rules, kernel_filters. Uses: memory shared with the program. Threads: as whoever owns it says.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "chip/kernel/record.h"

namespace card {

struct RuleKeyLess {
    bool operator()(const kernel_rule_key &a, const kernel_rule_key &b) const {
        return std::memcmp(&a, &b, sizeof(a)) < 0;
    }
};

class MaskSlots {
public:
    struct Shared {
        kernel_key *masks;      // KERNEL_MASKS
        volatile __u32 *count;  // slots in use, all in front
    };
    explicit MaskSlots(const Shared &shared) : shared_(shared) {}

    // The slot of this mask, for one user more. False: all slots have other masks.
    bool take(const kernel_key &mask, uint32_t *slot);
    void give(uint32_t slot);

private:
    Shared shared_;
    std::array<uint32_t, KERNEL_MASKS> users_{};  // of each slot
};

}  // namespace card
