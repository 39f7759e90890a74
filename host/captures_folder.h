// captures_folder.h: where capture files go, and how much may lie there.
//
// Owns the folder of --captures: writes capture files under the module's file names, refuses what would pass the quota,
// and never replaces a capture of this run by a different one (the second gets "-2" before ".cap").
// Used by: main, the console. Uses: module_tables, problems. Thread: any; a lock of its own.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "flow_account.h"
#include "problems.h"

namespace host {

// The module's name for the capture of a received flow (source type 0) or of one of its sources.
std::string capture_name(const Subject &subject);

// An automatic capture that the module holds now.
struct HeldCapture {
    std::string name;
    uint32_t bytes;
};
std::vector<HeldCapture> held_captures(FlowAccount &account);

class CapturesFolder {
public:
    // Makes the folder when there is none. 'quota' in bytes, for all files in it.
    bool open(const std::string &path, uint64_t quota, Problems &problems);

    bool is_open() const { return problems_ != nullptr; }
    const std::string &path() const { return path_; }

    // False when the file is not written; the reason is reported.
    bool write(const std::string &name, const void *data, uint32_t len);

    // Every automatic capture that the module holds now.
    void write_all(FlowAccount &account);
    // The one of which the module has logged that it is full: it may be gone before the end.
    void write_full(const std::string &message);

    uint32_t files_written() const { return static_cast<uint32_t>(written_.size()); }

private:
    bool store(const std::string &name, const std::string &content);

    std::mutex mutex_;
    std::string path_;
    uint64_t quota_ = 0;
    uint64_t held_ = 0;  // bytes in the folder
    Problems *problems_ = nullptr;
    std::map<std::string, std::string> written_;  // content by name
};

// Writes 'data' into a file of its own; the reason of a failure through 'error'.
bool write_file(const std::string &path, const void *data, size_t len, std::string &error);

}  // namespace host
