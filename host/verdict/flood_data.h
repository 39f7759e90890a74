// SPDX-License-Identifier: Apache-2.0
// flood_data.h: a flood as data, numbers as numbers.
//
// Used by: verdict. Pure.
#pragma once

#include "json_writer.h"
#include "verdict/floods.h"

namespace host {

Json flood_json(const Flood &flood);

}  // namespace host
