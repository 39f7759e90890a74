// SPDX-License-Identifier: Apache-2.0
#include "metrics/gatherer.h"

#include <algorithm>
#include <utility>

#include "anti_cpu/anti_cpu.h"
#include "chip/chip.h"
#include "clock/clock.h"
#include "figures.h"
#include "os/os.h"

namespace host {

namespace {

constexpr int64_t kSliceNs = 50'000;
constexpr size_t kRulesAtOnce = 8;
constexpr size_t kClassesAtOnce = 4;

int64_t monotonic_ns() {
    return card::Clock::instance().monotonic_ns();
}

}  // namespace

void Gatherer::begin(const ModuleSettings &settings) {
    snapshot_ = {};
    snapshot_.settings = settings;
    part_ = 0;
    next_ = 0;
    gathering_ns_ = 0;
    longest_slice_ns_ = 0;
}

bool Gatherer::advance() {
    static constexpr std::array<Part, 6> kParts = {&Gatherer::next_port,      &Gatherer::next_rules,
                                                   &Gatherer::finish_stopped, &Gatherer::next_classes,
                                                   &Gatherer::next_rates,     &Gatherer::finish};
    const int64_t begin_ns = monotonic_ns();
    int64_t now_ns = begin_ns;
    while (part_ < kParts.size() && now_ns < begin_ns + kSliceNs) {
        if ((this->*kParts[part_])()) {
            part_++;
            next_ = 0;
        }
        now_ns = monotonic_ns();
    }
    gathering_ns_ += now_ns - begin_ns;
    longest_slice_ns_ = std::max(longest_slice_ns_, now_ns - begin_ns);
    if (part_ < kParts.size()) {
        return false;
    }
    last_.gathering_ns = gathering_ns_;
    last_.longest_slice_ns = longest_slice_ns_;
    return true;
}

// Before the rules are looked at: so no more is left for class 0 than there is.
bool Gatherer::next_port() {
    const auto &ports = card_.live_ports().ports();
    if (next_ < ports.size()) {
        const card::LivePort &port = ports[next_++];
        snapshot_.ports.push_back({card_.port_state(port), port.attachment != nullptr});
        const uint64_t stopped = snapshot_.ports.back().state.counts.stopped;
        uint64_t &seen = seen_stopped_[port.index];
        stopped_[port.trunk != 0 ? port.trunk : port.spec.port] += stopped > seen ? stopped - seen : 0;
        seen = stopped;
        return false;
    }
    const RuleTotals &totals = std::as_const(card_).journal().rules().totals();
    owned_ = totals.stopped;
    withdrawn_before_ = totals.withdrawn;
    rules_changed_ = false;
    return true;
}

bool Gatherer::next_rules() {
    const std::map<uint32_t, Rule> &rules = std::as_const(card_).journal().rules().rules();
    auto rule = rules.upper_bound(static_cast<uint32_t>(next_));
    for (size_t i = 0; i < kRulesAtOnce && rule != rules.end(); i++, rule++) {
        next_ = rule->first;
        const std::optional<Subject> &owner = rule->second.owner;
        (owner ? snapshot_.chip.automatic : snapshot_.chip.filters)++;
        uint64_t packets = 0;
        if (owner && rule->second.denies) {
            rules_changed_ |= card::Chip::instance().count(rule->second.stat_id, &packets) != 0;
            owned_[{owner->flow.port, owner->flow.protocol}] += packets;
        }
    }
    return rule == rules.end();
}

bool Gatherer::finish_stopped() {
    rules_changed_ |= std::as_const(card_).journal().rules().totals().withdrawn != withdrawn_before_;
    std::map<uint32_t, uint64_t> of_classes;  // by port
    for (const auto &[key, packets] : owned_) {
        told_[key] = std::max(told_[key], packets);
        of_classes[key.port] += told_[key];
    }
    for (const auto &[port, packets] : stopped_) {
        uint64_t &rest = told_[{port, 0}];
        if (!rules_changed_ && packets > of_classes[port]) {
            rest = std::max(rest, packets - of_classes[port]);
        }
    }
    for (const auto &[key, packets] : told_) {
        if (packets > 0) {
            snapshot_.classes[key].stopped = packets;
        }
    }
    return true;
}

// A port at a time.
bool Gatherer::next_classes() {
    const auto &ports = card_.class_traffic().ports();
    const auto port = ports.lower_bound(static_cast<uint32_t>(next_));
    if (port == ports.end()) {
        return true;
    }
    next_ = size_t{port->first} + 1;
    for (uint32_t id = 0; id < Snapshot::kClasses; id++) {
        const auto &fates = port->second[id];
        if (std::ranges::any_of(fates, [](const PacketCount &count) { return count.packets > 0; })) {
            snapshot_.classes[{port->first, id}].fates = fates;
        }
    }
    return false;
}

bool Gatherer::next_rates() {
    constexpr std::array<uint32_t, 2> kDirections = {ATC_DIRECTION_RX, ATC_DIRECTION_TX};
    const card::SleeplessScope now;
    for (size_t i = 0; i < kClassesAtOnce && next_ < kDirections.size() * Snapshot::kClasses; i++, next_++) {
        const uint32_t direction = kDirections[next_ / Snapshot::kClasses];
        const auto id = static_cast<uint32_t>(next_ % Snapshot::kClasses);
        Figures figures;
        if (id != 0 && protocol_figures(direction, id, figures)) {
            snapshot_.class_rates[direction][id] = figures.fast.latest_pps;
        }
    }
    return next_ == kDirections.size() * Snapshot::kClasses;
}

bool Gatherer::finish() {
    const Journal &journal = std::as_const(card_).journal();
    snapshot_.over_limit = card_.alarms().over_limit();
    snapshot_.alarms = card_.alarms().raised_by_class();
    snapshot_.sources = floods_.sources().sources();
    snapshot_.sources_left_out = floods_.sources().left_out();
    snapshot_.rules = journal.rules().totals();
    snapshot_.captures = journal.captures();
    snapshot_.outputs = outputs_();
    snapshot_.chip.use = card::Chip::instance().use();
    snapshot_.chip.software_denies = card_.soft_denies().in_force();
    snapshot_.chip.most_software_denies = card_.soft_denies().most_in_force();
    snapshot_.chip.software_denies_refused = card_.soft_denies().refused();
    const card::MemoryUse memory = card::memory_use();
    ProcessSnapshot &process = snapshot_.process;
    process = last_;
    process.ring_size = card_.guard().ring().size();
    process.ring_used = card_.guard().ring().used();
    process.ring_peak = card_.ring_peak();
    process.longest_wait_ns = card_.longest_wait_ns();
    process.memory = memory.bytes;
    process.memory_budget = memory.budget;
    process.memory_refused = memory.refused;
    return true;
}

}  // namespace host
