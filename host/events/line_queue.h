// SPDX-License-Identifier: Apache-2.0
// line_queue.h: lines on their way to a reader that may be slow: whoever adds one never waits.
//
// A thread of its own hands them over, in their order. What finds no room, or is not taken, is lost and counted; where
// it is missing the reader gets a line that tells how many, as soon as it reads again. Used by: event_file, syslog,
// queued_file. Threads: any adds; the queue's own writes. Lock: one around the lines, never held while writing.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace host {

// Whether a writer shall go on waiting for its reader.
using GoesOn = std::function<bool()>;

// What became of lines.
struct LineCounts {
    uint64_t written = 0;
    uint64_t waiting = 0;
    uint64_t lost = 0;
};

class LineQueue {
public:
    // Of lines that wait: the alarms that one pass raises while thousands of senders flood, several times.
    static constexpr size_t kBytesAtMost = size_t{16} << 20;
    static constexpr std::chrono::milliseconds kPatience{1000};

    // Waits until the line is taken whole; false: it is not taken.
    using Write = std::function<bool(const std::string &line, const GoesOn &goes_on)>;
    // The line that tells of so many lost ones.
    using Gap = std::function<std::string(uint64_t lost)>;

    LineQueue(Write write, Gap gap, size_t bytes_at_most = kBytesAtMost);
    ~LineQueue();
    LineQueue(const LineQueue &) = delete;
    LineQueue &operator=(const LineQueue &) = delete;

    void add(std::string line);

    // Waits for those that wait, at most 'patience'; what is left then is lost. Nothing is taken afterwards.
    void close(std::chrono::milliseconds patience = kPatience);

    LineCounts counts() const;

private:
    struct Line {
        std::string text;
        uint64_t lost_before;
    };
    void run();
    bool write(const std::string &text);
    // With the lock taken, and given back while it writes.
    void write_first(std::unique_lock<std::mutex> &lock);
    void write_gap(std::unique_lock<std::mutex> &lock);

    Write write_;
    Gap gap_;
    size_t bytes_at_most_;
    mutable std::mutex mutex_;
    std::condition_variable news_;
    std::deque<Line> lines_;
    size_t bytes_ = 0;          // of lines_
    uint64_t lost_before_ = 0;  // in front of the first line, not told yet
    uint64_t lost_behind_ = 0;  // behind the last one
    uint64_t written_ = 0;
    uint64_t lost_ = 0;
    bool is_closing_ = false;
    bool is_given_up_ = false;  // waits for no reader any more
    std::thread thread_;
};

}  // namespace host
