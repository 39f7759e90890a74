// SPDX-License-Identifier: Apache-2.0
// terminal.h: lines typed by an operator, with history and completion.
//
// Ctrl-C gives up the line that was begun; a signal that ends the process ends the terminal. Used by: console_command.
// Uses: readline, the grammar of all lines. Thread: one.
#pragma once

#include <optional>
#include <string>

#include "console/grammar.h"

namespace host::console {

class Terminal {
public:
    Terminal();

    // The next line; none at the end of input.
    std::optional<std::string> read_line();

private:
    Grammar grammar_;
};

}  // namespace host::console
