// SPDX-License-Identifier: Apache-2.0
#include "verdict/verdict.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "clock/clock.h"
#include "services/services.h"
#include "text_table.h"
#include "verdict/rule_words.h"
#include "verdict/senders.h"
#include "verdict/words.h"

namespace host {

namespace {

constexpr size_t kFloodsShown = 10;
constexpr size_t kNotesShown = 2;  // about alarms

std::string place_text(const Flood &flood) {
    const std::string what = flood.flow.protocol == 0 ? "frames of no class" : protocol_name(flood.flow.protocol);
    return what + " on port " + std::to_string(flood.flow.port) + ", VLAN " + std::to_string(flood.flow.vlan);
}

}  // namespace

Verdict::Verdict(const Replay &replay, const TrafficAccount &account, const AlarmHistory &alarms,
                 const ModuleSettings &settings, const Commands &commands)
    : replay_(replay),
      account_(account),
      settings_(settings),
      floods_(find_floods(account, alarms, replay.journal().rules())) {
    for (const auto &[flow, of_flow] : alarms.flows()) {
        alarms_raised_ += of_flow.raised;
    }
    flood_count_ = static_cast<size_t>(std::ranges::count_if(floods_, std::not_fn(&Flood::is_moment)));
    hidden_count_ = static_cast<size_t>(
        std::ranges::count_if(floods_, [](const Flood &flood) { return flood.is_hidden() && !flood.is_moment(); }));
    fitting_period_s_ = fitting_period_s(floods_, settings_.fast_period_s);
    const bool is_quiet = account.total().packets > 0 && floods_.empty();
    advice_ = is_quiet ? advice_to_tune(commands) : advice_for(floods_, settings_, fitting_period_s_, commands.replay);
    with_date_ = card::time_text(replay.start_ns()).substr(0, 10) != card::time_text(replay.now_ns()).substr(0, 10);
}

std::string Verdict::when(int64_t realtime_ns) const {
    return clock_text(realtime_ns, with_date_);
}

std::string Verdict::headline() const {
    if (account_.total().packets == 0) {
        return "Nothing came in: the capture holds no received packet.";
    }
    const std::string span = length_text(capture_length_ns()) + " of traffic (" + card::time_text(replay_.start_ns()) +
                             " to " + when(replay_.last_packet_ns()) + " UTC)";
    if (is_flooded()) {
        const std::string alarms = alarms_raised_ == 0 ? "no alarm" : counted(alarms_raised_, "alarm", "alarms");
        return "FLOODED: " + counted(flood_count_, "flood", "floods") + " in " + span + ", " + alarms + " raised.";
    }
    if (!floods_.empty()) {
        return "NOT FLOODED: " + counted(floods_.size(), "flow was", "flows were") +
               " over the limit for a moment, none for long, in " + span + ".";
    }
    return "NOT FLOODED: in " + span + " no flow and no sender had more packets in any second than its limit allows.";
}

std::string Verdict::worst_text() const {
    const Flood &worst = floods_.front();
    const std::string until =
        worst.over->times() > 1 ? " to " + when(worst.last_ns()) + ", " + std::to_string(worst.over->times()) + " times"
                                : " for " + length_text(worst.last_ns() - worst.first_ns());
    return (floods_.size() > 1 ? "The worst: " : "It was ") + place_text(worst) + ", from " + when(worst.first_ns()) +
           until + ": " + with_commas(worst.average_pps()) + " packets a second, " +
           with_commas(worst.traffic->second.peak()) + " in the busiest second, where " + with_commas(worst.limit_pps) +
           " are allowed. From " + senders_text(worst) + ".";
}

// Why there is no alarm where there was a flood, or a moment of one.
std::optional<std::string> Verdict::period_text() const {
    const std::string period = "over the fast period of " + std::to_string(settings_.fast_period_s) + " s";
    const bool is_short = capture_length_ns() < int64_t{settings_.fast_period_s} * card::kNanosecondsPerSecond;
    if (!floods_.empty() && !is_flooded()) {
        return "No alarm was due: " + period +
               " the average stays within the limit. --fast-period 1 judges by the second.";
    }
    if (!fitting_period_s_) {
        return std::nullopt;
    }
    const bool is_one = hidden_count_ == 1;
    const std::string which = hidden_count_ < flood_count_
                                  ? with_commas(hidden_count_) + (is_one ? " of them raises" : " of them raise")
                                  : (is_one ? "It raises" : "They raise");
    return which + " no alarm: " + period + (is_short ? ", longer than the capture," : "") +
           " the average stays within the limit. --fast-period " + std::to_string(*fitting_period_s_) + " shows " +
           (is_one ? "it." : "them.");
}

// Floods that the chip has kept from raising an alarm.
std::optional<std::string> Verdict::held_text() const {
    uint64_t stopped = 0;
    size_t held = 0;
    for (const Flood &flood : floods_) {
        if (flood.alarms.raised == 0 && flood.traffic->stopped > 0) {
            held++;
            stopped += flood.traffic->stopped;
        }
    }
    if (held == 0) {
        return std::nullopt;
    }
    return "The chip kept " + (flood_count_ == 1 ? std::string("it") : with_commas(held) + " of them") +
           " below the limit, so that no alarm was due: it stopped " + with_commas(stopped) + " packets.";
}

std::vector<std::string> Verdict::answer() const {
    std::vector<std::string> lines{headline()};
    if (!settings_.enabled) {
        lines.emplace_back("The module is switched off (set enable off): it counts and limits nothing.");
    }
    if (!floods_.empty()) {
        lines.push_back(worst_text());
    } else if (account_.total().packets > 0) {
        const auto busiest = std::ranges::max_element(account_.flows(), {},
                                                      [](const FlowTraffic &flow) { return flow.all.second.peak(); });
        Flood flow;
        flow.flow = busiest->key;
        lines.push_back("The busiest was " + place_text(flow) + ": " +
                        counted(busiest->all.second.peak(), "packet", "packets") + " in a second, where " +
                        with_commas(account_.limits().flow[busiest->key.protocol]) + " are allowed.");
    }
    if (const auto text = period_text()) {
        lines.push_back(*text);
    }
    if (const auto text = held_text()) {
        lines.push_back(*text);
    }
    return lines;
}

std::string Verdict::done_text(const Flood &flood) const {
    std::string text = "no alarm";
    if (flood.is_outside()) {
        text = "no limit acts here";
    } else if (flood.alarms.raised > 0) {
        text = "alarm " + when(flood.alarms.first_raised_ns) +
               (flood.alarms.standing > 0 ? "" : " to " + when(flood.alarms.last_cleared_ns));
    }
    if (const std::string rules = flow_rules_text(flood.rules, with_date_); !rules.empty()) {
        text += ", " + rules;
    }
    if (flood.traffic->stopped > 0) {
        text += ", chip stopped " + with_commas(flood.traffic->stopped);
    }
    if (flood.traffic->dropped > 0) {
        text += ", software dropped " + with_commas(flood.traffic->dropped);
    }
    return text;
}

void Verdict::print_floods(std::FILE *out, Floods shown) const {
    constexpr auto left = TextTable::Align::kLeft;
    constexpr auto right = TextTable::Align::kRight;
    TextTable table({{"protocol", left},
                     {"port", right},
                     {"vlan", right},
                     {"first", left},
                     {"last", left},
                     {"peak/s", right},
                     {"average/s", right},
                     {"limit/s", right},
                     {"from whom; what was done", left}});
    const size_t rows = shown == Floods::kAll ? floods_.size() : std::min(floods_.size(), kFloodsShown);
    for (size_t i = 0; i < rows; i++) {
        const Flood &flood = floods_[i];
        table.add({flood.flow.protocol == 0 ? "no class" : protocol_name(flood.flow.protocol),
                   std::to_string(flood.flow.port), std::to_string(flood.flow.vlan), when(flood.first_ns()),
                   when(flood.last_ns()), with_commas(flood.traffic->second.peak()), with_commas(flood.average_pps()),
                   with_commas(flood.limit_pps), senders_text(flood) + "; " + done_text(flood)});
    }
    std::fputs("\nFloods, most harmful first (peak: the busiest second; average: while over the limit)\n", out);
    table.print(out, kScreenWidth);
    if (floods_.size() > rows) {
        std::fprintf(out, "and %s more: --all\n", with_commas(floods_.size() - rows).c_str());
    }
}

// What in the log misleads, and what no limit sees.
std::vector<std::string> Verdict::notes() const {
    std::vector<std::string> notes;
    for (const Flood &flood : floods_) {
        const Traffic &traffic = *flood.traffic;
        const auto &cleared = flood.alarms.lowest_cleared;
        const bool misleads = cleared && traffic.stopped > 0 && traffic.first_stopped_ns < cleared->realtime_ns &&
                              cleared->realtime_ns < traffic.last_stopped_ns;
        if (misleads && notes.size() < kNotesShown) {
            const double seconds = static_cast<double>(traffic.last_stopped_ns - traffic.first_stopped_ns) / 1e9;
            const auto rate =
                static_cast<uint64_t>(std::llround(static_cast<double>(traffic.stopped) / std::max(seconds, 0.1)));
            const Source &source = cleared->subject.source;
            const std::string from = source.type == ATC_SRC_NONE ? "" : " from " + source_text(source);
            notes.push_back("Alarms count what reaches the CPU: " + place_text(flood) + from + " \"restore ... " +
                            std::to_string(cleared->rate_pps) + "/" + std::to_string(cleared->limit_pps) +
                            "(pps)\" at " + when(cleared->realtime_ns) + " while the chip was stopping " +
                            with_commas(rate) + " a second; the flood went on.");
        }
    }
    add_outside(notes, true, "No limit acts in VLAN 4089: the module counts its packets for the VLAN only.");
    add_outside(notes, false,
                "No limit or deny acts on frames of no class (more than four VLAN tags or MPLS labels, or IP of no "
                "version).");
    return notes;
}

// The most harmful flood of its kind that the limiter does not act on.
void Verdict::add_outside(std::vector<std::string> &notes, bool untracked_vlan, const char *why) const {
    const auto found = std::ranges::find_if(floods_, [untracked_vlan](const Flood &flood) {
        return flood.is_outside() && !flood.is_moment() && (flood.flow.vlan == kUntrackedVlan) == untracked_vlan;
    });
    if (found != floods_.end()) {
        notes.push_back(std::string(why) + " A filter of the chip stops them: \"" + filter_line(*found, 1) + "\".");
    }
}

void Verdict::print(std::FILE *out, Floods shown) const {
    for (const std::string &line : answer()) {
        print_wrapped(out, line, 0);
    }
    if (!floods_.empty()) {
        print_floods(out, shown);
    }
    for (const std::string &line : notes()) {
        print_wrapped(out, "Note: " + line, 2);
    }
    const Traffic &total = account_.total();
    std::fprintf(out, "\nOf %s packets received the chip stopped %s, software dropped %s, %s passed.\n",
                 with_commas(total.packets).c_str(), with_commas(total.stopped).c_str(),
                 with_commas(total.dropped).c_str(), with_commas(total.passed()).c_str());
    if (const std::string text = all_rules_text(all_rules(replay_.journal().rules()), total.stopped); !text.empty()) {
        print_wrapped(out, text, 0);
    }
    if (!advice_.command.empty()) {
        std::fputs("\nTry next:\n", out);
        for (const std::string &reason : advice_.reasons) {
            print_wrapped(out, "  - " + reason, 4);
        }
        std::fprintf(out, "%s\n", advice_.command.c_str());
    }
}

Json Verdict::verdict_json() const {
    Json json = {{"flooded", is_flooded()},
                 {"answer", answer()},
                 {"floods", flood_count_},
                 {"moments", floods_.size() - flood_count_},
                 {"hidden_by_period", hidden_count_},
                 {"fast_period_s", settings_.fast_period_s},
                 {"fitting_fast_period_s", fitting_period_s_ ? Json(*fitting_period_s_) : Json(nullptr)},
                 {"capture_seconds", static_cast<double>(capture_length_ns()) / 1e9},
                 {"alarms_raised", alarms_raised_}};
    json["notes"] = notes();
    json["rules"] = flow_rules_json(all_rules(replay_.journal().rules()));
    json["peak_second_packets"] = account_.total().second.peak();
    json["try_next"] = advice_.command.empty() ? Json(nullptr) : Json(advice_.command);
    json["reasons"] = advice_.reasons;
    return json;
}

}  // namespace host
