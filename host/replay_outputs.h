// SPDX-License-Identifier: Apache-2.0
// replay_outputs.h: the files that a replay writes beside what it prints: events, rates, the report.
//
// Used by: replay_command. Uses: outputs, rate_file, html_report. Thread: the driving one.
#pragma once

#include <optional>

#include "events/outputs.h"
#include "options.h"
#include "page/html_report.h"
#include "problems.h"
#include "replay.h"
#include "timeline/rate_file.h"
#include "verdict/verdict.h"

namespace host {

class ReplayOutputs {
public:
    // False when one of them cannot be opened; the reason has been reported.
    bool open(const ReplayOptions &options, Problems &problems);

    // Whether one of them needs the account of the traffic.
    bool counts_traffic() const { return rates_ || report_; }

    // From now on: before Replay::start, and behind it.
    void follow(Journal &journal);
    void follow(Replay &replay, TrafficAccount &account, const ModuleSettings &settings);

    // At the end. Says what could not be written.
    void write_report(const ReplayOptions &options, const Replay &replay, const TrafficAccount &account,
                      const Verdict &verdict, Problems &problems);
    void close(const ReplayOptions &options, Problems &problems);

private:
    EventOutputs events_{Delivery::kWhole};
    std::optional<RateFile> rates_;
    std::optional<HtmlReport> report_;
};

}  // namespace host
