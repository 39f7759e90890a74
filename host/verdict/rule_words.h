// SPDX-License-Identifier: Apache-2.0
// rule_words.h: what the chip's rules have done, in words and as data, the packets that they were not for included.
//
// Used by: verdict, flood_data, what_if. Uses: rule_book. Pure.
#pragma once

#include <string>

#include "events/rule_book.h"
#include "json_writer.h"

namespace host {

// Of one flood: "rule 03:46:31 to 03:51:20", "2 rules since 03:46:31, 3 rules refused"; empty without rules.
std::string flow_rules_text(const FlowRules &rules, bool with_date);

// Of all floods, as sentences; empty when there was no rule. 'stopped': by the chip in all.
std::string all_rules_text(const FlowRules &rules, uint64_t stopped);

// "bgp 69, ssh 3", most first.
std::string class_counts_text(const ClassCounts &counts);

Json flow_rules_json(const FlowRules &rules);

}  // namespace host
