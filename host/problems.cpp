#include "problems.h"

#include <cinttypes>
#include <cstdio>

namespace host {

void Problems::report(const std::string &where, const std::string &kind, const std::string &text) {
    count_++;
    uint64_t &seen = seen_[where + ": " + kind];
    seen++;
    if (seen <= shown_per_kind) {
        std::fprintf(stderr, "anti-cpu: %s: %s\n", where.c_str(), text.c_str());
    }
}

void Problems::close() {
    for (const auto &[what, seen] : seen_) {
        if (seen > shown_per_kind) {
            std::fprintf(stderr, "anti-cpu: %s: %" PRIu64 " times in all\n", what.c_str(), seen);
        }
    }
    seen_.clear();
}

}  // namespace host
