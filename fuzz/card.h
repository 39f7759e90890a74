// SPDX-License-Identifier: Apache-2.0
// card.h: the module on the card, for the targets that drive the host: started once in a process, as new for each
// input.
#pragma once

#include "capture_reader.h"
#include "event_log.h"
#include "replay.h"
#include "support.h"

// Discards all that the module and the chip hold, puts every setting back and checks that no block is left; then gives
// the clock back to the system, for libFuzzer's own times, until a Replay starts or use_simulated_time().
void end_input();
void use_simulated_time();
