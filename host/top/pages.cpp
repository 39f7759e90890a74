// SPDX-License-Identifier: Apache-2.0
#include "top/pages.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <set>
#include <unordered_map>

#include "verdict/words.h"

namespace host::top {

namespace {

// The module's own counters have 32 bits.
double difference(uint64_t now, uint64_t before) {
    if (now >= before) {
        return static_cast<double>(now - before);
    }
    const bool is_wrapped = before <= UINT32_MAX && before - now > UINT32_MAX / 2;
    return static_cast<double>(is_wrapped ? now + (uint64_t{UINT32_MAX} + 1 - before) : now);
}

Cell text(std::string value) {
    return {std::move(value), 0};
}

Cell number(uint64_t value) {
    return {with_commas(value), static_cast<double>(value)};
}

Cell rate(double per_second) {
    return per_second < 0 ? Cell{"-", -1} : number(static_cast<uint64_t>(std::llround(per_second)));
}

// What names a row: its values under these keys.
std::string name_of(const Json &row, const std::vector<const char *> &keys) {
    std::string name;
    for (const char *key : keys) {
        name += row.value(key, Json()).dump() + " ";
    }
    return name;
}

const Json &rows_of(const Json &answer, const char *member) {
    static const Json none = Json::array();
    const auto found = answer.find(member);
    return found != answer.end() && found->is_array() ? *found : none;
}

// The rows that have rates; of the floods they stand in a member.
const Json &rows_of(const Answer &answer) {
    return answer.data.is_object() ? rows_of(answer.data, "floods") : answer.data;
}

// Of two answers: how much a row's member has grown a second; below 0 = not known yet.
class Rates {
public:
    Rates(const Snapshot &now, const Snapshot *before, const Answer Snapshot::*which, std::vector<const char *> keys)
        : keys_(std::move(keys)) {
        if (before != nullptr && (now.*which).when > (before->*which).when) {
            seconds_ = std::chrono::duration<double>((now.*which).when - (before->*which).when).count();
            for (const Json &row : rows_of(before->*which)) {
                before_.emplace(name_of(row, keys_), &row);
            }
        }
    }

