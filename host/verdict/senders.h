// SPDX-License-Identifier: Apache-2.0
// senders.h: from whom a flood came, in words.
//
// Used by: verdict, advice. Pure.
#pragma once

#include <string>

#include "verdict/floods.h"

namespace host {

// "02:00:00:00:02:0b 80 %, 17 more", "600 addresses, none over 1 %, via 02:00:00:00:00:fe".
std::string senders_text(const Flood &flood);

// Whether the senders that pass a source's limit are most of the flood and have addresses to tell them by.
bool has_loud_senders(const Flood &flood);

// 0.0.0.0 and ::, which stations send from that have no address yet.
bool is_unspecified(const Source &source);

}  // namespace host
