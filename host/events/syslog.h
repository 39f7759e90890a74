// SPDX-License-Identifier: Apache-2.0
// syslog.h: the journal as messages of RFC 5424, with every field as structured data.
//
// They go out as datagrams: to a socket of this machine (a path), or over UDP (RFC 5426). syslog(3) writes a format
// that has no structured data. What is not taken is lost and counted. Used by: outputs. Uses: event_json, line_queue.
// Thread: the driving one; the queue's sends.
#pragma once

#include <memory>
#include <string>

#include "events/delivery.h"
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
    bool open(const std::string &target, Delivery delivery, std::string &error);

    void take(const JournalEntry &entry);

    // Hands over what waits, for a moment. Nothing is taken afterwards.
    void close();

    LineCounts counts() const;

private:
    bool connect(std::string &error);
    bool open_path(const std::string &path);
    bool open_host(const std::string &target, std::string &error);
    bool send_message(const std::string &message, const GoesOn &goes_on);
    std::string message_of(const JournalEntry &entry) const;

    std::string target_;
    std::string host_name_;
    int socket_ = -1;
    LineCounts counts_;  // without a queue
    std::unique_ptr<LineQueue> queue_;
};

// The message itself.
std::string syslog_message(const JournalEntry &entry, const std::string &host_name, int process_id);

}  // namespace host
