// SPDX-License-Identifier: Apache-2.0
// top_command.h: `anti-cpu top`: a running process at one glance, until the operator leaves.
//
// Used by: main. Uses: view, screen, snapshot.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "live/control.h"

namespace host {

struct TopOptions {
    std::string control = kDefaultControl;
    double interval_s = 2;
    bool is_once = false;
    std::string page = "floods";
    bool no_colours = false;
};

CLI::App *add_top(CLI::App &app, TopOptions &options);

int top_command(const TopOptions &options);

}  // namespace host
