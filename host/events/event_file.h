// SPDX-License-Identifier: Apache-2.0
// event_file.h: the journal as lines of JSON, each written out as it happens.
//
// Used by: replay_command. Uses: event_json. Thread: the driving one.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "events/journal.h"

namespace host {

class EventFile {
public:
    // Writes to 'path', which is emptied, or to standard output when that is "-": whatever else the process prints
    // there goes to standard error from then on. False with the reason in 'error'.
    bool open(const std::string &path, std::string &error);

    // Reads 'journal' from now on.
    void follow(Journal &journal);

    // Whether every line has been taken.
    bool is_whole() const { return is_whole_; }

private:
    struct Closer {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Closer> file_;
    bool is_whole_ = true;
};

}  // namespace host
