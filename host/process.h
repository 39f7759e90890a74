// SPDX-License-Identifier: Apache-2.0
// process.h: what the process settles with the system before it does anything: signals and standard streams.
//
// SIGINT, SIGTERM and SIGHUP end a replay in order: the first one is kept until it has been seen to, packets and
// silence end where they are, and captures, log and report are finished. A second one ends the process at once. SIGPIPE
// is ignored, so that a reader that has gone shows as a failed write. Used by: main, replay_command, replay,
// capture_stream, the console. Any thread.
#pragma once

#include <atomic>

namespace host {

namespace detail {
extern std::atomic<int> kept_signal;
}  // namespace detail

// Once, first of all.
void prepare_process();

// The signal that ends the replay; 0 = none.
inline int kept_signal() {
    return detail::kept_signal.load(std::memory_order_relaxed);
}

// An operator's Ctrl-C ends what runs, not the replay: forgets a SIGINT. Returns whether there was one.
bool take_ctrl_c();

}  // namespace host
