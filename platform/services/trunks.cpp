// SPDX-License-Identifier: Apache-2.0
// trunks.cpp: the trunk service: one thread that calls the registered handler for each membership change.
//
// The module registers its handler at start-up; the host reports changes through trunk_change, and each caller waits
// until its own change has been handled. Uses os/ for the thread and the clock for both waits, so that a simulation
// sees the hand-over. Changes are handled one at a time, in the order reported.
// Lock: one mutex around the pending changes, not held while the handler runs.
#include <atomic>
#include <deque>
#include <mutex>

#include "anti_cpu/platform.h"
#include "clock/clock.h"
#include "os/os.h"
#include "services/services.h"

namespace {

using card::Clock;
using Handler = int (*)(uint32_t unused, uint32_t trunk, uint32_t member, uint32_t op);

constexpr size_t kStackSize = 65536;
constexpr uint32_t kJoins = 1;
constexpr uint32_t kLeaves = 2;

// Lives on the stack of the thread that reports it, until 'handled'.
struct Change {
    uint32_t trunk;
    uint32_t member;
    uint32_t op;
    std::atomic<bool> handled = false;
};

struct Trunks {
    std::mutex mutex;
    std::deque<Change *> pending;            // under the mutex
    std::atomic<size_t> pending_count = 0;   // pending.size(), read without it
    std::atomic<Handler> handler = nullptr;  // the last one registered
    std::atomic<bool> running = false;       // the thread
};

// Never destroyed: the thread waits on it until the process has gone.
Trunks &the_trunks() {
    static Trunks &trunks = *new Trunks;
    return trunks;
}

[[noreturn]] void serve() {
    Trunks &trunks = the_trunks();
    Clock &clock = Clock::instance();
    for (;;) {
        clock.wait_for(-1, [&trunks] { return trunks.pending_count > 0; });
        Change *change = nullptr;
        {
            const std::lock_guard lock(trunks.mutex);
            change = trunks.pending.front();
            trunks.pending.pop_front();
            trunks.pending_count = trunks.pending.size();
        }
        trunks.handler.load()(0, change->trunk, change->member, change->op);
        change->handled = true;  // the reporting thread may go on, and the record with it
        clock.notify();
    }
}

}  // namespace

int hal_register_trunk_handler(int (*handler)(uint32_t unused, uint32_t trunk, uint32_t member, uint32_t op)) {
    if (handler == nullptr) {
        return -1;
    }
    Trunks &trunks = the_trunks();
    trunks.handler = handler;
    if (!trunks.running.exchange(true)) {
        trunks.running = card::start_thread("trunks", kStackSize, serve);
    }
    return trunks.running ? 0 : -1;
}

bool card::trunk_change(uint32_t trunk, uint32_t member, bool joins) {
    Trunks &trunks = the_trunks();
    if (!trunks.running) {
        return false;
    }
    Change change{trunk, member, joins ? kJoins : kLeaves};
    {
        const std::lock_guard lock(trunks.mutex);
        trunks.pending.push_back(&change);
        trunks.pending_count = trunks.pending.size();
    }
    Clock &clock = Clock::instance();
    clock.notify();
    clock.wait_for(-1, [&change] { return change.handled.load(); });
    return true;
}
