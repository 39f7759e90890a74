// SPDX-License-Identifier: Apache-2.0
// log.h: lines of the card itself in the log that the module writes to.
//
// Inside platform/ only; used where the module is told no more than that something failed.
#pragma once

#include <string_view>

namespace card {

// Logs 'text' (no line end) at level 13. Any thread that is not in a log sink.
void log_note(std::string_view text);

}  // namespace card
