// SPDX-License-Identifier: Apache-2.0
// file_sink.h: a file, FIFO or stream that lines are appended to, under its name even after somebody has renamed it.
//
// Used by: event_file, queued_file. Thread: one writes; any asks for reopen().
#pragma once

#include <atomic>
#include <string>

#include "events/line_queue.h"

namespace host {

class FileSink {
public:
    enum class Start {
        kEmpty,   // what the file held is gone
        kBehind,  // what it holds
    };

    FileSink() = default;
    ~FileSink();
    FileSink(const FileSink &) = delete;
    FileSink &operator=(const FileSink &) = delete;

    // False, with the reason in errno. Does not wait for a FIFO's reader.
    bool open(const std::string &path, Start start);
    // Takes an open one, which has no name.
    void take(int fd);

    // Waits for a slow reader as long as 'goes_on'. False: not all of it has been taken.
    bool write(const std::string &text, const GoesOn &goes_on);

    // Before the next line the file is opened anew, or made where there is none of this name.
    void reopen() { is_reopen_asked_ = true; }

private:
    bool has_moved() const;
    void open_anew();

    std::string path_;  // of a regular file; else empty
    int fd_ = -1;
    bool is_within_line_ = false;  // where a write has failed
    std::atomic<bool> is_reopen_asked_ = false;
};

}  // namespace host
