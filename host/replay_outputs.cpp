// SPDX-License-Identifier: Apache-2.0
#include "replay_outputs.h"

namespace host {

bool ReplayOutputs::open(const ReplayOptions &options, Problems &problems) {
    std::string error;
    const auto refused = [&](const std::string &where, const char *what) {
        problems.report(where, "write", what + error);
        return false;
    };
    if (!options.events_file.empty() && !events_.emplace().open(options.events_file, error)) {
        return refused(options.events_file, "cannot be written: ");
    }
    if (!options.syslog.empty() && !syslog_.emplace().open(options.syslog, error)) {
        return refused(options.syslog, "takes no syslog messages: ");
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
    if (events_) {
        events_->follow(journal);
    }
    if (syslog_) {
        syslog_->follow(journal);
    }
}

void ReplayOutputs::follow(Replay &replay, TrafficAccount &account) {
    if (rates_) {
        rates_->follow(account);
    }
    if (report_) {
        report_->follow(replay, account);
    }
}

void ReplayOutputs::write_report(const ReplayOptions &options, const Replay &replay, const TrafficAccount &account,
                                 const Verdict &verdict, Problems &problems) {
    if (report_ && !report_->write(replay, account, verdict, options.files)) {
        problems.report(options.report_file, "write", "not all of the report could be written");
    }
}

void ReplayOutputs::close(const ReplayOptions &options, Problems &problems) {
    if (events_ && !events_->is_whole()) {
        problems.report(options.events_file, "events", "not all events could be written");
    }
    if (syslog_ && syslog_->lost() > 0) {
        problems.report(options.syslog, "syslog", std::to_string(syslog_->lost()) + " messages were not taken");
    }
    if (rates_ && !rates_->close()) {
        problems.report(options.rates_file, "rates", "not all rates could be written");
    }
}

}  // namespace host
