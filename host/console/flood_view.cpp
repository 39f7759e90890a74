// SPDX-License-Identifier: Apache-2.0
#include "console/flood_view.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <span>

#include "clock/clock.h"
#include "figures.h"
#include "report_data.h"
#include "services/services.h"
#include "text_table.h"
#include "verdict/words.h"

namespace host::console {

namespace {

// What a flood brought into the chip, and how much of it that stops.
struct OwnRules {
    std::vector<card::ChipRule> rules;
    uint64_t rate_pps = 0;  // since they were installed
};
using RulesByOwner = std::map<Subject, OwnRules>;

// The chip counts; the book knows whose rule it is.
RulesByOwner rules_by_owner(const RuleBook &book, int64_t now_ns) {
    RulesByOwner owners;
    if (book.rules().empty()) {
        return owners;
    }
    for (card::ChipRule &rule : card::Chip::instance().rules()) {
        const auto known = book.rules().find(rule.entry_id);
        if (known == book.rules().end() || !known->second.owner) {
            continue;
        }
        OwnRules &own = owners[*known->second.owner];
        const int64_t age_ns = std::max(now_ns - known->second.installed_ns, card::kNanosecondsPerSecond);
        own.rate_pps += rule.packets / static_cast<uint64_t>(age_ns / card::kNanosecondsPerSecond);
        own.rules.push_back(std::move(rule));
    }
    return owners;
}

const AlarmEvent *alarm_of(const StandingAlarms &alarms, const Subject &subject) {
    const auto found = alarms.find(subject);
    return found != alarms.end() ? &found->second : nullptr;
}

// A flood by its name, and what ranks it before the module has been asked.
struct Candidate {
    uint64_t rate_pps;
    const Subject *subject;
};

// Each once.
std::vector<Candidate> all_floods(const StandingAlarms &fast, const StandingAlarms &slow, const RulesByOwner &owners) {
    std::vector<Candidate> all;
    const auto stopped = [&owners](const Subject &subject) {
        const auto own = owners.find(subject);
        return own != owners.end() ? own->second.rate_pps : 0;
    };
    for (const auto &[subject, alarm] : fast) {
        all.push_back({alarm.rate_pps + stopped(subject), &subject});
    }
    for (const auto &[subject, alarm] : slow) {
        if (!fast.contains(subject)) {
            all.push_back({alarm.rate_pps + stopped(subject), &subject});
        }
    }
    for (const auto &[subject, own] : owners) {
        if (!fast.contains(subject) && !slow.contains(subject)) {
            all.push_back({own.rate_pps, &subject});
        }
    }
    return all;
}

// False: the module has discarded it with its alarm standing.
bool ask_module(StandingFlood &flood) {
    const card::SleeplessScope now;
    Figures figures;
    if (!flow_figures(ATC_DIRECTION_RX, flood.subject, figures)) {
        return !flood.rules.empty();
    }
    flood.packets = figures.count;
    flood.speed_pps = figures.fast.latest_pps;
    flood.limit_pps = figures.fast.limit_pps;
    flood.peak_pps = figures.fast.peak_pps;
    flood.is_denied = figures.sw_deny_on == 1;
    flood.is_recorded = figures.cap_on == 1;
    return true;
}

const AlarmEvent *first_alarm(const StandingFlood &flood) {
    return flood.fast != nullptr ? flood.fast : flood.slow;
}

void append(std::string &text, const std::string &more) {
    text += (text.empty() ? "" : ", ") + more;
}

// What is done about it, as the verdict of a replay words it.
std::string done_text(const StandingFlood &flood) {
    std::string text;
    if (const AlarmEvent *alarm = first_alarm(flood)) {
        append(text, std::string(flood.fast != nullptr ? "alarm " : "long-period alarm ") +
                         clock_text(alarm->realtime_ns, false));
    } else {
        append(text, "no alarm");
    }
    if (!flood.rules.empty()) {
        append(text, counted(flood.rules.size(), "rule", "rules"));
        append(text, "chip stopped " + with_commas(flood.stopped()));
    }
    if (flood.is_denied) {
        append(text, "denied in software");
    }
    if (flood.is_recorded) {
        append(text, "recorded");
    }
    return text;
}

}  // namespace

uint64_t StandingFlood::stopped() const {
    uint64_t sum = 0;
    for (const card::ChipRule &rule : rules) {
        sum += rule.packets;
    }
    return sum;
}

// Only those that are shown are asked about: a wide flood has as many sources as it likes.
StandingFloods standing_floods(const Run &run, size_t at_most) {
    StandingFloods result;
    const StandingAlarms &fast = run.alarms().standing(AlarmEvent::Period::kFast);
    const StandingAlarms &slow = run.alarms().standing(AlarmEvent::Period::kLong);
    const RulesByOwner owners = rules_by_owner(run.journal().rules(), run.now_ns());
    std::vector<Candidate> all = all_floods(fast, slow, owners);
    result.fast_alarms = fast.size();
    result.long_alarms = slow.size();
    result.number = all.size();
    const auto end = all.begin() + static_cast<std::ptrdiff_t>(std::min(at_most, all.size()));
    std::ranges::partial_sort(all, end, [](const Candidate &a, const Candidate &b) {
        return a.rate_pps != b.rate_pps ? a.rate_pps > b.rate_pps : *a.subject < *b.subject;
    });
    for (const Candidate &candidate : std::span(all.begin(), end)) {
        StandingFlood flood;
        flood.subject = *candidate.subject;
        flood.fast = alarm_of(fast, flood.subject);
        flood.slow = alarm_of(slow, flood.subject);
        if (const auto own = owners.find(flood.subject); own != owners.end()) {
            flood.rules = own->second.rules;
        }
        if (ask_module(flood)) {
            result.floods.push_back(std::move(flood));
        }
    }
    return result;
}

void print_floods(const StandingFloods &floods) {
    if (floods.floods.empty()) {
        std::printf("(none)\n");
        return;
    }
    constexpr auto left = TextTable::Align::kLeft;
    constexpr auto right = TextTable::Align::kRight;
    TextTable table({{"protocol", left},
                     {"port", right},
                     {"vlan", right},
                     {"source", left},
                     {"last-period/s", right},
                     {"limit/s", right},
                     {"peak-period/s", right},
                     {"what is done", left}});
    for (const StandingFlood &flood : floods.floods) {
        const auto &[flow, source] = flood.subject;
        table.add({protocol_name(flow.protocol), std::to_string(flow.port), std::to_string(flow.vlan),
                   source.type == ATC_SRC_NONE ? "(all)" : source_text(source), std::to_string(flood.speed_pps),
                   std::to_string(flood.limit_pps), std::to_string(flood.peak_pps), done_text(flood)});
    }
    table.print(stdout, kScreenWidth);
    if (floods.number > floods.floods.size()) {
        std::printf("%zu of %zu\n", floods.floods.size(), floods.number);
    }
}

Json floods_json(const StandingFloods &floods) {
    Json json = {{"fast_alarms", floods.fast_alarms},
                 {"long_alarms", floods.long_alarms},
                 {"number", floods.number},
                 {"floods", Json::array()}};
    const auto time_of = [](const AlarmEvent *alarm) {
        return alarm == nullptr ? Json(nullptr) : Json(card::time_text(alarm->realtime_ns));
    };
    for (const StandingFlood &flood : floods.floods) {
        Json entry = flow_key_json(flood.subject.flow);
        const Source &source = flood.subject.source;
        entry["source"] = source.type == ATC_SRC_NONE ? Json(nullptr) : source_json(source);
        entry["packets"] = flood.packets;
        entry["speed_pps"] = flood.speed_pps;
        entry["limit_pps"] = flood.limit_pps;
        entry["peak_pps"] = flood.peak_pps;
        entry["fast_alarm"] = time_of(flood.fast);
        entry["long_alarm"] = time_of(flood.slow);
        entry["software_deny_on"] = flood.is_denied;
        entry["capture_on"] = flood.is_recorded;
        entry["stopped_in_chip"] = flood.stopped();
        entry["entry_ids"] = Json::array();
        for (const card::ChipRule &rule : flood.rules) {
            entry["entry_ids"].push_back(rule.entry_id);
        }
        json["floods"].push_back(std::move(entry));
    }
    return json;
}

}  // namespace host::console
