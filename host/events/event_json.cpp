// SPDX-License-Identifier: Apache-2.0
#include "events/event_json.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "addresses.h"
#include "anti_cpu/platform.h"
#include "clock/clock.h"

namespace host {

namespace {

using Json = nlohmann::ordered_json;

// "2021-09-02T03:46:20.000000Z" (RFC 3339)
std::string event_time(int64_t realtime_ns) {
    std::string text = card::time_text(realtime_ns);
    text[text.find(' ')] = 'T';
    const int64_t below_ns = realtime_ns % card::kNanosecondsPerSecond;
    char fraction[16];
    std::snprintf(fraction, sizeof(fraction), ".%06dZ",
                  static_cast<int>((below_ns < 0 ? below_ns + card::kNanosecondsPerSecond : below_ns) / 1000));
    return text + fraction;
}

void add_subject(Json &json, const Subject &subject) {
    const char *const types[] = {"none", "mac", "ipv4", "ipv6"};
    const auto &[flow, source] = subject;
    json["class"] = protocol_name(flow.protocol);
    json["class_id"] = flow.protocol;
    json["port"] = flow.port;
    uint32_t slot = 0;
    uint32_t slot_port = 0;
    if (br_comm_transfer_portindex_2slotport(flow.port, &slot, &slot_port) == 0) {
        json["slot"] = slot;
        json["slot_port"] = slot_port;
    }
    json["vlan"] = flow.vlan;
    if (source.type != ATC_SRC_NONE) {
        json["source_type"] = types[source.type];
        json["source"] = source_text(source);
    }
}

void add(Json &json, const AlarmEntry &entry) {
    const AlarmEvent &alarm = entry.alarm;
    json["event"] = alarm.is_raised ? "alarm-raised" : "alarm-cleared";
    add_subject(json, alarm.subject);
    json["period"] = alarm.period == AlarmEvent::Period::kFast ? "fast" : "long";
    json["period_s"] = entry.period_s;
    json["rate_pps"] = alarm.rate_pps;
    json["limit_pps"] = alarm.limit_pps;
    json["peak_pps"] = entry.peak_pps;
    json["entry_ids"] = Json::array();
    json["stat_ids"] = Json::array();
    for (const auto &[entry_id, stat_id] : entry.rules) {
        json["entry_ids"].push_back(entry_id);
        json["stat_ids"].push_back(stat_id);
    }
    if (!entry.capture.empty()) {
        json["capture"] = entry.capture;
    }
}

void add(Json &json, const RuleEvent &event) {
    const char *const names[] = {"rule-installed", "rule-refused", "rule-withdrawn"};
    const Rule &rule = event.rule;
    json["event"] = names[static_cast<size_t>(event.kind)];
    if (rule.owner) {
        add_subject(json, *rule.owner);
    }
    json["rule"] = rule.description;
    if (event.kind == RuleEvent::Kind::kRefused) {
        json["reason"] = event.reason;
        return;
    }
    json["entry_id"] = rule.entry_id;
    json["stat_id"] = rule.stat_id;
    if (rule.stops_every_source) {
        json["stops_every_source"] = true;
    }
    if (event.kind == RuleEvent::Kind::kWithdrawn) {
        json["installed"] = event_time(rule.installed_ns);
        json["packets"] = rule.packets;
        json["others"] = class_counts_json(rule.others);
    }
}

void add(Json &json, const CaptureEntry &entry) {
    const char *const names[] = {"capture-begun", "capture-full", "capture-written", "capture-uploaded",
                                 "capture-upload-failed"};
    json["event"] = names[static_cast<size_t>(entry.kind)];
    if (entry.subject) {
        add_subject(json, *entry.subject);
    }
    json["file"] = entry.file;
    if (!entry.server.empty()) {
        json["server"] = entry.server;
    }
    if (!entry.subject) {
        json["bytes"] = entry.bytes;
    }
}

void add(Json &json, const MemoryEntry &entry) {
    json["event"] = "memory-refused";
    json["refused"] = entry.refused;
    json["bytes"] = entry.bytes;
    json["budget_bytes"] = entry.budget;
}

void add(Json &json, const LostEntry &entry) {
    json["event"] = "events-lost";
    json["lost"] = entry.lost;
}

void add(Json &json, const GuardEntry &entry) {
    const char *const names[] = {"port-protected", "port-lost",       "copies-lost", "rules-overflow",
                                 "denies-refused", "filters-refused", "guard-late"};
    json["event"] = names[static_cast<size_t>(entry.kind)];
    if (entry.kind == GuardEntry::Kind::kPortProtected || entry.kind == GuardEntry::Kind::kPortLost) {
        json["port"] = entry.port;
        json["interface"] = entry.interface;
        if (!entry.reason.empty()) {
            json["reason"] = entry.reason;
        }
    } else {
        json[entry.kind == GuardEntry::Kind::kLate ? "seconds" : "count"] = entry.count;
    }
}

}  // namespace

Json class_counts_json(const ClassCounts &counts) {
    Json json = Json::object();
    for (uint32_t id = 0; id < counts.size(); id++) {
        if (counts[id] > 0) {
            json[id == 0 ? std::string("none") : protocol_name(id)] = counts[id];
        }
    }
    return json;
}

Json event_json(const JournalEntry &entry) {
    Json json;
    json["time"] = event_time(entry.realtime_ns);
    std::visit([&json](const auto &what) { add(json, what); }, entry.what);
    return json;
}

}  // namespace host
