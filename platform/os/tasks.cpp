// SPDX-License-Identifier: Apache-2.0
// tasks.cpp: the tasks of platform.h as POSIX threads, and their delays.
//
// Called by the module (its monitor task) and by services/ (the trunk service's thread). Uses the clock, which counts
// every thread started here into a simulation from its start. Threads are detached: tasks run for the life of the
// process. No lock.
#include <pthread.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <string>
#include <utility>

#include "anti_cpu/platform.h"
#include "clock/clock.h"
#include "os/mutex.h"
#include "os/os.h"

namespace {

using card::Clock;

// A transfer runs on the task that asks for it, and name resolution and TLS need far more stack than a task that only
// counts. Only pages that are used cost memory.
constexpr size_t kLeastStack = 1024 * 1024;
constexpr size_t kStackStep = 64 * 1024;  // no machine has larger pages
constexpr size_t kNameLength = 15;        // the kernel's limit

struct Start {
    std::string name;
    std::function<void()> run;
    bool counted;  // what thread_starts() returned
};

void *run_thread(void *argument) {
    const std::unique_ptr<Start> start(static_cast<Start *>(argument));
    Clock::instance().thread_runs(start->counted);
    pthread_setname_np(pthread_self(), start->name.c_str());
    start->run();
    return nullptr;
}

}  // namespace

int bep_taskDelayEx(uint32_t ticks) {
    if (ticks == 0) {
        card::Mutex::let_others_in();
        return 0;
    }
    Clock::instance().sleep_for(static_cast<int64_t>(ticks) * (card::kNanosecondsPerSecond / card::kTicksPerSecond));
    return 0;
}

uint32_t bep_sysClkRateGetEx(void) {
    return card::kTicksPerSecond;
}

// Priorities and options are another system's; the kernel shares the processors among our threads as it sees fit.
int norv_task_spawn(const char *name, int, int, uint32_t stack_size, int (*entry)(void), uintptr_t, uintptr_t,
                    uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
    if (entry == nullptr) {
        return -1;
    }
    return card::start_thread(name == nullptr ? "task" : name, stack_size, [entry] { entry(); }) ? 0 : -1;
}

bool card::start_thread(const char *name, size_t stack_size, std::function<void()> run) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    const size_t least = std::max<size_t>(kLeastStack, static_cast<size_t>(PTHREAD_STACK_MIN));
    const size_t stack = (std::max(stack_size, least) + kStackStep - 1) / kStackStep * kStackStep;
    pthread_attr_setstacksize(&attributes, stack);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);

    Clock &clock = Clock::instance();
    auto start =
        std::make_unique<Start>(Start{std::string(name).substr(0, kNameLength), std::move(run), clock.thread_starts()});
    const bool counted = start->counted;
    pthread_t thread;
    const bool started = pthread_create(&thread, &attributes, run_thread, start.get()) == 0;
    pthread_attr_destroy(&attributes);
    if (!started) {
        clock.thread_failed(counted);
        return false;
    }
    static_cast<void>(start.release());  // the thread's now
    clock.settle();
    return true;
}
