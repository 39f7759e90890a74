// SPDX-License-Identifier: Apache-2.0
#include "events/rule_book.h"

#include <algorithm>

#include "clock/clock.h"
#include "figures.h"

namespace host {

namespace {

// A chip without room refuses one rule a packet; those that are told apart are bounded all the same.
constexpr size_t kRefusedKept = 4096;

// "deny port 3 vlan 100 eth-type 0x0806" -> "vlan 100 eth-type 0x0806"
std::string fields_of(const std::string &description) {
    size_t at = 0;
    for (int words = 3; words > 0 && at != std::string::npos; words--) {
        at = description.find(' ', at == 0 ? 0 : at + 1);
    }
    return at == std::string::npos ? std::string() : description.substr(at + 1);
}

bool names_source(const std::string &description) {
    return description.find(" src-mac ") != std::string::npos || description.find(" src-ip ") != std::string::npos;
}

// Whether the module has a rule for the flow as a whole.
bool is_denied(const FlowKey &flow) {
    const card::SleeplessScope now;
    Figures figures;
    return flow_figures(ATC_DIRECTION_RX, {flow, {}}, figures) && figures.hw_deny_on == 1;
}

}  // namespace

std::optional<RuleEvent> RuleBook::take(const card::ChipChange &change, int64_t realtime_ns, const Subject *cause) {
    if (change.kind == card::ChipChange::Kind::kRemoved) {
        auto found = rules_.extract(change.rule.entry_id);
        if (found.empty()) {
            return std::nullopt;
        }
        last_ = nullptr;
        Rule rule = std::move(found.mapped());
        rule.packets = change.rule.packets;
        totals_.withdrawn++;
        if (rule.owner) {
            if (rule.denies) {
                totals_.stopped[{rule.owner->flow.port, rule.owner->flow.protocol}] += rule.packets;
            }
            withdrawn_[fields_of(rule.description)] = *rule.owner;
            FlowRules &flow = flows_[rule.owner->flow];
            flow.withdrawn++;
            flow.last_withdrawn_ns = realtime_ns;
        }
        return RuleEvent{RuleEvent::Kind::kWithdrawn, std::move(rule), nullptr};
    }
    Rule rule;
    rule.entry_id = change.rule.entry_id;
    rule.stat_id = change.rule.stat_id;
    rule.denies = change.rule.denies;
    rule.description = change.rule.description;
    rule.installed_ns = realtime_ns;
    find_owner(rule, cause);
    if (change.kind == card::ChipChange::Kind::kRefused) {
        if (refused_.size() >= kRefusedKept) {
            refused_.clear();
        }
        if (!refused_.insert(rule.description).second) {
            return std::nullopt;
        }
        totals_.refused++;
        if (rule.owner) {
            flows_[rule.owner->flow].refused++;
        }
        return RuleEvent{RuleEvent::Kind::kRefused, std::move(rule), change.reason};
    }
    refused_.erase(rule.description);
    totals_.installed++;
    if (rule.owner) {
        FlowRules &flow = flows_[rule.owner->flow];
        flow.first_installed_ns = flow.installed == 0 ? realtime_ns : flow.first_installed_ns;
        flow.installed++;
    }
    rules_[rule.entry_id] = rule;
    return RuleEvent{RuleEvent::Kind::kInstalled, std::move(rule), nullptr};
}

void RuleBook::stopped(uint32_t entry_id, const Subject &packet) {
    if (last_ == nullptr || last_->entry_id != entry_id) {
        const auto found = rules_.find(entry_id);
        if (found == rules_.end()) {
            return;
        }
        last_ = &found->second;
    }
    last_->packets++;
    if (!last_->owner) {
        return;
    }
    const Subject &owner = *last_->owner;
    FlowRules &flow = flows_[owner.flow];
    flow.stopped++;
    const bool is_owners =
        packet.flow == owner.flow && (owner.source.type == ATC_SRC_NONE || packet.source == owner.source);
    if (!is_owners) {
        const size_t slot = std::min<size_t>(packet.flow.protocol, ATC_PROTOCOL_COUNT);
        last_->others[slot]++;
        flow.others[slot]++;
    }
}

std::vector<const Rule *> RuleBook::rules_of(const Subject &owner) const {
    std::vector<const Rule *> rules;
    for (const auto &[id, rule] : rules_) {
        if (rule.owner == owner) {
            rules.push_back(&rule);
        }
    }
    return rules;
}

// A rule that no packet brought is an operator's, or one that a change of its trunk has put back.
void RuleBook::find_owner(Rule &rule, const Subject *cause) {
    if (cause == nullptr) {
        const auto before = withdrawn_.find(fields_of(rule.description));
        if (before != withdrawn_.end()) {
            rule.owner = before->second;
        }
    } else {
        rule.owner = *cause;
        if (!names_source(rule.description) && (rule.entry_id == 0 || is_denied(cause->flow))) {
            rule.owner->source = {};
        }
    }
    rule.stops_every_source = rule.owner && rule.owner->source.type != ATC_SRC_NONE && !names_source(rule.description);
}

FlowRules all_rules(const RuleBook &book) {
    FlowRules sum;
    for (const auto &[key, flow] : book.flows()) {
        sum.installed += flow.installed;
        sum.refused += flow.refused;
        sum.withdrawn += flow.withdrawn;
        sum.stopped += flow.stopped;
        for (size_t i = 0; i < sum.others.size(); i++) {
            sum.others[i] += flow.others[i];
        }
    }
    return sum;
}

}  // namespace host
