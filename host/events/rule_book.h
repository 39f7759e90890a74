// SPDX-License-Identifier: Apache-2.0
// rule_book.h: which rules the chip has had, whose floods brought them, and what each of them stopped.
//
// The chip knows fields, not classes: that an automatic rule is of a flow or of one source is known from the packet
// behind which it appeared. With every stopped packet counted at its rule, the book tells the packets that a rule was
// for from those that only had the same fields.
// Used by: journal (changes), replay (stopped packets), whoever reports. Uses: figures, the chip's records. Thread: the
// driving one.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "chip/chip.h"
#include "flow_key.h"

namespace host {

// Packets by class; slot 0 is of those without one.
using ClassCounts = std::array<uint64_t, ATC_PROTOCOL_COUNT + 1>;

// One rule, from its installation on.
struct Rule {
    uint32_t entry_id = 0;  // 0: refused
    uint32_t stat_id = 0;
    bool denies = false;
    std::string description;          // the chip's
    std::optional<Subject> owner;     // flow, or source, whose flood brought it; none of an operator's filter
    bool stops_every_source = false;  // of a rule for one source: it names none
    int64_t installed_ns = 0;
    uint64_t packets = 0;  // stopped, or counted where it does not deny
    ClassCounts others{};  // of these, those that are not the owner's
};

struct RuleEvent {
    enum class Kind {
        kInstalled,
        kRefused,
        kWithdrawn
    };
    Kind kind;
    Rule rule;
    const char *reason;  // of a refusal
};

// What the rules of one flow and of its sources have done.
struct FlowRules {
    uint64_t installed = 0;
    uint64_t refused = 0;  // each until it was installed or another flood refused counts once
    uint64_t withdrawn = 0;
    int64_t first_installed_ns = 0;
    int64_t last_withdrawn_ns = 0;
    uint64_t stopped = 0;  // packets
    ClassCounts others{};  // of these, those that the rules were not for: of other classes, VLANs or senders
};

// What has happened to all rules.
struct RuleTotals {
    uint64_t installed = 0;
    uint64_t refused = 0;  // as those of a flow
    uint64_t withdrawn = 0;
    std::map<PortClass, uint64_t> stopped;  // packets, by deny rules with an owner that are gone
};

class RuleBook {
public:
    // A change of the chip, in their order. 'cause': the packet behind which it appeared; null when it was none.
    // Nothing comes back for a refusal that has been told.
    std::optional<RuleEvent> take(const card::ChipChange &change, int64_t realtime_ns, const Subject *cause);

    // No further change has to do with the last ones.
    void end_of_changes() { withdrawn_.clear(); }

    // A packet that the rule stopped.
    void stopped(uint32_t entry_id, const Subject &packet);

    const RuleTotals &totals() const { return totals_; }
    // In the order of flows.
    const std::map<FlowKey, FlowRules> &flows() const { return flows_; }
    // Those in the chip, by entry id; their packets are counted in a replay only.
    const std::map<uint32_t, Rule> &rules() const { return rules_; }
    // Those in the chip that are of this flow or source, by entry id.
    std::vector<const Rule *> rules_of(const Subject &owner) const;

private:
    void find_owner(Rule &rule, const Subject *cause);

    std::map<uint32_t, Rule> rules_;
    RuleTotals totals_;
    Rule *last_ = nullptr;  // that stopped a packet last
    std::map<FlowKey, FlowRules> flows_;
    std::set<std::string> refused_;             // descriptions
    std::map<std::string, Subject> withdrawn_;  // owners by the fields of their rules, in these changes
};

// The sum over all flows.
FlowRules all_rules(const RuleBook &book);

}  // namespace host
