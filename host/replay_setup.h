// SPDX-License-Identifier: Apache-2.0
// replay_setup.h: what every replay does with its options: captures opened, settings made, packets to the end.
//
// Used by: replay_command, trial. Uses: replay, the console. Thread: the driving one.
#pragma once

#include "console/console.h"
#include "options.h"
#include "problems.h"
#include "replay.h"

namespace host {

// Opens the files, each with its port. False when none can be read; why has been reported.
bool open_captures(const ReplayOptions &options, CaptureSet &captures, Problems &problems);

// What options say of periods, the chip and memory. Behind Replay::start.
void apply_settings(const ReplayOptions &options, Replay &replay);

// The operator's settings, before the first packet: those of the file, then the lines of the command line.
console::Status run_settings(const ReplayOptions &options, console::Console &console);

// The operator's lines behind the last packet.
console::Status run_then_lines(const ReplayOptions &options, console::Console &console);

// The packets, and what time shall run on behind them.
void run_to_the_end(const ReplayOptions &options, Replay &replay);

}  // namespace host
