// SPDX-License-Identifier: Apache-2.0
// queued_file.h: a stream of stdio whose lines nobody waits for: a terminal or a log that may be slow.
//
// Used by: live_command. Uses: file_sink, line_queue. Thread: as stdio.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "events/delivery.h"
#include "events/file_sink.h"

namespace host {

class QueuedFile {
public:
    QueuedFile() = default;
    ~QueuedFile();
    QueuedFile(const QueuedFile &) = delete;
    QueuedFile &operator=(const QueuedFile &) = delete;

    // Behind what the file holds. False, with the reason in errno.
    bool open(const std::string &path);
    // Takes an open one.
    bool take(int fd);

    // Null before it is open.
    std::FILE *stream() const { return stream_; }
    void reopen() { sink_.reopen(); }
    // Hands over what waits, for a moment; what is printed afterwards is lost.
    void close();
    LineCounts counts() const { return queue_ ? queue_->counts() : LineCounts{}; }

private:
    bool begin();

    FileSink sink_;
    std::unique_ptr<LineQueue> queue_;
    std::FILE *stream_ = nullptr;
};

}  // namespace host
