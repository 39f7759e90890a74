// SPDX-License-Identifier: Apache-2.0
// event_file.h: the journal as lines of JSON, each written out as it happens.
//
// Used by: outputs. Uses: event_json, file_sink, line_queue. Thread: the driving one.
#pragma once

#include <memory>
#include <string>

#include "events/delivery.h"
#include "events/file_sink.h"
#include "events/journal.h"

namespace host {

class EventFile {
public:
    // Writes to 'path', or to standard output when that is "-": whatever else the process prints there goes to standard
    // error from then on. The file is emptied, or where nobody waits, as a process does that comes and goes, appended
    // to. False with the reason in 'error'.
    bool open(const std::string &path, Delivery delivery, std::string &error);

    void take(const JournalEntry &entry);

    void reopen() { sink_.reopen(); }
    // Hands over what waits, for a moment. Nothing is taken afterwards.
    void close();

    LineCounts counts() const;

private:
    FileSink sink_;
    LineCounts counts_;  // without a queue
    std::unique_ptr<LineQueue> queue_;
};

}  // namespace host
