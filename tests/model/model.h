// SPDX-License-Identifier: Apache-2.0
// model.h: what must hold of counting, alarms and hardware rules, stated a second time and naively.
//
// The model is told what the module and the card are told, in the same order, and predicts what the module answers,
// logs and holds, and which rules are in the chip. It shares no code with the module: thresholds are computed when
// asked for, indexes are maps, a rule is a text. Driven by model_test.cpp, which holds the module against it. Where the
// module pauses in something long and something else happens, the model first does as much of it as the module shows to
// be done (follow): what that comes to, and that each is done once and in order, it says itself.
#pragma once

#include <algorithm>
#include <cstdio>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <set>

#include "fixture.h"
#include "frames.h"

struct PacketClass {
    uint16_t id;
    const char *name;
    std::array<uint32_t, 2> limits;  // defaults by Period, packets per second
    uint32_t src_type;               // ATC_SRC_*
    bool names_source;               // in a source's rule; otherwise that is the flow's, which the chip takes only once
    uint16_t rule;                   // classes with the same number have the same rules
    Frame (*frame)();                // without a source of its own
};

inline const PacketClass CLASSES[] = {
    {1, "stp", {12, 10}, ATC_SRC_MAC, true, 1, [] { return bpdu(0); }},
    {2, "rstp", {12, 10}, ATC_SRC_MAC, true, 1, [] { return bpdu(2); }},
    {6, "arp", {100, 50}, ATC_SRC_MAC, true, 6, arp},
    {14, "unknown-ipv4", {100, 50}, ATC_SRC_IPV4, true, 14, [] { return ipv4(50); }},
    {52, "tcp-syn", {12, 10}, ATC_SRC_IPV4, true, 52, [] { return tcp(40000, 80, SYN); }},
    {57, "self", {10, 5}, ATC_SRC_NONE, false, 57, [] { return arp().from(OWN_MAC); }},
    {58, "unknown-packet", {100, 50}, ATC_SRC_MAC, false, 58, [] { return eth(0x1234); }},
};

enum Period : uint32_t {
    FAST,
    LONG,
    DAY
};
enum Setting : uint32_t {
    FAST_LIMIT,
    LONG_LIMIT,
    HW_DENY,
    DENY,
    SETTINGS
};  // the limits as in Period

constexpr uint32_t SOURCES = 4;  // of each flow, numbered from 1

// Who is counted and can own a rule: a flow, or behind it one of its sources.
struct Who {
    uint32_t port, vlan;
    const PacketClass *cls;
    uint32_t source = 0;  // 0 is the flow itself
    auto operator<=>(const Who &) const = default;
};

struct Owner {
    uint32_t count = 0;
    std::array<uint32_t, 2> start{};  // the counter when the running period began
    std::array<bool, 2> alarm{};
    bool denied = false;             // in software
    std::array<uint32_t, 2> most{};  // packets a period
};

// What the module shows of somebody in a pause.
struct Shown {
    bool exists = false, denied = false;
    std::array<bool, 3> closed{};  // by the pass under way
    std::array<uint32_t, 2> most{};
    bool has_rule = false, in_chip = false, check_due = false;
};

using Due = std::pair<int64_t, uint64_t>;  // second, and how many timers had been armed before

struct Record {
    Who who;
    uint32_t sdk_id, stat_id;
    uint64_t last_packets = 0;
    Due due{};
    bool in_chip = true;
};

template <typename... values_t>
std::string text(const char *format, values_t... values) {
    char buf[256];
    std::snprintf(buf, sizeof(buf), format, values...);
    return buf;
}

struct Model {
    // The card.
    std::map<Call, Plan> plans;
    bool memory = true;
    std::deque<std::array<uint32_t, 3>> queue;  // 1 = joins, trunk, member
    std::map<std::string, uint32_t> chip;       // the nth that was installed, by rule and ports
    std::map<uint32_t, uint64_t> stopped;       // packets, by the same number
    uint32_t rules_made = 0;
    Lines log;

