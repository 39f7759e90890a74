// SPDX-License-Identifier: Apache-2.0
#include "events/event_file.h"

#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <system_error>

#include "events/event_json.h"

namespace host {

namespace {

std::string line_of(const JournalEntry &entry) {
    return event_json(entry).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace

bool EventFile::open(const std::string &path, Delivery delivery, std::string &error) {
    bool is_open = false;
    if (path == "-") {
        const int fd = dup(STDOUT_FILENO);
        is_open = fd >= 0 && dup2(STDERR_FILENO, STDOUT_FILENO) >= 0;
        sink_.take(fd);
    } else {
        is_open = sink_.open(path, delivery == Delivery::kWhole ? FileSink::Start::kEmpty : FileSink::Start::kBehind);
    }
    if (!is_open) {
        error = std::generic_category().message(errno);
        return false;
    }
    if (delivery == Delivery::kNoWaiting) {
        queue_ = std::make_unique<LineQueue>(
            [this](const std::string &line, const GoesOn &goes_on) { return sink_.write(line, goes_on); },
            [](uint64_t lost) { return line_of(lost_entry(lost)); });
    }
    return true;
}

void EventFile::take(const JournalEntry &entry) {
    if (queue_) {
        queue_->add(line_of(entry));
    } else {
        (sink_.write(line_of(entry), [] { return true; }) ? counts_.written : counts_.lost)++;
    }
}

void EventFile::close() {
    if (queue_) {
        queue_->close();
    }
}

LineCounts EventFile::counts() const {
    return queue_ ? queue_->counts() : counts_;
}

}  // namespace host
