// SPDX-License-Identifier: Apache-2.0
// line_json.h: what became of an operator's line, as one line of JSON.
//
// Used by: console. Uses: caught_output. Thread: the driving one.
#pragma once

#include <string>

#include "console/caught_output.h"
#include "console/command.h"

namespace host::console {

// {"line": "show clock", "status": "done", "data": ...} onto standard output. 'output' is what the line printed: data
// when 'is_data', otherwise a text. 'error' says what is wrong with the line; what failed says so in 'output'.
void print_line_json(const std::string &line, Status status, const std::string &error, bool is_data,
                     CaughtOutput::File output);

}  // namespace host::console
