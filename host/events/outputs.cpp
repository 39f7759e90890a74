// SPDX-License-Identifier: Apache-2.0
#include "events/outputs.h"

namespace host {

bool EventOutputs::open(const std::string &file, const std::string &syslog, Problems &problems) {
    std::string error;
    file_name_ = file;
    syslog_name_ = syslog;
    if (!file.empty() && !file_.emplace().open(file, error)) {
        problems.report(file, "write", "cannot be written: " + error);
        return false;
    }
    if (!syslog.empty() && !syslog_.emplace().open(syslog, error)) {
        problems.report(syslog, "write", "takes no syslog messages: " + error);
        return false;
    }
    return true;
}

void EventOutputs::follow(Journal &journal) {
    if (file_) {
        file_->follow(journal);
    }
    if (syslog_) {
        syslog_->follow(journal);
    }
}

void EventOutputs::close(Problems &problems) const {
    if (file_ && !file_->is_whole()) {
        problems.report(file_name_, "events", "not all events could be written");
    }
    if (syslog_ && syslog_->lost() > 0) {
        problems.report(syslog_name_, "syslog", std::to_string(syslog_->lost()) + " messages were not taken");
    }
}

}  // namespace host
