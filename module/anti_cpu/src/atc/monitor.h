// SPDX-License-Identifier: Apache-2.0
// monitor.h: the monitor task "atc-mon", the module's only thread of its own.
//
// Waits at most a second for a message, handles it, then runs the timers that are due; so trunk changes and uploads
// happen here, and all periodic work. Lock: taken for the trunk changes and the timers, never while it waits or
// transfers a file.
#pragma once

#include "atc_lock/lock.h"

// The task's entry. Returns 0, and only when there is no queue.
int atc_task();

// Its two parts: arming the three period timers, and one turn of the loop.
void atc_task_start() ATC_EXCLUDES(g_atc_lock);
void atc_task_turn() ATC_EXCLUDES(g_atc_lock);
