// SPDX-License-Identifier: Apache-2.0
// dump_data.h: the module's console dumps as data.
//
// What the module tells of its settings, filters and trunks it prints; this reads those lines back. Used by:
// commands_show. Uses: module_text. Thread: the driving one.
#pragma once

#include <string>
#include <vector>

#include "json_writer.h"

namespace host::console {

Json filters_json();
// One object a protocol, in order of ids.
Json limits_json();
Json settings_json();
Json trunks_json();
Json port_map_json(int32_t highest);

// The module's dump of its settings; "***" stands for a password.
std::string settings_text();

}  // namespace host::console
