// SPDX-License-Identifier: Apache-2.0
// recent_peak.h: the greatest of the values of the last minute or two, for whoever looks only now and then.
//
// Used by: live_card. Pure. Thread: any, one at a time.
#pragma once

#include <algorithm>
#include <cstdint>

namespace host {

class RecentPeak {
public:
    void note(uint64_t value, int64_t now_ns) {
        turn(now_ns);
        this_ = std::max(this_, value);
    }
    uint64_t value(int64_t now_ns) {
        turn(now_ns);
        return std::max(this_, before_);
    }

private:
    static constexpr int64_t kSpanNs = 60'000'000'000;

    void turn(int64_t now_ns) {
        if (now_ns < next_ns_) {
            return;
        }
        before_ = now_ns < next_ns_ + kSpanNs ? this_ : 0;
        this_ = 0;
        next_ns_ = now_ns + kSpanNs;
    }

    int64_t next_ns_ = 0;
    uint64_t this_ = 0;
    uint64_t before_ = 0;
};

}  // namespace host
