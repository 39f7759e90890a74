// SPDX-License-Identifier: Apache-2.0
// outputs.h: where events go as data: a file, a syslog server, both, or neither.
//
// Used by: replay_outputs, live_command. Uses: event_file, syslog. Thread: the driving one.
#pragma once

#include <optional>
#include <string>

#include "events/event_file.h"
#include "events/syslog.h"
#include "problems.h"

namespace host {

class EventOutputs {
public:
    // Empty names are none. False when one of them cannot be opened; the reason has been reported.
    bool open(const std::string &file, const std::string &syslog, Problems &problems);
    void follow(Journal &journal);
    // Reports what has been lost.
    void close(Problems &problems) const;

private:
    std::string file_name_;
    std::string syslog_name_;
    std::optional<EventFile> file_;
    std::optional<Syslog> syslog_;
};

}  // namespace host
