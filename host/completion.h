// SPDX-License-Identifier: Apache-2.0
// completion.h: completion of the command line in bash, drawn from the tables of options and of operator's lines.
//
// Used by: main. Uses: CLI11's table, the console's grammar. Pure.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace host {

// The type name of options that take an operator's line.
constexpr const char *kLineType = "LINE";

// The script; it asks the program ("completion line") for what may follow in an operator's line.
std::string bash_completion(const CLI::App &app);

// The lines that 'line' may become by its last word, one behind the other, each with a line end.
std::string completed_lines(const std::string &line);

}  // namespace host
