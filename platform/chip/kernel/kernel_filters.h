// SPDX-License-Identifier: Apache-2.0
// kernel_filters.h: the operator's permit and deny rules as the kernel's program searches them.
//
// Grouped by their masks as chip rules are. Rules that ask for the same come to one entry, which knows from which
// length on a frame is permitted or denied. Used by: guard (owns it). Uses: a map of the program. Thread: one.
#pragma once

#include <map>
#include <vector>

#include "chip/kernel/mask_slots.h"
#include "chip/kernel/record.h"

namespace card {

// One rule. Presence bits are set where the value is not zero, since a field that a frame does not have is zero to the
// module.
struct KernelFilter {
    kernel_key value{};  // under the mask
    kernel_key mask{};
    uint32_t port = 0;  // logical; 0 = any
    bool permits = false;
    uint32_t from = 0;  // bytes of the shortest frame that matches
};

class KernelFilters {
public:
    KernelFilters(int map, const MaskSlots::Shared &slots) : map_(map), slots_(slots) {}

    // These rules, in place of those before. Returns how many entries found no room.
    size_t set(const std::vector<KernelFilter> &filters);

private:
    struct Place {
        kernel_key mask;
        kernel_rule_key key;  // but for the slot
    };
    struct PlaceLess {
        bool operator()(const Place &a, const Place &b) const;
    };
    struct Held {
        uint32_t slot;
        kernel_filter value;
    };

    bool write(const Place &place, const kernel_filter &value);

    int map_;
    MaskSlots slots_;
    std::map<Place, Held, PlaceLess> held_;
};

}  // namespace card
