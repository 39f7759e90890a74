// SPDX-License-Identifier: Apache-2.0
// what_if.h: the captures once without some of an operator's lines, once with them, and the difference.
//
// Used by: main. Uses: trial, rule_words. Thread: the process's first; the module has not been started in this process.
#pragma once

#include "options.h"

namespace host {

// Returns the exit status.
int what_if_command(const ReplayOptions &options);

}  // namespace host
