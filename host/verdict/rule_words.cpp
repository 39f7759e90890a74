// SPDX-License-Identifier: Apache-2.0
#include "verdict/rule_words.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <numeric>
#include <vector>

#include "events/event_json.h"
#include "verdict/words.h"

namespace host {

namespace {

uint64_t sum_of(const ClassCounts &counts) {
    return std::accumulate(counts.begin(), counts.end(), uint64_t{0});
}

}  // namespace

std::string flow_rules_text(const FlowRules &rules, bool with_date) {
    std::string text;
    if (rules.installed > 0) {
        const bool is_gone = rules.withdrawn >= rules.installed;
        text = (rules.installed == 1 ? "rule " : with_commas(rules.installed) + " rules ") + (is_gone ? "" : "since ") +
               clock_text(rules.first_installed_ns, with_date) +
               (is_gone ? " to " + clock_text(rules.last_withdrawn_ns, with_date) : "");
    }
    if (rules.refused > 0) {
        text += (text.empty() ? "" : ", ") + counted(rules.refused, "rule", "rules") + " refused";
    }
    return text;
}

std::string all_rules_text(const FlowRules &rules, uint64_t stopped) {
    std::string text;
    if (rules.installed > 0) {
        const uint64_t others = sum_of(rules.others);
        text = "Floods brought " + counted(rules.installed, "rule", "rules") + " into the chip (" +
               with_commas(rules.withdrawn) + " withdrawn since) that stopped " + with_commas(rules.stopped) +
               " packets, " +
               (others == 0 ? "none of other classes, VLANs or senders than it was for."
                            : with_commas(others) + " of them of other classes, VLANs or senders than the flood's: " +
                                  class_counts_text(rules.others) + ".");
    }
    if (rules.refused > 0) {
        text += (text.empty() ? "" : " ") + std::string("The chip refused ") + counted(rules.refused, "rule", "rules") +
                ".";
    }
    if (stopped > rules.stopped) {
        text += (text.empty() ? "" : " ") + std::string("Filters of the operator stopped ") +
                with_commas(stopped - rules.stopped) + ".";
    }
    return text;
}

std::string class_counts_text(const ClassCounts &counts) {
    std::vector<uint32_t> classes;
    for (uint32_t id = 0; id < counts.size(); id++) {
        if (counts[id] > 0) {
            classes.push_back(id);
        }
    }
    std::ranges::stable_sort(classes, std::greater(), [&counts](uint32_t id) { return counts[id]; });
    std::string text;
    for (const uint32_t id : classes) {
        text += (text.empty() ? "" : ", ") + (id == 0 ? std::string("no class") : protocol_name(id)) + " " +
                with_commas(counts[id]);
    }
    return text;
}

Json flow_rules_json(const FlowRules &rules) {
    return {{"installed", rules.installed},
            {"refused", rules.refused},
            {"withdrawn", rules.withdrawn},
            {"stopped", rules.stopped},
            {"stopped_of_others", class_counts_json(rules.others)}};
}

}  // namespace host
