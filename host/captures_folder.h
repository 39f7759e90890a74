// SPDX-License-Identifier: Apache-2.0
// captures_folder.h: where capture files go, and how much may lie there.
//
// Owns the folder of --captures: writes capture files under the module's file names, each whole or not at all, and
// refuses what would pass the quota. A file of an earlier run is replaced by one of its name; of two captures of this
// run with the same name the second gets "-2" before ".cap". Used by: capture_keeper, main. Uses: whole_file, problems.
// Thread: the driving one.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "problems.h"

namespace host {

class CapturesFolder {
public:
    // Makes the folder when there is none. 'quota' in bytes, for all files in it.
    bool open(const std::string &path, uint64_t quota, Problems &problems);

    bool is_open() const { return problems_ != nullptr; }

    // Called with the path and the size of each file that has been written.
    void set_written(std::function<void(const std::string &path, uint64_t bytes)> written) {
        told_ = std::move(written);
    }

    // Of each capture once. False when the file is not written; the reason is reported.
    bool write(const std::string &name, std::string_view content);

private:
    std::string path_;
    uint64_t quota_ = 0;
    uint64_t held_ = 0;  // bytes in the folder
    Problems *problems_ = nullptr;
    std::set<std::string> written_;  // names of this run
    std::function<void(const std::string &, uint64_t)> told_;
};

}  // namespace host
