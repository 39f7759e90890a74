// SPDX-License-Identifier: Apache-2.0
// choice.h: the limit that good traffic keeps and a flood does not, or why there is none.
//
// Used by: tune. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tune/needs.h"

namespace host {

// Of one limit: that of a class's flows, or of its senders.
struct Evidence {
    uint32_t now = 0;           // limit in force, packets a second
    uint64_t good_packets = 0;  // of the class
    Peaks good;
    std::optional<Peaks> flood;  // the least of the captures' floods; none known: nothing
    uint32_t period_s = 0;
    double margin = 1;
};

struct Choice {
    uint32_t needed = 0;          // packets a second: below that good traffic would be over it
    std::optional<uint32_t> pps;  // never below 'needed'; nothing: good traffic and flood overlap
    std::string why;
};

Choice choose(const Evidence &evidence);

// Good traffic alone: what choose() gives without a flood.
uint32_t limit_for_good(Evidence evidence);

}  // namespace host
