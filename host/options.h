// SPDX-License-Identifier: Apache-2.0
// options.h: what the command line asks for.
//
// Used by: main (fills it), replay_command. Units in the names.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "addresses.h"

namespace host {

constexpr uint64_t kBytesPerMegabyte = 1'000'000;

struct ReplayOptions {
    std::vector<std::string> command;  // the command line as it was given
    std::vector<std::string> files;
    std::vector<uint32_t> ports{1};  // of the files, one each; the last one also of all further files
    uint32_t vlan = 1;
    std::string own_mac;  // empty = none
    std::optional<uint32_t> fast_period_s;
    std::optional<uint32_t> long_period_s;
    std::optional<uint32_t> drain_s;  // not set: to the end of the running fast period
    std::string log_file;
    std::string events_file;  // "-" = standard output, and nothing else there
    std::string syslog;       // path or server
    std::string rates_file;
    uint32_t interval_s = 1;  // of the rates
    std::string report_file;
    std::string config_file;
    std::vector<std::string> lines;       // operator lines, after those of the file
    std::vector<std::string> what_if;     // the same, after these, in the second of two replays
    std::vector<std::string> then_lines;  // behind the last packet
    std::string captures_folder;
    uint64_t captures_quota_mb = 100;
    std::optional<uint32_t> chip_rules;
    std::optional<uint32_t> memory_budget_mb;
    std::vector<std::string> until;  // times at which the operator gets the terminal
    std::string script_file;
    bool interactive = false;
    bool quiet = false;
    bool all = false;
    bool json = false;
};

// Exit statuses.
constexpr int kExitGood = 0;
constexpr int kExitRefused = 1;   // something was refused, cut or failed
constexpr int kExitUsage = 2;     // a wrong command line, settings line or script line
constexpr int kExitSignal = 128;  // and the signal's number, as a shell has it

}  // namespace host
