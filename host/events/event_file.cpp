// SPDX-License-Identifier: Apache-2.0
#include "events/event_file.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "events/event_json.h"

namespace host {

bool EventFile::open(const std::string &path, std::string &error) {
    if (path == "-") {
        const int fd = dup(STDOUT_FILENO);
        const bool is_ours = fd >= 0 && dup2(STDERR_FILENO, STDOUT_FILENO) >= 0;
        file_.reset(is_ours ? fdopen(fd, "w") : nullptr);
    } else {
        file_.reset(std::fopen(path.c_str(), "w"));
    }
    if (!file_) {
        error = std::generic_category().message(errno);
    }
    return file_ != nullptr;
}

void EventFile::follow(Journal &journal) {
    journal.add_reader([this](const JournalEntry &entry) {
        const std::string line =
            event_json(entry).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
        const bool is_written = std::fwrite(line.data(), 1, line.size(), file_.get()) == line.size();
        is_whole_ = is_whole_ && is_written && std::fflush(file_.get()) == 0;
    });
}

}  // namespace host
