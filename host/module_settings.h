// SPDX-License-Identifier: Apache-2.0
// module_settings.h: what the module has been told: periods, limits, reactions.
//
// Read back from the module's own dumps, so that whoever set it does not matter. Used by: replay_command, verdict,
// tune. Uses: the console's dumps as data. Thread: the driving one.
#pragma once

#include <array>
#include <cstdint>

#include "anti_cpu/types.h"
#include "traffic/account.h"

namespace host {

// Of one protocol; limits in packets a second.
struct ProtocolSettings {
    uint32_t fast_limit = 0;
    uint32_t long_limit = 0;
    uint32_t source_fast_limit = 0;
    uint32_t source_long_limit = 0;
    bool denies = false;  // in software
    bool denies_source = false;
    bool hw_denies = false;
    bool hw_denies_source = false;
};

struct ModuleSettings {
    bool enabled = false;
    uint32_t fast_period_s = 0;
    uint32_t long_period_s = 0;
    std::array<ProtocolSettings, ATC_PROTOCOL_COUNT + 1> protocols;  // slot 0 is not used
};

ModuleSettings module_settings();

// What the traffic is held against. Packets of no class count as those of the class of unknown packets.
FastLimits fast_limits(const ModuleSettings &settings);

}  // namespace host
