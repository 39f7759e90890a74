// SPDX-License-Identifier: Apache-2.0
#include "live/live_card.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "anti_cpu/anti_cpu.h"
#include "live/filter_rules.h"
#include "services/services.h"

namespace host {

namespace {

constexpr size_t kCopiesPerLook = 4096;
constexpr size_t kCopiesPerClock = 64;   // one of which is asked how long it waited
constexpr int64_t kPauseNs = 1'000'000;  // between looks that found nothing
constexpr int64_t kTellLossesNs = 60 * card::kNanosecondsPerSecond;

Fate fate_of(uint32_t flags) {
    if ((flags & KERNEL_DENIED) == 0) {
        return Fate::kPassed;
    }
    return (flags & KERNEL_RULED) != 0 ? Fate::kFiltered : Fate::kDropped;
}

}  // namespace

LiveCard::LiveCard(EventLog &events, card::Guard &guard, card::LivePorts &ports, const MacAddress &device_mac,
                   std::function<void(const std::string &)> say)
    : Run(events), guard_(guard), live_ports_(ports), device_mac_(device_mac), say_(std::move(say)), denies_(guard) {
    reader_ = [this](const kernel_copy &copy, const uint8_t *frame) { take(copy, frame); };
}

LiveCard::~LiveCard() {
    clock_.set_driver_sleep(nullptr);
}

size_t LiveCard::start() {
    start_ns_ = now_ns();
    clock_.set_driver_sleep([this](int64_t length_ns) { run_for(length_ns); });
    card::set_device_mac(device_mac_);
    atc_init();
    look_at_ports(true);
    return static_cast<size_t>(std::ranges::count_if(
        live_ports_.ports(), [](const card::LivePort &port) { return port.attachment != nullptr; }));
}

size_t LiveCard::look() {
    guard_.beat();
    ring_.note(guard_.ring().used(), clock_.monotonic_ns());
    copies_in_look_ = 0;
    const size_t copies = guard_.read_copies(kCopiesPerLook, reader_);
    settle();
    if (const int64_t now = now_ns(); now >= next_second_ns_) {
        next_second_ns_ = now + card::kNanosecondsPerSecond;
        denies_.expire(static_cast<uint64_t>(clock_.monotonic_ns()));
        look_at_losses(now);
        look_at_ports(false);
    }
    if (meanwhile_) {
        meanwhile_();
    }
    return copies;
}

void LiveCard::run_for(int64_t length_ns) {
    const int64_t end_ns = clock_.monotonic_ns() + length_ns;
    for (int64_t left = length_ns; left > 0; left = end_ns - clock_.monotonic_ns()) {
        if (look() == 0) {
            std::this_thread::sleep_for(std::chrono::nanoseconds(std::min(kPauseNs, left)));
        }
    }
}

void LiveCard::settle() {
    events_.take_kept();
    settle_news();
}

void LiveCard::filters_changed() {
    if (const size_t refused = guard_.set_filters(filter_rules()); refused > 0) {
        say_(std::to_string(refused) +
             " filters found no room in the kernel: they take effect only as verdicts on copies of packets come");
    }
}

bool LiveCard::trunk_change(uint32_t trunk, uint32_t member, bool joins) {
    const bool is_told = Run::trunk_change(trunk, member, joins);
    live_ports_.set_logical(member, logical_port(member));
    return is_told;
}

const std::map<uint32_t, PortCounts> &LiveCard::ports() const {
    for (const card::LivePort &port : live_ports_.ports()) {
        const kernel_counts counts = guard_.counts(port.index);
        ports_[port.spec.port] = {counts.offered, counts.stopped, counts.dropped, counts.passed};
    }
    return ports_;
}

std::vector<PortState> LiveCard::port_states() const {
    std::vector<PortState> states;
    for (const card::LivePort &port : live_ports_.ports()) {
        states.push_back(port_state(port));
    }
    return states;
}

PortState LiveCard::port_state(const card::LivePort &port) const {
    const char *mode = live_ports_.mode() == card::PortMode::kNative ? "native" : "generic";
    const kernel_counts counts = guard_.counts(port.index);
    return {port.spec.port,
            port.spec.interface,
            port.attachment != nullptr ? mode : "not protected: " + port.trouble,
            {counts.offered, counts.stopped, counts.dropped, counts.passed},
            counts.sent,
            counts.transit,
            counts.blind,
            counts.lost};
}

void LiveCard::take(const kernel_copy &copy, const uint8_t *frame) {
    Packet packet{};
    packet.data = frame;
    packet.len = copy.len;
    packet.port = copy.flow.port;
    packets_++;
    if (copies_in_look_++ % kCopiesPerClock == 0) {
        const int64_t now_ns = clock_.monotonic_ns();
        waits_.note(static_cast<uint64_t>(std::max<int64_t>(now_ns - static_cast<int64_t>(copy.time_ns), 0)), now_ns);
    }
    const uint32_t port = logical_port(packet.port);
    if ((copy.flags & KERNEL_SENT) != 0) {
        traffic_.count(port, sent_flow_.of(packet, port).protocol, Fate::kSent, copy.len);
        hand_over_sent(packet);
        return;
    }
    traffic_.count(port, copy.flow.protocol, fate_of(copy.flags), copy.len);
    const Source &source = source_of(packet.port);
    const Outcome outcome = judge(packet, source.flow, port, source.vlan);
    denies_.judged(copy, outcome == Outcome::kDropped);
}

const LiveCard::Source &LiveCard::source_of(uint32_t port) {
    const auto found = sources_.find(port);
    if (found != sources_.end()) {
        return found->second;
    }
    const auto &all = live_ports_.ports();
    const auto known = std::ranges::find_if(all, [&](const card::LivePort &one) { return one.spec.port == port; });
    const uint16_t vlan = known != all.end() ? known->spec.vlan : uint16_t{1};
    return sources_.emplace(port, Source{PacketFlow(vlan, device_mac_), vlan}).first->second;
}

void LiveCard::look_at_ports(bool anyway) {
    for (const card::LivePorts::Change &change : live_ports_.look(anyway)) {
        say_(change.text);
        if (change.trunk != 0) {
            trunk_change(change.trunk, change.member, change.joins);
        }
    }
}

// At most a line a minute.
void LiveCard::look_at_losses(int64_t now_ns) {
    if (losses_told_ns_ != 0 && now_ns < losses_told_ns_ + kTellLossesNs) {
        return;
    }
    uint64_t lost = 0;
    for (const card::LivePort &port : live_ports_.ports()) {
        lost += guard_.counts(port.index).lost;
    }
    if (lost > losses_told_) {
        losses_told_ns_ = now_ns;
        say_(std::to_string(lost - losses_told_) +
             " packets passed or were stopped without a copy for the limiter: more came than it could read");
        losses_told_ = lost;
    }
    if (denies_.refused() > refusals_told_) {
        losses_told_ns_ = now_ns;
        say_(std::to_string(denies_.refused() - refusals_told_) +
             " software denies found no room in the kernel: what they are about goes on to the stack");
        refusals_told_ = denies_.refused();
    }
}

}  // namespace host
