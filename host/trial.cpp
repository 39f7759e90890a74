// SPDX-License-Identifier: Apache-2.0
#include "trial.h"

#include "process.h"
#include "replay_setup.h"

namespace host {

namespace {

int status_of(console::Status status) {
    return status == console::Status::kWrong ? kExitUsage : status == console::Status::kDone ? kExitGood : kExitRefused;
}

Json result(int status, Json figures = nullptr) {
    return {{"status", status}, {"figures", std::move(figures)}};
}

// In the child.
Json replay(const ReplayOptions &options, Problems::Tell tell, const std::function<Json(const TrialView &)> &ask) {
    Problems problems(tell);
    CaptureSet captures;
    if (!options.files.empty() && !open_captures(options, captures, problems)) {
        return result(kExitRefused);
    }
    EventLog events(nullptr, nullptr, EventLog::Keep::kNothing);
    Replay replay(captures, events, {options.vlan, parse_mac(options.own_mac)});
    replay.start();
    apply_settings(options, replay);
    CapturesFolder folder;
    CaptureKeeper captured(replay, folder);
    console::Session session{replay, &replay, captured, true, false};
    console::Console console(session);
    if (const console::Status status = run_settings(options, console); status != console::Status::kDone) {
        return result(status_of(status));
    }
    const ModuleSettings settings = module_settings();
    TrafficAccount account(options.vlan, replay.device_mac(), fast_limits(settings));
    replay.set_account(&account);
    AlarmHistory alarms;
    events.set_alarm_listener([&alarms](const AlarmEvent &event) { alarms.take(event); });
    run_to_the_end(options, replay);
    replay.settle();
    problems.close();
    const Verdict verdict(replay, account, alarms, settings, {});
    return result(problems.count() == 0 ? kExitGood : kExitRefused, ask({replay, account, settings, verdict}));
}

struct SettingName {
    const char *name;
    uint32_t ProtocolSettings::*word;
};
constexpr SettingName kLimits[] = {{"fast", &ProtocolSettings::fast_limit},
                                   {"long", &ProtocolSettings::long_limit},
                                   {"source_fast", &ProtocolSettings::source_fast_limit},
                                   {"source_long", &ProtocolSettings::source_long_limit}};

Json limits_of(const TrialView &view) {
    Json limits = Json::array();
    for (const ProtocolSettings &of : view.settings.protocols) {
        Json row;
        for (const auto &[name, word] : kLimits) {
            row[name] = of.*word;
        }
        limits.push_back(std::move(row));
    }
    return {{"fast_period_s", view.settings.fast_period_s}, {"limits", std::move(limits)}};
}

}  // namespace

std::optional<ModuleSettings> settings_of(const ReplayOptions &options, int &status) {
    ReplayOptions no_packets = options;
    no_packets.files.clear();
    const TrialResult told = run_trial(no_packets, Problems::Tell::kAtOnce, limits_of);
    status = told.status;
    if (!told.has_figures()) {
        return std::nullopt;
    }
    ModuleSettings settings;
    settings.enabled = true;
    settings.fast_period_s = told.figures.at("fast_period_s");
    for (size_t id = 0; id < settings.protocols.size(); id++) {
        for (const auto &[name, word] : kLimits) {
            settings.protocols.at(id).*word = told.figures.at("limits").at(id).at(name);
        }
    }
    return settings;
}

TrialResult run_trial(const ReplayOptions &options, Problems::Tell tell,
                      const std::function<Json(const TrialView &)> &ask) {
    std::optional<Json> json = in_child([&] { return replay(options, tell, ask); });
    if (kept_signal() != 0) {
        return {kExitSignal + kept_signal(), nullptr};
    }
    if (!json) {
        return {kExitRefused, nullptr};
    }
    return {json->at("status"), std::move(json->at("figures"))};
}

}  // namespace host
