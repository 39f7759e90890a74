// SPDX-License-Identifier: Apache-2.0
#include "timeline/rate_file.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <system_error>

#include "clock/clock.h"
#include "services/services.h"

namespace host {

namespace {

constexpr const char *kHeading =
    "time,of,protocol,port,vlan,offered_packets,offered_bytes,stopped_packets,stopped_bytes,dropped_packets,"
    "dropped_bytes,passed_packets,passed_bytes\n";

template <typename Counts>
uint64_t packets_of(const Counts &counts) {
    uint64_t packets = 0;
    for (const auto &count : counts) {
        packets += count.packets;
    }
    return packets;
}

}  // namespace

bool RateFile::open(const std::string &path, uint32_t interval_s, std::string &error) {
    interval_ns_ = int64_t{interval_s} * card::kNanosecondsPerSecond;
    file_.reset(std::fopen(path.c_str(), "w"));
    if (!file_) {
        error = std::generic_category().message(errno);
        return false;
    }
    std::fputs(kHeading, file_.get());
    return true;
}

void RateFile::follow(TrafficAccount &account) {
    account.add_reader([this](const CountedPacket &counted) { take(counted); });
}

bool RateFile::close() {
    write_interval();
    return std::fflush(file_.get()) == 0 && std::ferror(file_.get()) == 0;
}

// A packet that is older than the interval, by a clock that was set back, counts in it.
void RateFile::take(const CountedPacket &counted) {
    const int64_t time_ns = counted.packet.time_ns;
    if (begin_ns_ == INT64_MIN || time_ns >= card::time_after(begin_ns_, interval_ns_)) {
        write_interval();
        const int64_t behind_ns = time_ns % interval_ns_;
        begin_ns_ = time_ns - behind_ns - (behind_ns < 0 ? interval_ns_ : 0);
    }
    if (flows_.size() <= counted.number) {
        flows_.resize(counted.number + 1);
    }
    Counts &counts = flows_[counted.number];
    if (packets_of(counts) == 0) {
        seen_.emplace_back(counted.flow.key, counted.number);
    }
    counts.at(static_cast<size_t>(counted.outcome)).add(1, counted.packet.len);
}

void RateFile::write_interval() {
    std::array<Counts, FastLimits::kSlots> classes{};
    for (const auto &[flow, number] : seen_) {
        for (size_t outcome = 0; outcome < classes[0].size(); outcome++) {
            const Count &count = flows_[number].at(outcome);
            classes.at(flow.protocol).at(outcome).add(count.packets, count.bytes);
        }
    }
    for (uint32_t id = 0; id < classes.size(); id++) {
        if (packets_of(classes.at(id)) > 0) {
            write_row("class", {0, 0, id}, classes.at(id));
        }
    }
    std::ranges::sort(seen_);
    for (const auto &[flow, number] : seen_) {
        write_row("flow", flow, flows_[number]);
        flows_[number] = {};
    }
    seen_.clear();
    std::fflush(file_.get());
}

void RateFile::write_row(const char *kind, const FlowKey &flow, const Counts &counts) {
    const bool is_flow = *kind == 'f';
    const auto at = [&counts](Outcome outcome) { return counts.at(static_cast<size_t>(outcome)); };
    std::string time = card::time_text(begin_ns_);
    time[time.find(' ')] = 'T';
    std::string row = time + "Z," + kind + "," + (flow.protocol == 0 ? "none" : protocol_name(flow.protocol)) + "," +
                      (is_flow ? std::to_string(flow.port) : "") + "," + (is_flow ? std::to_string(flow.vlan) : "");
    Count offered;
    for (const Count &count : counts) {
        offered.add(count.packets, count.bytes);
    }
    for (const Count &count : {offered, at(Outcome::kStopped), at(Outcome::kDropped), at(Outcome::kPassed)}) {
        row += "," + std::to_string(count.packets) + "," + std::to_string(count.bytes);
    }
    std::fprintf(file_.get(), "%s\n", row.c_str());
}

}  // namespace host
