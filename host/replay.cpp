// SPDX-License-Identifier: Apache-2.0
#include "replay.h"

#include <algorithm>

#include "anti_cpu/anti_cpu.h"
#include "os/os.h"
#include "process.h"
#include "services/services.h"

namespace host {

namespace {

constexpr uint64_t kPacketsPerProgress = 1 << 16;
constexpr int64_t kSilencePerProgressNs = 3600 * card::kNanosecondsPerSecond;
constexpr int64_t kStepNs = card::kNanosecondsPerSecond;  // of the module's own

}  // namespace

Replay::Replay(CaptureSet &captures, EventLog &events, const ReplaySettings &settings)
    : Run(events),
      captures_(captures),
      chip_(card::Chip::instance()),
      settings_(settings),
      packet_flow_(settings.vlan, settings.device_mac()) {}

Replay::~Replay() {
    clock_.set_driver_sleep(nullptr);
}

void Replay::start() {
    pending_ = captures_.next(next_);
    start_ns_ = pending_ ? next_.time_ns : 0;
    last_packet_ns_ = start_ns_;
    period_start_ns_ = start_ns_;
    clock_.simulate(start_ns_);
    clock_.set_driver_sleep([this](int64_t length_ns) { run_for(length_ns); });
    card::set_device_mac(settings_.device_mac());
    atc_init();
}

void Replay::run_until(int64_t realtime_ns) {
    feed(realtime_ns, false);
    pass_silence(realtime_ns, [] { return kept_signal() != 0; });
    settle_news();
    show_progress(false);
}

void Replay::run_for(int64_t length_ns) {
    run_until(card::time_after(now_ns(), length_ns));
}

bool Replay::run_until_alarm() {
    const uint64_t before = events_.alarms().raised();
    feed(INT64_MAX, true);
    if (events_.alarms().raised() == before) {
        // The last packets may have raised one that the end of their period only shows.
        run_for(fast_period_rest_ns());
    }
    show_progress(false);
    return events_.alarms().raised() != before;
}

void Replay::run_to_end() {
    feed(INT64_MAX, false);
    show_progress(false);
}

int64_t Replay::fast_period_rest_ns() const {
    const int64_t period_ns = period_s_ * card::kNanosecondsPerSecond;
    const int64_t into_ns = (now_ns() - period_start_ns_) % period_ns;
    return period_ns - into_ns + card::kNanosecondsPerSecond;
}

void Replay::fast_period_set(uint32_t seconds) {
    period_s_ = seconds;
    period_start_ns_ = now_ns();
    Run::fast_period_set(seconds);
}

bool Replay::trunk_change(uint32_t trunk, uint32_t member, bool joins) {
    last_counts_ = nullptr;
    return Run::trunk_change(trunk, member, joins);
}

void Replay::feed(int64_t end_ns, bool stop_at_alarm) {
    const card::BudgetScope budget_for_packets(true);
    const uint64_t alarms = events_.alarms().raised();
    const auto is_over = [&] { return kept_signal() != 0 || (stop_at_alarm && events_.alarms().raised() != alarms); };
    while (pending_ && next_.time_ns < end_ns) {
        if (next_.time_ns - last_packet_ns_ > kStepNs) {
            pass_silence(next_.time_ns, is_over);
        } else {
            clock_.run_until(next_.time_ns);
        }
        settle_news();
        if (is_over()) {
            return;
        }
        deliver(next_);
        last_packet_ns_ = next_.time_ns;
        packets_++;
        if (packets_ % kPacketsPerProgress == 0) {
            show_progress(true);
        }
        pending_ = captures_.next(next_);
    }
}

// When is_over() has ended it, to the end of the second that it began: where a replay stops does not depend on how it
// got there.
void Replay::pass_silence(int64_t end_ns, const std::function<bool()> &is_over) {
    const int64_t begin_ns = now_ns();
    while (clock_.run_until(std::min(end_ns, card::time_after(now_ns(), kSilencePerProgressNs)), is_over)) {
        if (now_ns() >= end_ns) {
            return;
        }
        show_progress(true);
    }
    const int64_t steps = (now_ns() - begin_ns + kStepNs - 1) / kStepNs;
    clock_.run_until(std::min(end_ns, card::time_after(begin_ns, steps * kStepNs)));
}

void Replay::show_progress(bool goes_on) {
    if (progress_) {
        progress_(goes_on);
    }
}

void Replay::deliver(const Packet &packet) {
    if (settings_.own_mac && is_from(packet, *settings_.own_mac)) {
        hand_over_sent(packet);  // the switching chip only stands in the way of packets that come in
        return;
    }
    if (last_counts_ == nullptr || last_port_ != packet.port) {
        look_up(packet.port);
    }
    last_counts_->offered++;
    Outcome outcome = Outcome::kPassed;
    const uint32_t rule = chip_.denied_by(packet.data, packet.len, packet.port, settings_.vlan);
    if (rule != 0) {
        const Subject subject = packet_flow_.subject_of(packet, last_logical_);
        last_counts_->stopped++;
        verdicts_.stopped(subject.flow);
        journal_.rules().stopped(rule, subject);
        outcome = Outcome::kStopped;
    } else {
        outcome = judge(packet, packet_flow_, last_logical_, settings_.vlan);
        (outcome == Outcome::kDropped ? last_counts_->dropped : last_counts_->passed)++;
    }
    if (account_ != nullptr) {
        account_->count(packet, last_logical_, outcome);
    }
}

void Replay::look_up(uint32_t port) {
    last_port_ = port;
    last_logical_ = logical_port(port);
    last_counts_ = &ports_[port];
}

}  // namespace host
