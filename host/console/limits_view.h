// SPDX-License-Identifier: Apache-2.0
// limits_view.h: the limits and reactions of the protocols, with what differs from the defaults marked.
//
// Used by: commands_show. Uses: dump_data. Thread: the driving one.
#pragma once

#include <cstdint>

#include "module_settings.h"

namespace host::console {

// Of one protocol or (0) of all.
void print_limits(uint32_t protocol, const ModuleSettings &defaults);

}  // namespace host::console
