// SPDX-License-Identifier: Apache-2.0
// problems.h: what could not be read or written, said once and counted.
//
// Every part of the host that meets something it cannot take or leave says so here; the exit status of the process
// follows from the count. Messages go to standard error at once. A kind of problem that repeats in one file is shown a
// few times and then counted only, so that a broken capture of a million packets does not bury its report. Used by:
// capture_reader, captures_folder, main. Thread: the driving one only.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

namespace host {

class Problems {
public:
    static constexpr uint64_t shown_per_kind = 5;

    enum class Tell {
        kAtOnce,
        kNot  // count only: another replay of the same file has told
    };
    explicit Problems(Tell tell = Tell::kAtOnce) : tell_(tell) {}

    // 'where' names the file, 'kind' is what repeats, 'text' the whole message behind "where: ".
    void report(const std::string &where, const std::string &kind, const std::string &text);

    // Writes out what 'file' holds back. A problem when anything written to it up to now is lost.
    void check_written(std::FILE *file, const std::string &name);

    // Says how many messages were kept back. Once, when reading is over.
    void close();

    uint64_t count() const { return count_; }

private:
    std::map<std::string, uint64_t> seen_;  // by "where: kind"
    uint64_t count_ = 0;
    Tell tell_;
};

}  // namespace host