    // Lengths of the periods in seconds; settings by class and Setting, of flows and of sources.
    std::array<uint32_t, 3> seconds{300, 3600, 86400};
    std::map<const PacketClass *, std::array<std::array<uint32_t, 2>, SETTINGS>> settings;

    int64_t now = 1000;  // seconds
    uint64_t armed = 0;
    std::array<Due, 3> passes;
    std::array<std::set<uint32_t>, 3> known;  // ports, VLANs, protocols
    std::map<Who, Owner> owners;
    std::list<Record> records;                         // newest first
    std::map<uint32_t, std::vector<uint32_t>> trunks;  // slots, 0 is empty

    // What is under way, and what the module shows of it.
    int passing = -1;               // a Period
    std::set<Who> open;             // that its pass has not closed
    std::deque<Who> leaving;        // owners whose rules are still to be withdrawn, in order
    uint32_t changing = 0;          // a trunk
    std::vector<uint32_t> changed;  // its members then
    std::function<Shown(const Who &)> look;
    std::function<bool(uint32_t period)> is_running, is_due;
    std::function<bool()> is_discarding;
    std::function<std::vector<uint32_t>(uint32_t trunk)> members_of;

    Model() {
        for (const PacketClass &cls : CLASSES) {
            settings[&cls] = {{{cls.limits[0], cls.limits[0]}, {cls.limits[1], cls.limits[1]}, {1, 0}, {}}};
        }
        for (uint32_t period = FAST; period <= DAY; ++period) {
            passes[period] = arm(period);
        }
    }

    Due arm(uint32_t period) { return {now + seconds[period], ++armed}; }

    bool fails(Call kind) { return plans[kind].fails(); }

    uint32_t threshold(const Who &who, uint32_t period) {
        return owners.contains(who) ? owners[who].most[period] : setting(who, period);
    }

    uint32_t setting(const Who &who, uint32_t period) {
        return seconds[period] * settings[who.cls][period][who.source != 0];
    }

    bool knows(size_t index, uint32_t key) {
        return known[index].contains(key) || (memory && known[index].insert(key).second);
    }

    int receive(const Who &who) {
        const Who flow{who.port, who.vlan, who.cls};
        if (!knows(1, who.vlan)) {
            return -1;
        }
        if (who.vlan == 4089) {
            return 0;
        }
        if (!knows(0, who.port) || !knows(2, who.cls->id) || (!memory && !owners.contains(flow))) {
            return -1;
        }
        Owner &all = made(flow);
        const bool over = ++all.count - all.start[FAST] >= threshold(flow, FAST);
        if (over) {
            deny(flow);
        }
        if (who.cls->src_type == ATC_SRC_NONE || (!over && !all.alarm[FAST])) {
            return all.denied ? -1 : 0;
        }
        if (!memory && !owners.contains(who)) {
            return -1;
        }
        Owner &one = made(who);
        if (one.count++ - one.start[FAST] > threshold(who, FAST)) {
            deny(who);
        }
        return all.denied || one.denied ? -1 : 0;
    }

    Owner &made(const Who &who) {
        return owners.try_emplace(who, Owner{.most = {setting(who, FAST), setting(who, LONG)}}).first->second;
    }

    // A packet of 'who' is over the threshold.
    void deny(const Who &who) {
        Record record{who, 0, 0};
        if (settings[who.cls][HW_DENY][who.source != 0] != 1 || std::ranges::count(records, who, &Record::who) != 0 ||
            who.port == 255 || records.size() >= 100 || is_discarding() || !install(record)) {
            return;
        }
        if (!memory) {
            return remove(record);
        }
        record.due = arm(FAST);
        records.push_front(record);
    }

    bool install(Record &record) {
        const std::string rule = key(record.who);
        if (rule.empty()) {
            return false;
        }
        if (fails(Call::chip_set) || chip.contains(rule)) {
            log.push_back(REFUSAL);
            return false;
        }
        chip[rule] = rules_made;
        record.sdk_id = fails(Call::chip_entry_id) ? 0 : FakePlatform::first_entry_id + rules_made;
        record.stat_id = fails(Call::chip_stat_id) ? 0 : FakePlatform::first_stat_id + rules_made;
        rules_made++;
        return true;
    }

