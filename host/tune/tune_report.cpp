// SPDX-License-Identifier: Apache-2.0
#include "tune/tune_report.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "text_table.h"
#include "verdict/words.h"

namespace host {

namespace {

constexpr auto kLeft = TextTable::Align::kLeft;
constexpr auto kRight = TextTable::Align::kRight;

struct Totals {
    uint64_t captures = 0;
    uint64_t packets = 0;
    uint64_t alarms = 0;
};

Totals totals_of(const Tuning &tuning, bool of_floods) {
    Totals totals;
    for (const CaptureToTune &capture : tuning.captures()) {
        if (capture.flood.has_value() == of_floods) {
            totals.captures++;
            totals.packets += capture.packets;
            totals.alarms += capture.alarms;
        }
    }
    return totals;
}

std::string captures_text(const Totals &totals, const char *kind) {
    return counted(totals.captures, (std::string(kind) + " capture").c_str(),
                   (std::string(kind) + " captures").c_str()) +
           " (" + with_commas(totals.packets) + " packets)";
}

std::string alarms_text(const Totals &totals, const char *kind) {
    return std::string(kind) + " raise " +
           (totals.alarms == 0 ? std::string("no alarm") : counted(totals.alarms, "alarm", "alarms"));
}

bool has_sources(const ClassTuning &of) {
    return of.good.source.second + of.in_floods.source.second > 0;
}

std::vector<std::string> answer(const Tuning &tuning, const TuneOptions &options) {
    const Totals good = totals_of(tuning, false);
    const Totals floods = totals_of(tuning, true);
    const std::string period = std::to_string(tuning.settings().fast_period_s);
    std::vector<std::string> lines;
    lines.push_back("Limits from " + captures_text(good, "good") +
                    (floods.captures > 0 ? " and " + captures_text(floods, "flood") : "") + ", for a fast period of " +
                    period + " s, with a margin of " + times_text(options.margin) + ".");
    lines.push_back("Replayed with them, the good captures " + alarms_text(good, "").substr(1) +
                    (floods.captures > 0 ? "; those of floods" + alarms_text(floods, "") : "") + ".");
    for (const ClassTuning &of : tuning.classes()) {
        for (const Choice *choice : {&of.flow, &of.source}) {
            if (!choice->pps && (choice == &of.flow || has_sources(of))) {
                lines.push_back("Not chosen: " + protocol_name(of.protocol) +
                                (choice == &of.flow ? ": " : " source: ") + choice->why + ".");
            }
        }
    }
    for (const CaptureToTune &capture : tuning.captures()) {
        if (capture.flood && capture.flood->flows.empty()) {
            lines.push_back(capture.path +
                            ": no flood found in it: no flow is over its limit or over what good captures ask for.");
        }
    }
    return lines;
}

std::string flood_text(const std::optional<Peaks> &flood, uint32_t period_s) {
    return flood ? rate_text(flood->period, period_s) : "-";
}

void print_limits(std::FILE *out, const Tuning &tuning) {
    TextTable table({{"limit", kLeft},
                     {"good/s", kRight},
                     {"period/s", kRight},
                     {"flood/s", kRight},
                     {"period/s", kRight},
                     {"now", kRight},
                     {"set", kRight},
                     {"why", kLeft}});
    const uint32_t period_s = tuning.settings().fast_period_s;
    const auto add = [&](const std::string &name, const Peaks &good, const std::optional<Peaks> &flood, uint32_t now,
                         const Choice &choice) {
        table.add({name, with_commas(good.second), rate_text(good.period, period_s),
                   flood ? with_commas(flood->second) : "-", flood_text(flood, period_s), with_commas(now),
                   choice.pps ? with_commas(*choice.pps) : "-", choice.pps ? choice.why : "good and flood overlap"});
    };
    for (const ClassTuning &of : tuning.classes()) {
        const ProtocolSettings &now = tuning.settings().protocols.at(of.protocol);
        add(protocol_name(of.protocol), of.good.flow, of.flood, now.fast_limit, of.flow);
        if (has_sources(of)) {
            add("  source", of.good.source, of.flood_source, now.source_fast_limit, of.source);
        }
    }
    std::fputs(
        "\nLimits, packets a second (busiest second and busiest fast period of any flow, and of any sender in one)\n",
        out);
    table.print(out, kScreenWidth);
}

std::string factor_text(double factor) {
    return factor < 1 ? "1/2" : times_text(factor);
}

void print_effects(std::FILE *out, const Tuning &tuning) {
    TextTable table({{"limit", kLeft},
                     {"times", kRight},
                     {"good flows over", kRight},
                     {"for", kRight},
                     {"stopped", kRight},
                     {"flood flows over", kRight},
                     {"for", kRight},
                     {"stopped", kRight},
                     {"denied", kLeft}});
    bool any = false;
    for (const ClassTuning &of : tuning.classes()) {
        for (size_t i = 0; i < kFactors.size(); i++) {
            const Over &good = of.good_over.at(i);
            const Over &flood = of.flood_over.at(i);
            if (good.flows + good.stopped + flood.flows + flood.stopped == 0) {
                continue;
            }
            any = true;
            const auto seconds = [](const Over &over) {
                return length_text(static_cast<int64_t>(over.seconds * OverLimit::kSecondNs));
            };
            table.add({protocol_name(of.protocol) + " " + with_commas(tuning.base(of)), factor_text(kFactors.at(i)),
                       with_commas(good.flows), seconds(good), with_commas(good.stopped), with_commas(flood.flows),
                       seconds(flood), with_commas(flood.stopped), of.by_source ? "by sender" : "as a whole"});
        }
    }
    std::fputs(
        "\nAt half, one, two and five times the limits, with each class denied in the chip: flows with a second over\n"
        "the limit, how long the longest of them was, and packets stopped\n",
        out);
    any ? table.print(out, kScreenWidth) : static_cast<void>(std::fputs("(nothing would be over or stopped)\n", out));
    if (any) {
        std::fputs("Rows of nothing over and nothing stopped are left out.\n", out);
    }
}

Json peaks_json(const Peaks &peaks, uint32_t period_s) {
    return {{"second_packets", peaks.second},
            {"period_packets", peaks.period},
            {"period_pps", static_cast<double>(peaks.period) / period_s}};
}

Json choice_json(const Choice &choice, const Peaks &good, const std::optional<Peaks> &flood, uint32_t now,
                 uint32_t period_s) {
    return {{"good", peaks_json(good, period_s)},
            {"flood", flood ? peaks_json(*flood, period_s) : Json(nullptr)},
            {"now_pps", now},
            {"needed_pps", choice.needed},
            {"recommended_pps", choice.pps ? Json(*choice.pps) : Json(nullptr)},
            {"overlap", !choice.pps},
            {"why", choice.why}};
}

Json over_json(const Over &over) {
    return {{"flows_over", over.flows}, {"longest_seconds_over", over.seconds}, {"stopped", over.stopped}};
}

Json class_json(const Tuning &tuning, const ClassTuning &of) {
    const ProtocolSettings &now = tuning.settings().protocols.at(of.protocol);
    const uint32_t period_s = tuning.settings().fast_period_s;
    Json json = {{"protocol", protocol_name(of.protocol)},
                 {"good_packets", of.good.packets},
                 {"good_flows", of.good.flows},
                 {"flood_capture_packets", of.in_floods.packets},
                 {"flow", choice_json(of.flow, of.good.flow, of.flood, now.fast_limit, period_s)}};
    json["source"] = has_sources(of)
                         ? choice_json(of.source, of.good.source, of.flood_source, now.source_fast_limit, period_s)
                         : Json(nullptr);
    json["denied_by_source"] = of.by_source;
    json["effects"] = Json::array();
    for (size_t i = 0; i < kFactors.size(); i++) {
        json["effects"].push_back({{"times", kFactors.at(i)},
                                   {"of_pps", tuning.base(of)},
                                   {"of_source_pps", tuning.source_base(of)},
                                   {"good", over_json(of.good_over.at(i))},
                                   {"flood", over_json(of.flood_over.at(i))}});
    }
    json["lines"] = tuning.lines_of(of);
    return json;
}

}  // namespace

void print_tuning(std::FILE *out, const Tuning &tuning, const TuneOptions &options) {
    for (const std::string &line : answer(tuning, options)) {
        print_wrapped(out, line, 0);
    }
    if (tuning.classes().empty()) {
        return;
    }
    print_limits(out, tuning);
    print_effects(out, tuning);
}

void print_tuning_data(std::FILE *out, const Tuning &tuning, const TuneOptions &options) {
    Json json = {{"answer", answer(tuning, options)},
                 {"margin", options.margin},
                 {"fast_period_s", tuning.settings().fast_period_s},
                 {"captures", Json::array()}};
    for (const CaptureToTune &capture : tuning.captures()) {
        json["captures"].push_back({{"file", capture.path},
                                    {"flood", capture.flood.has_value()},
                                    {"packets", capture.packets},
                                    {"flood_flows", capture.flood ? capture.flood->flows.size() : 0},
                                    {"alarms_with_these_limits", capture.alarms}});
    }
    json["classes"] = Json::array();
    for (const ClassTuning &of : tuning.classes()) {
        json["classes"].push_back(class_json(tuning, of));
    }
    print_json(out, json);
}

std::string settings_file(const Tuning &tuning, const TuneOptions &options) {
    std::string text = "# " + answer(tuning, options).front() + "\n";
    if (options.replay.fast_period_s) {
        text += "set fast-period " + std::to_string(*options.replay.fast_period_s) + "\n";
    }
    for (const ClassTuning &of : tuning.classes()) {
        text += "# " + protocol_name(of.protocol) + ": " + of.flow.why + "\n";
        if (has_sources(of) && of.source.why != of.flow.why) {
            text += "# " + protocol_name(of.protocol) + " source: " + of.source.why + "\n";
        }
        for (const std::string &line : tuning.lines_of(of)) {
            text += line + "\n";
        }
    }
    return text;
}

}  // namespace host
