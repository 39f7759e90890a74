// SPDX-License-Identifier: Apache-2.0
// live_main.h: the command lines of `run` and `console`.
//
// Used by: main. Uses: live_options.
#pragma once

#include <CLI/CLI.hpp>

#include "live/live_options.h"

namespace host {

CLI::App *add_run(CLI::App &app, LiveOptions &options);
CLI::App *add_console(CLI::App &app, ConsoleOptions &options);

}  // namespace host
