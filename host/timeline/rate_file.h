// SPDX-License-Identifier: Apache-2.0
// rate_file.h: packets and bytes by class and flow, interval by interval, as a file of comma-separated values.
//
// One row for each class and each flow that had a packet in the interval, written when it is over: in memory stand the
// counts of one interval. Used by: replay_command. Uses: account. Thread: the driving one.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "traffic/account.h"

namespace host {

class RateFile {
public:
    // Intervals begin at multiples of 'interval_s' since 1970. False with the reason in 'error'.
    bool open(const std::string &path, uint32_t interval_s, std::string &error);

    // Reads 'account' from now on.
    void follow(TrafficAccount &account);

    // The rows of the last interval. False when not all of the file could be written.
    bool close();

private:
    struct Closer {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };
    struct Count {
        uint64_t packets = 0;
        uint64_t bytes = 0;
        void add(uint64_t more_packets, uint64_t more_bytes) {
            packets += more_packets;
            bytes += more_bytes;
        }
    };
    using Counts = std::array<Count, 3>;  // by Outcome

    void take(const CountedPacket &counted);
    void write_interval();
    void write_row(const char *kind, const FlowKey &flow, const Counts &counts);

    std::unique_ptr<std::FILE, Closer> file_;
    int64_t interval_ns_ = 1;
    int64_t begin_ns_ = INT64_MIN;                    // of the interval; INT64_MIN: none yet
    std::vector<Counts> flows_;                       // by number
    std::vector<std::pair<FlowKey, uint32_t>> seen_;  // those of the interval, with their numbers
};

}  // namespace host
