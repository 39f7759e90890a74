// SPDX-License-Identifier: Apache-2.0
#include "tune/tuning.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "process.h"
#include "verdict/floods.h"
#include "verdict/senders.h"

namespace host {

namespace {

constexpr double kNothingDenied = 0;  // in the place of a factor: the chosen limits as they are

void take_least(std::optional<Peaks> &least, const Peaks &peaks) {
    if (!least || peaks.period < least->period) {
        least = peaks;
    }
}

void add(ClassNeeds &sum, const ClassNeeds &one) {
    sum.packets += one.packets;
    sum.flows += one.flows;
    sum.flow.take(one.flow);
    sum.source.take(one.source);
}

uint32_t scaled(uint32_t limit, double factor) {
    return static_cast<uint32_t>(std::clamp(std::ceil(limit * factor), 1.0, double{INT32_MAX}));
}

Json over_json(const Over &over) {
    return {{"flows", over.flows}, {"seconds", over.seconds}, {"stopped", over.stopped}};
}

void add(Over &sum, const Json &one) {
    sum.flows += one.at("flows").get<uint64_t>();
    sum.seconds = std::max(sum.seconds, one.at("seconds").get<double>());
    sum.stopped += one.at("stopped").get<uint64_t>();
}

}  // namespace

Tuning::Tuning(const TuneOptions &options) : options_(options) {
    const auto add_captures = [this](const std::vector<std::string> &paths, bool is_flood) {
        for (const std::string &path : paths) {
            const std::vector<uint32_t> &ports = options_.replay.ports;
            const uint32_t port = ports[std::min(captures_.size(), ports.size() - 1)];
            captures_.push_back(
                {path, port, 0, is_flood ? std::optional<FloodCapture>(FloodCapture{}) : std::nullopt, 0});
        }
    };
    add_captures(options.replay.files, false);
    add_captures(options.floods, true);
}

int Tuning::run(Problems &problems) {
    int status = kExitGood;
    const std::optional<ModuleSettings> settings = settings_of(options_.replay, status);
    if (!settings) {
        return status;
    }
    settings_ = *settings;
    for (CaptureToTune &capture : captures_) {
        if (!read(capture, problems)) {
            return kept_signal() != 0 ? kExitSignal + kept_signal() : kExitRefused;
        }
    }
    choose_all();
    for (size_t number = 0; number < kFactors.size(); number++) {
        if (status = try_out(kFactors.at(number), number); status != kExitGood) {
            return status;
        }
    }
    if (status = try_out(kNothingDenied, 0); status != kExitGood) {
        return status;
    }
    for (const ClassTuning &of : by_id_) {
        if (of.good.packets + of.in_floods.packets > 0) {
            classes_.push_back(of);
        }
    }
    has_results_ = true;
    return problems.count() == 0 ? kExitGood : kExitRefused;
}

// Each capture is read, then replayed with every factor and with nothing denied.
void Tuning::step() {
    steps_++;
    if (progress_) {
        progress_(steps_, captures_.size() * (kFactors.size() + 2));
    }
}

bool Tuning::read(CaptureToTune &capture, Problems &problems) {
    CaptureFile file;
    if (!file.open(capture.path, capture.port, problems)) {
        return false;
    }
    const ReplaySettings replay{options_.replay.vlan, parse_mac(options_.replay.own_mac)};
    NeedAccount needs(replay.vlan, replay.device_mac(), settings_.fast_period_s);
    TrafficAccount traffic(replay.vlan, replay.device_mac(), limits_for_good());
    Packet packet{};
    while (file.next(packet)) {
        if (kept_signal() != 0) {
            return false;
        }
        if (replay.own_mac && is_from(packet, *replay.own_mac)) {
            continue;
        }
        capture.packets++;
        needs.count(packet);
        if (capture.flood) {
            traffic.count(packet, packet.port, Outcome::kPassed);
        }
    }
    capture.flood ? note_flood(capture, needs, traffic) : note_good(needs);
    step();
    return true;
}

void Tuning::note_good(const NeedAccount &needs) {
    const auto classes = needs.classes();
    for (uint32_t id = 0; id < classes.size(); id++) {
        by_id_.at(id).protocol = id;
        add(by_id_.at(id).good, classes.at(id));
    }
    needs.each_sender([this](const Subject &sender) { good_senders_.emplace(sender.flow.protocol, sender.source); });
}

void Tuning::note_flood(CaptureToTune &capture, const NeedAccount &needs, const TrafficAccount &traffic) {
    const auto classes = needs.classes();
    for (uint32_t id = 0; id < classes.size(); id++) {
        by_id_.at(id).protocol = id;
        add(by_id_.at(id).in_floods, classes.at(id));
    }
    std::map<uint32_t, Peaks> flows;
    std::map<uint32_t, Peaks> senders;
    for (const Flood &flood : find_floods(traffic, {}, {})) {
        if (flood.is_outside() || flood.is_moment()) {
            continue;
        }
        capture.flood->flows.insert(flood.flow);
        by_id_.at(flood.flow.protocol).by_source |= !flows.contains(flood.flow.protocol) && has_loud_senders(flood);
        flows[flood.flow.protocol].take(needs.peaks_of({flood.flow, {}}));
        if (has_loud_senders(flood)) {
            capture.flood->loud.insert(flood.flow);
        }
    }
    for (const auto &[key, of] : traffic.addresses().entries()) {
        const Subject sender{traffic.flows()[key.flow].key, key.source};
        if (of.over.times() > 0 && capture.flood->loud.contains(sender.flow)) {
            capture.flood->loud_senders.insert(sender);
            senders[sender.flow.protocol].take(needs.peaks_of(sender));
        }
    }
    for (const auto &[id, peaks] : flows) {
        take_least(by_id_.at(id).flood, peaks);
    }
    for (const auto &[id, peaks] : senders) {
        take_least(by_id_.at(id).flood_source, peaks);
    }
}

// What a flow of a flood's capture is held against.
FastLimits Tuning::limits_for_good() const {
    FastLimits limits = fast_limits(settings_);
    for (uint32_t id = 1; id < by_id_.size(); id++) {
        limits.flow.at(id) = std::min(limits.flow.at(id), limit_for_good(evidence(by_id_.at(id), false)));
        limits.source.at(id) = std::min(limits.source.at(id), limit_for_good(evidence(by_id_.at(id), true)));
    }
    return limits;
}

Evidence Tuning::evidence(const ClassTuning &of, bool of_sources) const {
    const ProtocolSettings &now = settings_.protocols.at(of.protocol);
    return {of_sources ? now.source_fast_limit : now.fast_limit,
            of.good.packets,
            of_sources ? of.good.source : of.good.flow,
            of_sources ? of.flood_source : of.flood,
            settings_.fast_period_s,
            options_.margin};
}

void Tuning::choose_all() {
    for (ClassTuning &of : by_id_) {
        of.flow = choose(evidence(of, false));
        of.source = choose(evidence(of, true));
    }
}

uint32_t Tuning::base(const ClassTuning &of) const {
    return of.flow.pps.value_or(settings_.protocols.at(of.protocol).fast_limit);
}

uint32_t Tuning::source_base(const ClassTuning &of) const {
    return of.source.pps.value_or(settings_.protocols.at(of.protocol).source_fast_limit);
}

// A long limit below the fast one would raise alarms where the fast one does not.
std::vector<std::string> Tuning::lines_of(const ClassTuning &of) const {
    const ProtocolSettings &now = settings_.protocols.at(of.protocol);
    std::vector<std::string> lines;
    const auto set = [&](const char *whose, const Choice &choice, uint32_t long_limit) {
        const std::string line = "set limit " + protocol_name(of.protocol) + " " + whose;
        if (choice.pps) {
            lines.push_back(line + "fast " + std::to_string(*choice.pps));
            if (long_limit < *choice.pps) {
                lines.push_back(line + "long " + std::to_string(*choice.pps));
            }
        }
    };
    set("", of.flow, now.long_limit);
    if (of.good.source.second + of.in_floods.source.second > 0) {
        set("source ", of.source, now.source_long_limit);
    }
    return lines;
}

std::vector<std::string> Tuning::lines_at(double factor) const {
    std::vector<std::string> lines = options_.replay.lines;
    for (const ClassTuning &of : by_id_) {
        if (of.good.packets + of.in_floods.packets == 0) {
            continue;
        }
        if (factor == kNothingDenied) {
            const std::vector<std::string> chosen = lines_of(of);
            lines.insert(lines.end(), chosen.begin(), chosen.end());
            continue;
        }
        const std::string protocol = protocol_name(of.protocol);
        lines.push_back("set limit " + protocol + " fast " + std::to_string(scaled(base(of), factor)));
        lines.push_back("set limit " + protocol + " source fast " + std::to_string(scaled(source_base(of), factor)));
        lines.push_back("set hw-deny " + protocol + (of.by_source ? " source on" : " on"));
    }
    return lines;
}

// Every capture with these limits.
int Tuning::try_out(double factor, size_t number) {
    for (CaptureToTune &capture : captures_) {
        Json figures;
        const int status = replay_with(capture, lines_at(factor), figures);
        if (figures.is_null()) {
            return status;
        }
        step();
        if (factor == kNothingDenied) {
            capture.alarms = figures.at("alarms");
            continue;
        }
        for (const Json &row : figures.at("classes")) {
            ClassTuning &of = by_id_.at(row.at("id").get<uint32_t>());
            add(of.good_over.at(number), row.at("good"));
            add(of.flood_over.at(number), row.at("flood"));
        }
    }
    return kExitGood;
}

int Tuning::replay_with(const CaptureToTune &capture, std::vector<std::string> lines, Json &figures) const {
    ReplayOptions replay = options_.replay;
    replay.files = {capture.path};
    replay.ports = {capture.port};
    replay.lines = std::move(lines);
    TrialResult result =
        run_trial(replay, Problems::Tell::kNot, [&](const TrialView &view) { return effects_of(capture, view); });
    figures = std::move(result.figures);
    return result.status;
}

// In the child. In a flow of the flood good packets are those of senders that are not loud or, where no sender is,
// those of senders that good captures know.
Json Tuning::effects_of(const CaptureToTune &capture, const TrialView &view) const {
    struct Both {
        Over good;
        Over flood;
    };
    std::map<uint32_t, Both> classes;
    const auto &flows = view.account.flows();
    const auto is_floods = [&](const FlowKey &flow) { return capture.flood && capture.flood->flows.contains(flow); };
    for (const auto &[key, traffic] : flows) {
        Both &of = classes[key.protocol];
        Over &over = is_floods(key) ? of.flood : of.good;
        over.stopped += traffic.stopped;
        over.flows += traffic.over.times() > 0 ? 1 : 0;
        over.seconds = std::max(over.seconds, static_cast<double>(traffic.over.length_ns()) / OverLimit::kSecondNs);
    }
    for (const auto &[key, traffic] : view.account.addresses().entries()) {
        const Subject sender{flows[key.flow].key, key.source};
        if (!is_floods(sender.flow)) {
            continue;
        }
        const bool is_good = capture.flood->loud.contains(sender.flow)
                                 ? !capture.flood->loud_senders.contains(sender)
                                 : good_senders_.contains({sender.flow.protocol, sender.source});
        if (is_good) {
            classes[sender.flow.protocol].flood.stopped -= traffic.stopped;
            classes[sender.flow.protocol].good.stopped += traffic.stopped;
        }
    }
    Json rows = Json::array();
    for (const auto &[id, of] : classes) {
        rows.push_back({{"id", id}, {"good", over_json(of.good)}, {"flood", over_json(of.flood)}});
    }
    return {{"alarms", view.verdict.alarms_raised()}, {"classes", std::move(rows)}};
}

}  // namespace host
