// SPDX-License-Identifier: Apache-2.0
// command_rows.h: the parts of the command table, by subject; command.cpp puts them together.
#pragma once

#include <vector>

#include "console/command.h"

namespace host::console {

std::vector<Command> show_rows();
std::vector<Command> statistic_rows();  // show statistic, show sources
std::vector<Command> clear_rows();
std::vector<Command> set_rows();
std::vector<Command> filter_rows();    // filter, hw-filter
std::vector<Command> diagnose_rows();  // debug, capture
std::vector<Command> upload_rows();
std::vector<Command> card_rows();     // trunk
std::vector<Command> session_rows();  // run, help, quit

// A flow and one of its sources, as patterns of several rows name them. Read with the two functions below.
#define ATC_FLOW "<direction> [vlan] <vlan> [port] <port> <protocol>"
#define ATC_FLOW_SOURCE ATC_FLOW " [source <address>]"

struct FlowName {
    uint32_t direction;
    uint32_t vlan;
    uint32_t port;
    uint32_t protocol;
    Source source;  // type 0: the flow itself

    const void *address() const { return source.address(); }
    Subject subject() const { return {{port, vlan, protocol}, source}; }
};
FlowName flow_name(const Arguments &arguments);

}  // namespace host::console
