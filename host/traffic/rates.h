// SPDX-License-Identifier: Apache-2.0
// rates.h: how many packets came within any one window of time, and for how long they were more than a limit.
//
// Time is cut into slices of a tenth of the window; a window is any ten slices in a row. So a burst counts whole,
// wherever it lies, and a steady rate shows as it is. Used by: account, tune. Pure.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

namespace host {

constexpr uint32_t kSlicesPerWindow = 10;

// The greatest number of packets in one window.
class SlidingCount {
public:
    // A packet in this slice (time / slice length; never goes back).
    void add(int64_t slice) {
        if (slice != last_) {
            advance(slice);
        }
        of(slice)++;
        sum_++;
        if (sum_ > peak_) {
            peak_ = sum_;
            peak_slice_ = slice;
        }
    }

    // Packets of the window that ends with the last packet, and of that packet's slice.
    uint32_t in_window() const { return sum_; }
    uint32_t in_slice() const { return counts_[place(last_)]; }
    // First slice of the window with more than a tenth of 'limit', and the packets from there on. The window has more
    // than 'limit'.
    int64_t first_slice_over(uint32_t limit, uint32_t &packets) const {
        packets = sum_;
        int64_t slice = last_ - (kSlicesPerWindow - 1);
        while (uint64_t{counts_[place(slice)]} * kSlicesPerWindow <= limit) {
            packets -= counts_[place(slice)];
            slice++;
        }
        return slice;
    }

    uint32_t peak() const { return peak_; }
    // First slice of the window that had it.
    int64_t peak_slice() const { return peak_slice_ - (kSlicesPerWindow - 1); }

private:
    void advance(int64_t slice) {
        if (last_ == kNever || slice - last_ >= int64_t{kSlicesPerWindow}) {
            counts_.fill(0);
            sum_ = 0;
        } else {
            while (last_ != slice) {
                sum_ -= of(++last_);
                of(last_) = 0;
            }
        }
        last_ = slice;
    }

    static size_t place(int64_t slice) { return static_cast<uint64_t>(slice) % kSlicesPerWindow; }
    uint32_t &of(int64_t slice) { return counts_[place(slice)]; }

    static constexpr int64_t kNever = INT64_MIN;

    std::array<uint32_t, kSlicesPerWindow> counts_{};
    uint32_t sum_ = 0;
    uint32_t peak_ = 0;
    int64_t last_ = kNever;
    int64_t peak_slice_ = 0;
};

// When packets were more than a limit a second, how many they were then, and for how long.
class OverLimit {
public:
    static constexpr int64_t kSecondNs = 1'000'000'000;
    static constexpr int64_t kSliceNs = kSecondNs / kSlicesPerWindow;

    // Every packet, behind its addition to 'second', which counts in slices of kSliceNs.
    void add(int64_t time_ns, const SlidingCount &second, uint32_t limit) {
        if (time_ns - last_ns_ >= kSecondNs) {
            run_ns_ = time_ns;
        }
        last_ns_ = time_ns;
        since_++;
        if (second.in_window() > limit) {
            over(time_ns, second, limit);
        }
    }

    // Those of every second that was over, the limit's own included.
    uint64_t packets() const { return packets_; }
    int64_t length_ns() const { return length_ns_; }
    // Within a tenth of a second, where other packets came just before.
    int64_t first_ns() const { return first_ns_; }
    int64_t last_ns() const { return until_ns_; }
    // Times that it began.
    uint32_t times() const { return times_; }

private:
    // What trickles in behind a burst belongs to its second, but does not make it longer.
    void over(int64_t time_ns, const SlidingCount &second, uint32_t limit) {
        if (times_ > 0 && time_ns - until_ns_ <= kSecondNs) {
            if (uint64_t{second.in_slice()} * kSlicesPerWindow <= limit) {
                return;
            }
            packets_ += since_;
            length_ns_ += time_ns - until_ns_;
        } else {
            uint32_t packets = 0;
            const int64_t begin_ns = std::max(run_ns_, second.first_slice_over(limit, packets) * kSliceNs);
            first_ns_ = times_ == 0 ? begin_ns : first_ns_;
            packets_ += packets;
            length_ns_ += time_ns - begin_ns;
            times_++;
        }
        since_ = 0;
        until_ns_ = time_ns;
    }

    uint64_t packets_ = 0;
    uint64_t since_ = 0;  // packets since the last one that was over
    int64_t length_ns_ = 0;
    int64_t first_ns_ = 0;
    int64_t until_ns_ = 0;
    int64_t last_ns_ = 0;  // of the packet before
    int64_t run_ns_ = 0;   // first packet behind a pause of a second
    uint32_t times_ = 0;
};

}  // namespace host
