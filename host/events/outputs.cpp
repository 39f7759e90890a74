// SPDX-License-Identifier: Apache-2.0
#include "events/outputs.h"

namespace host {

bool EventOutputs::open(const std::string &file, const std::string &syslog, Problems &problems) {
    std::string error;
    file_name_ = file;
    syslog_name_ = syslog;
    if (!file.empty() && !file_.emplace().open(file, delivery_, error)) {
        problems.report(file, "write", "cannot be written: " + error);
        return false;
    }
    if (!syslog.empty() && !syslog_.emplace().open(syslog, delivery_, error)) {
        problems.report(syslog, "write", "takes no syslog messages: " + error);
        return false;
    }
    return true;
}

void EventOutputs::follow(Journal &journal) {
    if (file_) {
        journal.add_reader([this](const JournalEntry &entry) { file_->take(entry); });
    }
    if (syslog_) {
        journal.add_reader([this](const JournalEntry &entry) { syslog_->take(entry); });
    }
}

void EventOutputs::reopen() {
    if (file_) {
        file_->reopen();
    }
}

std::vector<OutputState> EventOutputs::states() const {
    std::vector<OutputState> states;
    if (file_) {
        states.push_back({"events", file_name_, file_->counts()});
    }
    if (syslog_) {
        states.push_back({"syslog", syslog_name_, syslog_->counts()});
    }
    return states;
}

void EventOutputs::close(Problems &problems) {
    if (file_) {
        file_->close();
    }
    if (syslog_) {
        syslog_->close();
    }
    for (const OutputState &state : states()) {
        if (state.counts.lost > 0) {
            const char *what = state.kind == "events" ? " events could not be written" : " messages were not taken";
            problems.report(state.name, state.kind, std::to_string(state.counts.lost) + what);
        }
    }
}

}  // namespace host
