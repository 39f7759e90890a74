// SPDX-License-Identifier: Apache-2.0
// card.h: the process around the module that is measured: the card of platform/, silent, on a clock that stands still.
//
// Used by every benchmark. The module's time does not move, so no period ends and no task runs while something is
// measured; the monitor task is alive and waits, so the mutex pays the atomics of a process with threads. The
// calling thread keeps the system's clocks, to measure with.
#pragma once

namespace bench {

// Starts card and module. Once, on the main thread, before anything else.
void start_module();

}  // namespace bench
