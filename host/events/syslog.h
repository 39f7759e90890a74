// SPDX-License-Identifier: Apache-2.0
// syslog.h: the journal as messages of RFC 5424, with every field as structured data.
//
// They go out as datagrams: to a socket of this machine (a path), or over UDP (RFC 5426). syslog(3) writes a format
// that has no structured data. What is not taken is lost and counted. Used by: replay_command. Uses: event_json.
// Thread: the driving one.
#pragma once

#include <cstdint>
#include <string>

#include "events/journal.h"

namespace host {

class Syslog {
public:
    Syslog() = default;
    ~Syslog();
    Syslog(const Syslog &) = delete;
    Syslog &operator=(const Syslog &) = delete;

    // 'target': "/dev/log" or another path, "10.0.0.1", "logs.example:5514", "[2001:db8::1]:514". False with the reason
    // in 'error'.
    bool open(const std::string &target, std::string &error);

    // Reads 'journal' from now on.
    void follow(Journal &journal);

    uint64_t lost() const { return lost_; }

private:
    bool open_path(const std::string &path);
    bool open_host(const std::string &target, std::string &error);

    int socket_ = -1;
    uint64_t lost_ = 0;
};

// The message itself.
std::string syslog_message(const JournalEntry &entry, const std::string &host_name, int process_id);

}  // namespace host
