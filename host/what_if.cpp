// SPDX-License-Identifier: Apache-2.0
#include "what_if.h"

#include <algorithm>
#include <cinttypes>
#include <nlohmann/json.hpp>

#include "console/command.h"
#include "console/grammar.h"
#include "text_table.h"
#include "trial.h"
#include "verdict/flood_data.h"
#include "verdict/rule_words.h"
#include "verdict/words.h"

namespace host {

namespace {

constexpr auto kLeft = TextTable::Align::kLeft;
constexpr auto kRight = TextTable::Align::kRight;
constexpr size_t kFloodsShown = 10;

struct Figure {
    const char *key;
    const char *text;
};
constexpr Figure kFigures[] = {{"floods", "floods"},
                               {"alarms_raised", "alarms raised"},
                               {"received", "packets received"},
                               {"stopped_in_chip", "  stopped in the chip"},
                               {"dropped_in_software", "  dropped in software"},
                               {"passed", "  passed"},
                               {"rules_installed", "rules that floods brought"},
                               {"rules_refused", "  refused by the chip"},
                               {"stopped_of_others", "  packets of others that they stopped"}};

struct Counts {
    uint64_t received = 0;
    uint64_t stopped = 0;
    uint64_t dropped = 0;
    uint64_t passed = 0;
};

Json counts_json(const Counts &counts) {
    return {{"received", counts.received},
            {"stopped_in_chip", counts.stopped},
            {"dropped_in_software", counts.dropped},
            {"passed", counts.passed}};
}

std::string class_name(uint32_t id) {
    return id == 0 ? "no class" : protocol_name(id);
}

Json classes_json(const TrafficAccount &account, const ClassCounts &others) {
    std::array<Counts, FastLimits::kSlots> classes{};
    for (const auto &[key, traffic] : account.flows()) {
        Counts &of = classes.at(key.protocol);
        of.received += traffic.packets;
        of.stopped += traffic.stopped;
        of.dropped += traffic.dropped;
        of.passed += traffic.passed();
    }
    Json json = Json::object();
    for (uint32_t id = 0; id < classes.size(); id++) {
        if (classes.at(id).received > 0) {
            Json row = counts_json(classes.at(id));
            row["stopped_of_others"] = others.at(id);
            json[class_name(id)] = std::move(row);
        }
    }
    return json;
}

// In the child.
Json figures_of(const TrialView &view) {
    const FlowRules rules = all_rules(view.replay.journal().rules());
    uint64_t others = 0;
    for (const uint64_t count : rules.others) {
        others += count;
    }
    const Traffic &total = view.account.total();
    Json json = {{"floods", view.verdict.flood_count()}, {"alarms_raised", view.verdict.alarms_raised()}};
    json.update(counts_json({total.packets, total.stopped, total.dropped, total.passed()}));
    json["rules_installed"] = rules.installed;
    json["rules_refused"] = rules.refused;
    json["stopped_of_others"] = others;
    json["classes"] = classes_json(view.account, rules.others);
    json["others"] = class_counts_text(rules.others);
    json["flows"] = Json::array();
    for (const Flood &flood : view.verdict.floods()) {
        if (!flood.is_moment()) {
            json["flows"].push_back(flood_json(flood));
        }
    }
    return json;
}

// Without their secrets.
std::vector<std::string> shown_lines(const ReplayOptions &options) {
    const console::Grammar grammar(console::commands());
    std::vector<std::string> lines;
    for (const std::string &line : options.what_if) {
        lines.push_back(grammar.without_secrets(line));
    }
    return lines;
}

std::string signed_text(int64_t difference) {
    return (difference > 0   ? "+"
            : difference < 0 ? "-"
                             : "") +
           with_commas(static_cast<uint64_t>(difference < 0 ? -difference : difference));
}

int64_t difference_of(const Json &without, const Json &with, const char *key) {
    return with.at(key).get<int64_t>() - without.at(key).get<int64_t>();
}

// "0 -> 119,949", or the number alone where it stays; "-" for what is no flood on that side.
std::string change_text(const Json &without, const Json &with, const char *key) {
    const auto text = [key](const Json &side) { return side.is_null() ? "-" : with_commas(side.at(key)); };
    const std::string before = text(without);
    const std::string after = text(with);
    return before == after ? before : before + " -> " + after;
}

std::string more_or_fewer(int64_t difference) {
    return difference == 0
               ? "as many"
               : with_commas(static_cast<uint64_t>(std::abs(difference))) + (difference > 0 ? " more" : " fewer");
}

std::vector<std::string> answer(const Json &without, const Json &with) {
    const int64_t others = difference_of(without, with, "stopped_of_others");
    std::vector<std::string> lines;
    lines.push_back("Of " + with_commas(with.at("received")) + " packets " +
                    more_or_fewer(difference_of(without, with, "passed")) + " reach the CPU: the chip stops " +
                    more_or_fewer(difference_of(without, with, "stopped_in_chip")) + ", software drops " +
                    more_or_fewer(difference_of(without, with, "dropped_in_software")) +
                    "; alarms: " + more_or_fewer(difference_of(without, with, "alarms_raised")) + ".");
    const uint64_t now = with.at("stopped_of_others");
    if (now > 0) {
        lines.push_back("Stopped with the floods, of other classes, VLANs or senders: " + with_commas(now) + " (" +
                        with.at("others").get<std::string>() + "), " + more_or_fewer(others) + " than without.");
    } else if (with.at("rules_installed") > 0) {
        lines.emplace_back("The chip's rules stop nothing of other classes, VLANs or senders than the floods'.");
    }
    return lines;
}

void print_totals(const Json &without, const Json &with) {
    TextTable table({{"", kLeft}, {"without", kRight}, {"with", kRight}, {"difference", kRight}});
    for (const auto &[key, text] : kFigures) {
        table.add({text, with_commas(without.at(key)), with_commas(with.at(key)),
                   signed_text(difference_of(without, with, key))});
    }
    table.print(stdout);
}

void print_classes(const Json &without, const Json &with) {
    TextTable table({{"protocol", kLeft},
                     {"received", kRight},
                     {"stopped", kRight},
                     {"dropped", kRight},
                     {"passed", kRight},
                     {"stopped as others", kRight}});
    bool differ = false;
    for (const auto &[name, after] : with.at("classes").items()) {
        const Json &before = without.at("classes").at(name);
        if (before != after) {
            differ = true;
            table.add({name, with_commas(after.at("received")), change_text(before, after, "stopped_in_chip"),
                       change_text(before, after, "dropped_in_software"), change_text(before, after, "passed"),
                       change_text(before, after, "stopped_of_others")});
        }
    }
    if (differ) {
        std::fputs("\nClasses of whose packets something else becomes (without -> with)\n", stdout);
        table.print(stdout, kScreenWidth);
    } else {
        std::fputs("\nThe packets of every class fare as without.\n", stdout);
    }
}

// Floods are the same traffic in both; which ones count as such may depend on limits.
void print_floods(const Json &without, const Json &with) {
    TextTable table({{"protocol", kLeft},
                     {"port", kRight},
                     {"vlan", kRight},
                     {"packets", kRight},
                     {"alarms", kRight},
                     {"stopped", kRight},
                     {"dropped", kRight},
                     {"passed", kRight}});
    const Json none;
    size_t rows = 0;
    const auto add = [&](const Json &flood, const Json &before, const Json &after) {
        if (rows++ < kFloodsShown) {
            const Json &protocol = flood.at("protocol");
            table.add({protocol.is_null() ? "no class" : protocol.get<std::string>(),
                       std::to_string(flood.at("port").get<uint32_t>()),
                       std::to_string(flood.at("vlan").get<uint32_t>()), with_commas(flood.at("packets")),
                       change_text(before, after, "alarms_raised"), change_text(before, after, "stopped_in_chip"),
                       change_text(before, after, "dropped_in_software"), change_text(before, after, "passed")});
        }
    };
    const auto find_in = [](const Json &flows, const Json &flood) -> const Json * {
        const auto found = std::ranges::find_if(flows, [&flood](const Json &other) {
            return other.at("port") == flood.at("port") && other.at("vlan") == flood.at("vlan") &&
                   other.at("protocol") == flood.at("protocol");
        });
        return found == flows.end() ? nullptr : &*found;
    };
    for (const Json &flood : without.at("flows")) {
        const Json *after = find_in(with.at("flows"), flood);
        add(flood, flood, after != nullptr ? *after : none);
    }
    for (const Json &flood : with.at("flows")) {
        if (find_in(without.at("flows"), flood) == nullptr) {
            add(flood, none, flood);
        }
    }
    if (rows > 0) {
        std::fputs("\nFloods (without -> with)\n", stdout);
        table.print(stdout, kScreenWidth);
    }
    if (rows > kFloodsShown) {
        std::printf("and %s more: --json\n", with_commas(rows - kFloodsShown).c_str());
    }
}

void print_text(const ReplayOptions &options, const Json &without, const Json &with) {
    for (const std::string &line : shown_lines(options)) {
        std::printf("What if: %s\n", line.c_str());
    }
    for (const std::string &line : answer(without, with)) {
        print_wrapped(stdout, line, 0);
    }
    std::fputs("\n", stdout);
    print_totals(without, with);
    print_classes(without, with);
    print_floods(without, with);
}

void print_data(const ReplayOptions &options, const Json &without, const Json &with) {
    Json json = {{"what_if", shown_lines(options)}, {"answer", answer(without, with)}};
    for (const auto &[key, text] : kFigures) {
        json["difference"][key] = difference_of(without, with, key);
    }
    json["without"] = without;
    json["with"] = with;
    print_json(stdout, json);
}

}  // namespace

int what_if_command(const ReplayOptions &options) {
    if (std::ranges::count(options.files, kStandardInput) > 0) {
        std::fputs("anti-cpu: -: --what-if reads its captures twice, standard input comes once\n", stderr);
        return kExitUsage;
    }
    ReplayOptions first = options;
    first.what_if.clear();
    const TrialResult without = run_trial(first, Problems::Tell::kAtOnce, figures_of);
    if (!without.has_figures()) {
        return without.status;
    }
    const TrialResult with = run_trial(options, Problems::Tell::kNot, figures_of);
    if (!with.has_figures()) {
        return with.status;
    }
    options.json ? print_data(options, without.figures, with.figures)
                 : print_text(options, without.figures, with.figures);
    Problems problems;
    problems.check_written(stdout, "standard output");
    return problems.count() == 0 ? without.status : kExitRefused;
}

}  // namespace host
