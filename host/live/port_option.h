// SPDX-License-Identifier: Apache-2.0
// port_option.h: what `--port` names.
//
// Used by: live_command. Pure, but for messages on standard error.
#pragma once

#include <set>
#include <string>

#include "ports/live_ports.h"

namespace host {

// IFACE[=PORT[:VLAN]]; the port is the next free number, the VLAN 1, unless they are named. False: it is none of that,
// or its number is 'taken'; the reason has been told.
bool read_port(const std::string &text, std::set<uint32_t> &taken, card::PortSpec &spec);

}  // namespace host