    // A rule whose delete fails stays in the chip, and in the way of another like it.
    void remove(Record &record) {
        if (const std::string rule = key(record.who); !rule.empty()) {
            const bool removed = !fails(Call::chip_delete) && chip.erase(rule) != 0;
            record.sdk_id = removed ? 0 : record.sdk_id;
            log.insert(log.end(), removed ? 0 : 1, REFUSAL);
        }
    }

    // The rule as the chip knows it: its ports are those of this moment. Empty when no port is left.
    std::string key(const Who &who) {
        std::string ports;
        for (uint32_t port : trunks.contains(who.port) ? trunks[who.port] : std::vector{who.port}) {
            ports += port != 0 ? " " + std::to_string(port) : "";
        }
        const uint32_t source = who.cls->names_source ? who.source : 0;
        return ports.empty() ? "" : text("%u vlan %u source %u:", who.cls->rule, who.vlan, source) + ports;
    }

    // Withdraws the records for which ends(record) holds, as far as the module has.
    template <typename ends_t>
    void withdraw_if(ends_t ends) {
        for (const Record &record : records) {
            ends(record) ? leaving.push_back(record.who) : void();
        }
        withdraw();
    }

    void withdraw() {
        for (; !leaving.empty() && !look(leaving.front()).has_rule; leaving.pop_front()) {
            std::erase_if(records, [&](Record &record) {
                const bool is_end = record.who == leaving.front();
                is_end &&record.in_chip ? remove(record) : void();
                return is_end;
            });
        }
    }

    void begin_turn() {  // of the monitor task
        if (!fails(Call::receive) && !queue.empty()) {
            const auto [joins, trunk, member] = queue.front();
            queue.pop_front();
            begin_change(trunk, member, joins == 1);
        }
    }

    void follow_turn() {
        withdraw();
        if (changing != 0 && !follow_change()) {
            return;
        }
        for (;;) {
            const auto pass_due = std::ranges::min_element(passes);
            const auto record = std::ranges::min_element(records, {}, &Record::due);
            const bool is_check = record != records.end() && record->due < *pass_due;
            const auto period = static_cast<uint32_t>(pass_due - passes.begin());
            if (passing < 0 && (is_check ? record->due : *pass_due).first > now) {
                return;
            }
            if (passing < 0 && is_check) {
                if (look(record->who).check_due) {
                    return;
                }
                check(*record);
            } else if (!follow_pass(passing < 0 ? period : static_cast<uint32_t>(passing))) {
                return;
            }
        }
    }

    // Every rule of the trunk is taken out, the membership changes, the rules are put back; one that does not go back
    // is given up.
    void begin_change(uint32_t trunk, uint32_t member, bool joins) {
        auto members = trunks.contains(trunk) ? trunks[trunk] : std::vector<uint32_t>(8);
        const auto held = std::ranges::find(members, member);
        const auto slot = joins ? std::ranges::find(members, 0U) : held;
        if ((!memory && !trunks.contains(trunk)) || slot == members.end() || (joins && held != members.end())) {
            return;
        }
        *slot = joins ? member : 0;
        changing = trunk;
        changed = members;
    }

    // Returns whether all of it is done. Rules that come meanwhile are the newest.
    bool follow_change() {
        const bool is_changed = members_of(changing) == changed;
        const bool is_known = trunks.contains(changing) && trunks.at(changing) == changed;
        for (Record &record : records) {
            if (record.who.port == changing && record.in_chip && !is_known) {
                if (!is_changed && look(record.who).in_chip) {
                    return false;
                }
                remove(record);
                record.in_chip = false;
            }
        }
        if (!is_changed) {
            return false;
        }
        trunks[changing] = changed;
        for (auto record = records.begin(); record != records.end();) {
            const auto next = std::next(record);
            if (record->who.port == changing && !record->in_chip) {
                if (const Shown shown = look(record->who); shown.has_rule && !shown.in_chip) {
                    return false;
                }
                record->in_chip = install(*record);
                record->in_chip ? void() : static_cast<void>(records.erase(record));
            }
            record = next;
        }
        changing = 0;
        return true;
    }

