// SPDX-License-Identifier: Apache-2.0
// trial.h: a replay of which nothing but its figures is kept, in a process of its own.
//
// Used by: what_if, tune. Uses: child, replay_setup, verdict. Thread: the process's first; the module has not been
// started in this process.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>

#include "child.h"
#include "options.h"
#include "problems.h"
#include "verdict/verdict.h"

namespace host {

// What there is to ask behind the last packet.
struct TrialView {
    const Replay &replay;
    const TrafficAccount &account;
    const ModuleSettings &settings;
    const Verdict &verdict;
};

struct TrialResult {
    int status = 0;  // an exit status; the figures are there when it is kExitGood or kExitRefused
    Json figures;
    bool has_figures() const { return !figures.is_null(); }
};

// Replays the files of 'options' to their end with its settings, and gives what 'ask' makes of it. Only what is wrong
// with the settings, and (kAtOnce) with the captures, is told, on standard error.
TrialResult run_trial(const ReplayOptions &options, Problems::Tell tell,
                      const std::function<Json(const TrialView &)> &ask);

// Periods and limits of the module when the first packet of such a replay comes; nothing when a setting is wrong or
// refused. 'status' is an exit status.
std::optional<ModuleSettings> settings_of(const ReplayOptions &options, int &status);

}  // namespace host
