// SPDX-License-Identifier: Apache-2.0
#include "tune/choice.h"

#include <algorithm>
#include <cmath>

#include "verdict/words.h"

namespace host {

namespace {

constexpr uint64_t kEnoughToLower = 100;  // good packets of a class; fewer say little of its busiest second

// A period may hold as many packets as the limit allows it; a rule of the chip comes with the last of these.
uint32_t needed_for(const Evidence &of) {
    return of.good.second == 0 ? 0 : std::max(of.good.second, of.good.period / of.period_s + 1);
}

Choice choice_for_good(const Evidence &of) {
    Choice choice{needed_for(of), 0, {}};
    const double wanted = std::ceil(of.margin * std::max(choice.needed, 1U));
    choice.pps = static_cast<uint32_t>(std::min(wanted, double{INT32_MAX}));
    if (of.good_packets < kEnoughToLower && *choice.pps < of.now) {
        choice.pps = of.now;
        choice.why = of.good_packets == 0 ? "no good packets: as it is"
                                          : "too few good packets (" + with_commas(of.good_packets) + ") to go lower";
    } else {
        choice.why = times_text(of.margin) + " x " + with_commas(choice.needed) +
                     (choice.needed > of.good.second ? ", the busiest good period" : ", the busiest good second");
    }
    return choice;
}

// Nothing between them: why, and whether another period would help.
std::string overlap_text(const Evidence &of, uint32_t needed, uint32_t caught) {
    const std::string flood = rate_text(of.flood->period, of.period_s) + " over " + std::to_string(of.period_s) + " s";
    std::string text = "good traffic has " + with_commas(needed) + " in a second, the flood " + flood;
    if (of.flood->second > needed) {
        text += " and " + with_commas(of.flood->second) + " in a second: a shorter --fast-period parts them";
    } else if (const uint32_t low = of.good.period / of.period_s + 1; low <= caught) {
        text += "; by the period alone " + with_commas(low) + (low < caught ? " to " + with_commas(caught) : "") +
                " would part them, with good seconds above it";
    } else {
        text += ": no limit parts them";
    }
    return text;
}

}  // namespace

Choice choose(const Evidence &of) {
    Choice choice = choice_for_good(of);
    if (!of.flood) {
        return choice;
    }
    // The greatest limit that such a flood is over.
    const uint32_t caught = of.flood->period == 0 ? 0 : (of.flood->period - 1) / of.period_s;
    const std::string flood = rate_text(of.flood->period, of.period_s);
    if (*choice.pps <= caught) {
        choice.why += "; the flood has " + flood;
        return choice;
    }
    const uint32_t low = std::max(choice.needed, 1U);
    if (low <= caught) {
        choice.pps =
            std::clamp(static_cast<uint32_t>(std::lround(std::sqrt(static_cast<double>(low) * caught))), low, caught);
        choice.why = "between the good " + with_commas(choice.needed) + " and the flood's " + flood;
        return choice;
    }
    choice.pps.reset();
    choice.why = overlap_text(of, choice.needed, caught);
    return choice;
}

uint32_t limit_for_good(Evidence evidence) {
    evidence.flood.reset();
    return choose(evidence).pps.value_or(0);
}

}  // namespace host
