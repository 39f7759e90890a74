// SPDX-License-Identifier: Apache-2.0
#include "metrics/flood_watch.h"

#include <utility>

#include "clock/clock.h"
#include "figures.h"

namespace host {

namespace {

constexpr int kAtOnce = 8;

}  // namespace

void FloodWatch::look(int64_t now_ns) {
    if (now_ns < next_round_ns_) {
        return;
    }
    for (int i = 0; i < kAtOnce; i++) {
        if (!is_at_rules_) {
            is_at_rules_ = !look_at_alarm(now_ns);
        } else if (!look_at_rule(now_ns)) {
            sources_.end_pass();
            measured_ = std::exchange(measuring_, {});
            alarm_ = {};
            rule_ = 0;
            is_at_rules_ = false;
            next_round_ns_ = now_ns + card::kNanosecondsPerSecond;
            return;
        }
    }
}

// False: there is none behind the last one. Ports are numbered from 1, so that no alarm is that of the empty subject.
bool FloodWatch::look_at_alarm(int64_t now_ns) {
    const StandingAlarms &standing = card_.alarms().standing(AlarmEvent::Period::kFast);
    const auto next = standing.upper_bound(alarm_);
    if (next == standing.end()) {
        return false;
    }
    alarm_ = next->first;
    const card::SleeplessScope now;
    Figures figures;
    if (!flow_figures(ATC_DIRECTION_RX, alarm_, figures)) {
        card_.alarms().discard(alarm_);
    } else if (alarm_.source.type != ATC_SRC_NONE) {
        sources_.note(alarm_, figures.fast.latest_pps, now_ns);
    }
    return true;
}

bool FloodWatch::look_at_rule(int64_t now_ns) {
    const std::map<uint32_t, Rule> &rules = std::as_const(card_).journal().rules().rules();
    const auto next = rules.upper_bound(rule_);
    if (next == rules.end()) {
        return false;
    }
    rule_ = next->first;
    const Rule &rule = next->second;
    uint64_t packets = 0;
    if (!rule.denies || !rule.owner || rule.owner->source.type == ATC_SRC_NONE ||
        card::Chip::instance().count(rule.stat_id, &packets) != 0) {
        return true;
    }
    measuring_[rule_] = {packets, now_ns};
    if (const auto before = measured_.find(rule_);
        before != measured_.end() && packets > before->second.packets && now_ns > before->second.time_ns) {
        const double seconds =
            static_cast<double>(now_ns - before->second.time_ns) / static_cast<double>(card::kNanosecondsPerSecond);
        sources_.note(*rule.owner,
                      static_cast<uint64_t>(static_cast<double>(packets - before->second.packets) / seconds), now_ns);
    }
    return true;
}

}  // namespace host
