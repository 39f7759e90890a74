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
    look_at_silence();
    ring_.note(guard_.ring().used(), clock_.monotonic_ns());
    copies_in_look_ = 0;
    const size_t copies = guard_.read_copies(kCopiesPerLook, reader_);
    settle();
    if (const int64_t now = now_ns(); now >= next_second_ns_) {
        next_second_ns_ = now + card::kNanosecondsPerSecond;
        denies_.expire(static_cast<uint64_t>(clock_.monotonic_ns()));
        look_at_losses(now);
        look_at_ports(false);
        settle_news();
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
        tell(std::to_string(refused) +
                 " filters found no room in the kernel: they take effect only as verdicts on copies of packets come",
             {GuardEntry::Kind::kFiltersRefused, 0, "", "", refused});
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
    // What had no room in the kernel: as there, the module does not see what a rule stops. What the operator's filters
    // have decided stays so.
    if ((copy.flags & KERNEL_RULED) == 0 && chip_.denies(frame, copy.len, packet.port, source.vlan)) {
        denies_.judged(copy, true);
        return;
    }
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
        if (change.is_about_port) {
            const auto kind = change.is_protected ? GuardEntry::Kind::kPortProtected : GuardEntry::Kind::kPortLost;
            tell(change.text, {kind, change.port, change.interface, change.reason, 0});
        } else {
            say_(change.text);
        }
        if (change.trunk != 0) {
            trunk_change(change.trunk, change.member, change.joins);
        }
    }
}

// How many are new, if they are to be told.
uint64_t LiveCard::news(Told &told, int64_t now_ns, uint64_t count) {
    if (count == told.count || (told.at_ns != 0 && now_ns < told.at_ns + kTellLossesNs)) {
        return 0;
    }
    told.at_ns = now_ns;
    return count - std::exchange(told.count, count);
}

void LiveCard::look_at_losses(int64_t now_ns) {
    uint64_t lost = 0;
    for (const card::LivePort &port : live_ports_.ports()) {
        lost += guard_.counts(port.index).lost;
    }
    if (const uint64_t count = news(losses_told_, now_ns, lost); count > 0) {
        tell(std::to_string(count) +
                 " packets passed or were stopped without a copy for the limiter: more came than it could read",
             {GuardEntry::Kind::kCopiesLost, 0, "", "", count});
    }
    if (const uint64_t count = news(overflows_told_, now_ns, chip_.use().overflowed); count > 0) {
        tell(std::to_string(count) +
                 " chip rules found no room in the kernel: they are software denies until there is some",
             {GuardEntry::Kind::kRulesOverflow, 0, "", "", count});
    }
    if (const uint64_t count = news(refusals_told_, now_ns, denies_.refused()); count > 0) {
        tell(std::to_string(count) +
                 " software denies found no room in the kernel: what they are about goes on to the stack",
             {GuardEntry::Kind::kDeniesRefused, 0, "", "", count});
    }
}

// The process was stopped, or something held it up.
void LiveCard::look_at_silence() {
    const int64_t now_ns = clock_.monotonic_ns();
    const int64_t silent_ns = now_ns - std::exchange(last_look_ns_, now_ns);
    if (silent_ns < now_ns && silent_ns > static_cast<int64_t>(guard_.patience_ns())) {
        const auto seconds = static_cast<uint64_t>(silent_ns / card::kNanosecondsPerSecond);
        tell("this process was silent for " + std::to_string(seconds) +
                 " s; the kernel let every packet pass meanwhile (see `show card`, blind)",
             {GuardEntry::Kind::kLate, 0, "", "", seconds});
    }
}

void LiveCard::tell(const std::string &text, GuardEntry entry) {
    say_(text);
    journal_.note(std::move(entry));
}

}  // namespace host
