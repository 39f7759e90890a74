// SPDX-License-Identifier: Apache-2.0
// outputs.h: where events go as data: a file, a syslog server, both, or neither.
//
// Used by: replay_outputs, live_command. Uses: event_file, syslog. Thread: the driving one.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "events/event_file.h"
#include "events/syslog.h"
#include "problems.h"

namespace host {

class EventOutputs {
public:
    explicit EventOutputs(Delivery delivery) : delivery_(delivery) {}

    // Empty names are none. False when one of them cannot be opened; the reason has been reported.
    bool open(const std::string &file, const std::string &syslog, Problems &problems);
    // They read 'journal' from now on.
    void follow(Journal &journal);
    // The file is another one of the same name from now on.
    void reopen();
    std::vector<OutputState> states() const;
    // The end; reports what has been lost.
    void close(Problems &problems);

private:
    Delivery delivery_;
    std::string file_name_;
    std::string syslog_name_;
    std::optional<EventFile> file_;
    std::optional<Syslog> syslog_;
};

}  // namespace host
