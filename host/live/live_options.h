// SPDX-License-Identifier: Apache-2.0
// live_options.h: what the command lines of `run` and `console` ask for.
//
// Used by: live_main (fills them), live_command, console_command.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "live/control.h"

namespace host {

struct LiveOptions {
    std::vector<std::string> ports;  // IFACE[=PORT[:VLAN]]
    std::string config_file;
    std::vector<std::string> lines;
    bool generic = false;
    bool waits_for_ports = false;
    bool all = false;  // every frame is for this processor
    std::string captures_folder;
    uint64_t captures_quota_mb = 100;
    std::string log_file;
    std::string events_file;
    std::string syslog;
    std::string metrics;  // ADDRESS:PORT; empty = none
    std::string control = kDefaultControl;
    std::string operators;
    std::string observers;
    uint32_t stall_s = 3;
    std::optional<uint32_t> chip_rules;
    std::optional<uint32_t> memory_budget_mb;
};

struct ConsoleOptions {
    std::string control = kDefaultControl;
    std::vector<std::string> lines;
    bool json = false;
};

int live_command(const LiveOptions &options);
int console_command(const ConsoleOptions &options);

}  // namespace host
