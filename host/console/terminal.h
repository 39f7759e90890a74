// SPDX-License-Identifier: Apache-2.0
// terminal.h: lines typed by an operator, with history and completion.
//
// On the system's time, whatever time a replay has. Ctrl-C gives up the line that was begun; a signal that ends the
// process ends the terminal. Used by: console, console_command. Uses: readline, grammar. Thread: one.
#pragma once

#include <optional>
#include <string>

#include "console/grammar.h"

namespace host::console {

class Terminal {
public:
    // Completes by 'grammar', which outlives this.
    explicit Terminal(const Grammar &grammar) : grammar_(grammar) {}

    // The next line; none at the end of input.
    std::optional<std::string> read_line();

private:
    const Grammar &grammar_;
};

}  // namespace host::console
