// SPDX-License-Identifier: Apache-2.0
// replay_command.h: the command "anti-cpu replay": files in, reports out.
//
// Used by: main. Uses: everything of the host. Thread: the process's first, which drives the clock.
#pragma once

#include "options.h"

namespace host {

// Returns the exit status.
int replay_command(const ReplayOptions &options);

}  // namespace host
