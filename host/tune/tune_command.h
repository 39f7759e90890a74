// SPDX-License-Identifier: Apache-2.0
// tune_command.h: the command "anti-cpu tune": captures in, limits out.
//
// Used by: main. Uses: tuning, tune_report. Thread: the process's first.
#pragma once

#include "tune/tuning.h"

namespace host {

// Returns the exit status.
int tune_command(const TuneOptions &options);

}  // namespace host
