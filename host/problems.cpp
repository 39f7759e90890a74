// SPDX-License-Identifier: Apache-2.0
#include "problems.h"

#include <cerrno>
#include <cinttypes>
#include <system_error>

namespace host {

void Problems::report(const std::string &where, const std::string &kind, const std::string &text) {
    count_++;
    uint64_t &seen = seen_[where + ": " + kind];
    seen++;
    if (seen <= shown_per_kind && tell_ == Tell::kAtOnce) {
        std::fprintf(stderr, "anti-cpu: %s: %s\n", where.c_str(), text.c_str());
    }
}

void Problems::check_written(std::FILE *file, const std::string &name) {
    const bool was_lost = std::ferror(file) != 0;
    if (std::fflush(file) != 0) {
        report(name, "write", "cannot be written: " + std::generic_category().message(errno));
    } else if (was_lost) {
        report(name, "write", "cannot be written: a part is missing");
    }
}

void Problems::close() {
    for (const auto &[what, seen] : seen_) {
        if (seen > shown_per_kind && tell_ == Tell::kAtOnce) {
            std::fprintf(stderr, "anti-cpu: %s: %" PRIu64 " times in all\n", what.c_str(), seen);
        }
    }
    seen_.clear();
}

}  // namespace host