    double of(const Json &row, const char *key) const {
        const auto former = before_.find(name_of(row, keys_));
        return former != before_.end() ? difference(number_of(row, key), number_of(*former->second, key)) / seconds_
                                       : -1;
    }

private:
    std::unordered_map<std::string, const Json *> before_;
    std::vector<const char *> keys_;
    double seconds_ = 0;
};

std::string flow_match(const Json &row) {
    return "port " + std::to_string(number_of(row, "port")) + " vlan " + std::to_string(number_of(row, "vlan")) +
           " protocol " + text_of(row, "protocol");
}

std::string sources_line(const Json &row) {
    return "show sources rx vlan " + std::to_string(number_of(row, "vlan")) + " port " +
           std::to_string(number_of(row, "port")) + " " + text_of(row, "protocol");
}

// "2026-11-22 22:05:57" -> "22:05:57"
std::string clock_of(const std::string &time) {
    const size_t blank = time.find(' ');
    return blank == std::string::npos ? time : time.substr(blank + 1);
}

// What is done about a flood, shortest first, as much as a line has room for.
std::string done_text(const Json &flood) {
    std::string done = !text_of(flood, "fast_alarm").empty()   ? "alarm"
                       : !text_of(flood, "long_alarm").empty() ? "long-period alarm"
                                                               : "no alarm";
    const size_t rules = flood.contains("entry_ids") ? flood["entry_ids"].size() : 0;
    done += rules == 0 ? "" : rules == 1 ? ", rule" : ", " + std::to_string(rules) + " rules";
    done += is_true(flood, "software_deny_on") ? ", denied" : "";
    done += is_true(flood, "capture_on") ? ", recorded" : "";
    return done;
}

Mood mood_of(const Json &flood, double stopped) {
    if (is_true(flood, "software_deny_on") || stopped > 0) {
        return Mood::kGood;
    }
    const bool has_alarm = !text_of(flood, "fast_alarm").empty() || !text_of(flood, "long_alarm").empty();
    return has_alarm ? Mood::kWarning : Mood::kPlain;
}

Page floods_page(const Snapshot &now, const Snapshot *before) {
    Page page{"floods",
              {{"protocol", false},
               {"port", true},
               {"vlan", true, 72},
               {"source", false},
               {"now/s", true},
               {"limit/s", true},
               {"stopped/s", true},
               {"period/s", true, 100},
               {"peak/s", true, 100},
               {"stopped", true, 120},
               {"since", false, 110},
               {"what is done", false}},
              {},
              4,
              "Nothing floods: no alarm stands, and no flood has a rule in the chip."};
    const Rates rates(now, before, &Snapshot::floods, {"port", "vlan", "protocol", "source"});
    for (const Json &flood : rows_of(now.floods)) {
        const Json source = flood.value("source", Json());
        const std::string sender = text_of(source, "address");
        const double stopped = rates.of(flood, "stopped_in_chip");
        const double counted = rates.of(flood, "packets");
        const std::string since = text_of(flood, "fast_alarm") + text_of(flood, "long_alarm");
        page.rows.push_back(
            {{text(text_of(flood, "protocol")), number(number_of(flood, "port")), number(number_of(flood, "vlan")),
              text(sender.empty() ? "(all)" : sender), rate(counted < 0 ? -1 : counted + stopped),
              number(number_of(flood, "limit_pps")), rate(stopped), number(number_of(flood, "speed_pps")),
              number(number_of(flood, "peak_pps")), number(number_of(flood, "stopped_in_chip")),
              text(clock_of(since.substr(0, 19))), text(done_text(flood))},
             mood_of(flood, stopped),
             flow_match(flood) + (sender.empty() ? "" : " source " + sender),
             sources_line(flood)});
    }
    return page;
}

Page ports_page(const Snapshot &now, const Snapshot *before) {
    Page page{"ports",
              {{"port", true},
               {"interface", false},
               {"state", false},
               {"offered/s", true},
               {"stopped/s", true},
               {"dropped/s", true},
               {"passed/s", true},
               {"sent/s", true, 90},
               {"transit/s", true, 100},
               {"blind", true, 110},
               {"lost", true}},
              {},
              3,
              "No port."};
    const Rates rates(now, before, &Snapshot::card, {"port"});
    for (const Json &port : now.card.data) {
        Row row{{number(number_of(port, "port")), text(text_of(port, "interface")), text(text_of(port, "state"))},
                Mood::kPlain,
                "port " + std::to_string(number_of(port, "port")),
                {}};
        for (const char *key : {"offered", "stopped", "dropped", "passed", "sent", "transit"}) {
            row.cells.push_back(rate(rates.of(port, key)));
        }
        row.cells.push_back(number(number_of(port, "blind")));
        row.cells.push_back(number(number_of(port, "lost")));
        const bool is_protected = text_of(port, "state").rfind("not protected", 0) != 0;
        row.mood = !is_protected ? Mood::kBad : rates.of(port, "lost") > 0 ? Mood::kWarning : Mood::kPlain;
        page.rows.push_back(std::move(row));
    }
    return page;
}

std::string reactions_of(const Json &limits) {
    std::string text;
    const std::pair<const char *, const char *> all[] = {{"deny", "deny"},
                                                         {"hw_deny", "hw-deny"},
                                                         {"cap", "capture"},
                                                         {"src_deny", "source deny"},
                                                         {"src_hw_deny", "source hw-deny"},
                                                         {"src_cap", "source capture"}};
    for (const auto &[key, word] : all) {
        if (number_of(limits, key) == 1) {
            text += (text.empty() ? "" : ", ") + std::string(word);
        }
    }
    return text.empty() ? "-" : text;
}

Page classes_page(const Snapshot &now, const Snapshot *before) {
    Page page{"classes",
              {{"protocol", false},
               {"now/s", true},
               {"period/s", true},
               {"peak/s", true},
               {"limit/s", true},
               {"packets", true, 72},
               {"peak at", false, 110},
               {"reactions", false}},
              {},
              1,
              "No packet of any class has come in."};
    const Rates rates(now, before, &Snapshot::page, {"protocol"});
    for (const Json &row : now.page.data) {
        const std::string name = text_of(row, "protocol");
        const auto known =
            std::ranges::find(now.limits, name, [](const Json &one) { return text_of(one, "protocol"); });
        const Json limits = known != now.limits.end() ? *known : Json::object();
        page.rows.push_back(
            {{text(name), rate(rates.of(row, "packets")), number(number_of(row, "speed_pps")),
              number(number_of(row, "peak_pps")), number(number_of(limits, "fp_limit")),
              number(number_of(row, "packets")), text(text_of(row, "peak_time")), text(reactions_of(limits))},
             Mood::kPlain,
             "protocol " + name,
             {}});
    }
    return page;
}

Page rules_page(const Snapshot &now, const Snapshot *before) {
    Page page{"rules",
              {{"entry", true}, {"packets", true}, {"now/s", true}, {"whose", false, 110}, {"what it matches", false}},
              {},
              2,
              "There is no rule in the chip."};
    const Rates rates(now, before, &Snapshot::page, {"entry_id"});
    for (const Json &rule : now.page.data) {
        std::string owner = "operator's";
        for (const Json &flood : rows_of(now.floods)) {
            for (const Json &id : rows_of(flood, "entry_ids")) {
                if (id == rule.value("entry_id", Json())) {
                    const std::string sender = text_of(flood.value("source", Json()), "address");
                    owner = text_of(flood, "protocol") + (sender.empty() ? "" : " " + sender);
                }
            }
        }
        const double stopped = rates.of(rule, "packets");
        page.rows.push_back({{number(number_of(rule, "entry_id")), number(number_of(rule, "packets")), rate(stopped),
                              text(owner), text(text_of(rule, "description"))},
                             stopped > 0 ? Mood::kGood : Mood::kPlain,
                             {},
                             {}});
    }
    return page;
}

Page sources_page(const Snapshot &now, const Snapshot *before) {
    Page page{"sources",
              {{"source", false}, {"kind", false}, {"now/s", true}, {"packets", true}},
              {},
              2,
              "No sender is told apart: that begins where a flow is over its limit."};
    const Rates rates(now, before, &Snapshot::page, {"address"});
    for (const Json &source : now.page.data) {
        page.rows.push_back({{text(text_of(source, "address")), text(text_of(source, "type")),
                              rate(rates.of(source, "packets")), number(number_of(source, "packets"))},
                             Mood::kPlain,
                             "source " + text_of(source, "address"),
                             {}});
    }
    return page;
}

// Whether something is done about every flood: about its flow, or about a sender in it.
bool is_all_held(const Snapshot &now) {
    std::set<std::string> held;
    for (const Json &flood : rows_of(now.floods)) {
        if (is_true(flood, "software_deny_on") || !rows_of(flood, "entry_ids").empty()) {
            held.insert(flow_match(flood));
        }
    }
    return std::ranges::all_of(rows_of(now.floods),
                               [&](const Json &flood) { return held.contains(flow_match(flood)); });
}

}  // namespace

const char *page_name(Subject subject) {
    constexpr const char *names[] = {"floods", "ports", "classes", "rules", "sources"};
    return names[static_cast<size_t>(subject)];
}

std::string page_line(Subject subject, const std::string &sources_line) {
    switch (subject) {
        case Subject::kClasses:
            return "show protocols";
        case Subject::kRules:
            return "show chip";
        case Subject::kSources:
            return sources_line;
        default:
            return {};
    }
}

Page make_page(Subject subject, const Snapshot &now, const Snapshot *before) {
    constexpr Page (*pages[])(const Snapshot &, const Snapshot *) = {floods_page, ports_page, classes_page, rules_page,
                                                                     sources_page};
    return pages[static_cast<size_t>(subject)](now, before);
}

Summary summarize(const Snapshot &now, const Snapshot *before) {
    const uint64_t floods = number_of(now.floods.data, "number");
    const uint64_t alarms = number_of(now.floods.data, "fast_alarms") + number_of(now.floods.data, "long_alarms");
    std::string line = floods == 0 ? "quiet" : "FLOODED: " + counted(floods, "flood", "floods");
    line += ", " + (alarms == 0 ? std::string("no alarm") : counted(alarms, "alarm", "alarms")) + ";";
    const Rates rates(now, before, &Snapshot::card, {"port"});
    for (const char *key : {"offered", "stopped", "dropped", "passed"}) {
        double sum = 0;
        for (const Json &port : now.card.data) {
            sum += std::max(0.0, rates.of(port, key));
        }
        line += " " + std::string(key) + " " + (before != nullptr ? rate(sum).text : "-") + "/s";
    }
    return {line, floods == 0 ? Mood::kPlain : is_all_held(now) ? Mood::kGood : Mood::kWarning};
}

}  // namespace host::top
