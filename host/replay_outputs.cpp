// SPDX-License-Identifier: Apache-2.0
#include "replay_outputs.h"

namespace host {

bool ReplayOutputs::open(const ReplayOptions &options, Problems &problems) {
    std::string error;
    const auto refused = [&](const std::string &where, const char *what) {
        problems.report(where, "write", what + error);
        return false;
    };
    if (!events_.open(options.events_file, options.syslog, problems)) {
        return false;
    }
    if (!options.rates_file.empty() && !rates_.emplace().open(options.rates_file, options.interval_s, error)) {
        return refused(options.rates_file, "cannot be written: ");
    }
    if (!options.report_file.empty() && !report_.emplace().open(options.report_file, error)) {
        return refused(options.report_file, "cannot be written: ");
    }
    return true;
}

void ReplayOutputs::follow(Journal &journal) {
    events_.follow(journal);
}

void ReplayOutputs::follow(Replay &replay, TrafficAccount &account, const ModuleSettings &settings) {
    if (rates_) {
        rates_->follow(account);
    }
    if (report_) {
        report_->follow(replay, account, settings);
    }
}

void ReplayOutputs::write_report(const ReplayOptions &options, const Replay &replay, const TrafficAccount &account,
                                 const Verdict &verdict, Problems &problems) {
    if (report_ && !report_->write(replay, account, verdict, options.files)) {
        problems.report(options.report_file, "write", "not all of the report could be written");
    }
}

void ReplayOutputs::close(const ReplayOptions &options, Problems &problems) {
    events_.close(problems);
    if (rates_ && !rates_->close()) {
        problems.report(options.rates_file, "rates", "not all rates could be written");
    }
}

}  // namespace host