    void check(Record &record) {
        const auto nth = record.stat_id - FakePlatform::first_stat_id;
        const bool is_there = std::ranges::any_of(chip, [nth](const auto &rule) { return rule.second == nth; });
        const uint64_t packets = fails(Call::chip_counters) || !is_there ? 0 : stopped[nth];
        const auto interval = packets == 0 ? 0 : static_cast<uint32_t>(packets - record.last_packets);
        record.last_packets = packets == 0 ? record.last_packets : packets;
        record.due = arm(FAST);
        if (interval < threshold(record.who, FAST)) {
            remove(record);
            std::erase_if(records, [&](const Record &other) { return &other == &record; });
        }
    }

    // Everybody is judged; sources that were silent for a long period, and not silenced by the chip, are forgotten. A
    // day's end forgets who was cleared and has not been heard of since, a flow with its sources. Who comes meanwhile
    // is judged next time. Returns whether it is through.
    bool follow_pass(uint32_t period) {
        const bool is_on = is_running(period);
        if (passing < 0) {
            if (!is_on && is_due(period)) {
                return false;
            }
            for (const auto &[who, unused] : owners) {
                open.insert(who);
            }
            passing = static_cast<int>(period);
        }
        for (const Who &who : std::set<Who>(open)) {
            const Shown shown = is_on ? look(who) : Shown();
            if (period == DAY && who.source == 0) {
                sweep(who, is_on);
            } else if (period != DAY && owners.contains(who) && (!shown.exists || shown.closed[period])) {
                open.erase(who);
                if (judge(who, period) == 0 && period == LONG && who.source != 0 &&
                    std::ranges::count(records, who, &Record::who) == 0) {
                    discard(who);
                }
            }
        }
        withdraw();
        if (!is_on) {
            open.clear();
            passing = -1;
            passes[period] = arm(period);
        }
        return !is_on;
    }

    // The packets of the period.
    uint32_t judge(const Who &who, uint32_t period) {
        Owner &owner = owners[who];
        const uint32_t most = owner.most[period];
        const uint32_t packets = owner.count - std::exchange(owner.start[period], owner.count);
        const bool over = packets > most;
        if (over != owner.alarm[period]) {
            const char *source = who.cls->src_type == ATC_SRC_MAC ? " src mac 06:00:00:00:00:%02x" : " src ip 0.0.0.%u";
            log.push_back(text("anti-cpu rx port %u vlan %u protocol %s", who.port, who.vlan, who.cls->name) +
                          (who.source == 0 ? "" : text(source, who.source)) +
                          text(" %s %s period limit,receive/limit:%u/%u(pps)", over ? "over" : "restore",
                               period == FAST ? "fast" : "long", packets / seconds[period], most / seconds[period]));
            owner.alarm[period] = over;
            owner.denied = owner.denied && (over || period == LONG);
        }
        owner.denied |= over && period == FAST && settings[who.cls][DENY][who.source != 0] == 1;
        return packets;
    }

    void sweep(const Who &flow, bool is_on) {
        const auto is_gone = [&](const Who &who) {
            return owners.contains(who) && owners[who].count == 0 && !(is_on && look(who).exists);
        };
        each_source(flow, [&](const Who &who) { is_gone(who) ? discard(who) : void(); });
        is_gone(flow) ? discard_flow(flow) : void();
    }

    void discard_flow(const Who &flow) {
        each_source(flow, [this](const Who &who) { discard(who); });
        discard(flow);
    }

    // Its rule follows.
    void discard(const Who &who) {
        std::ranges::count(records, who, &Record::who) != 0 ? leaving.push_back(who) : void();
        owners.erase(who);
        open.erase(who);
    }

    template <typename visit_t>
    void each_source(Who who, visit_t visit) {
        while (++who.source <= SOURCES) {
            owners.contains(who) ? visit(who) : void();
        }
    }

    static constexpr char REFUSAL[] = "drv set stream deny tocpu faild!";
};
