// SPDX-License-Identifier: Apache-2.0
#include "report_data.h"

#include <algorithm>
#include <cinttypes>
#include <nlohmann/json.hpp>
#include <sstream>

#include "anti_cpu/anti_cpu.h"
#include "chip/chip.h"
#include "module_text.h"
#include "os/os.h"
#include "verdict/flood_data.h"

namespace host {

namespace {

void append(Json &json, const Json &more) {
    for (const auto &[key, value] : more.items()) {
        json[key] = value;
    }
}

Json figures_json(const TableFigures &figures) {
    Json json;
    json["packets"] = figures.packets;
    json["speed_pps"] = figures.speed_pps;
    json["peak_packets"] = figures.peak_packets;
    json["peak_pps"] = figures.peak_pps;
    json["peak_time"] = figures.peak_time;
    return json;
}

// 'shown' makes the value of 'key' out of the row's.
template <typename Shown>
Json table_json(const std::vector<TableRow> &rows, const char *key, Shown shown) {
    Json json = Json::array();
    for (const TableRow &row : rows) {
        Json entry;
        entry[key] = shown(row.key);
        append(entry, figures_json(row.figures));
        json.push_back(std::move(entry));
    }
    return json;
}

Json summary_json(const Summary &summary) {
    const Replay &replay = summary.replay;
    const PortCounts received = replay.received();
    Json json;
    json["packets"] = replay.packets();
    json["received"] = received.offered;
    json["sent"] = replay.sent();
    json["stopped_in_chip"] = received.stopped;
    json["dropped_in_software"] = received.dropped + replay.sent_dropped();
    json["refused_by_reader"] = summary.captures.refused();
    json["shortened_in_capture"] = summary.captures.shortened();
    json["alarms_raised"] = summary.events.alarms().raised();
    json["start"] = card::time_text(replay.start_ns());
    json["end"] = card::time_text(replay.now_ns());
    json["simulated_seconds"] = summary.simulated_time_s();
    json["real_seconds"] = summary.real_time_s;
    json["packets_per_second"] = summary.packets_per_second();
    return json;
}

}  // namespace

void write_report(std::FILE *out, const Summary &summary) {
    const card::BudgetScope no_budget_for_a_report(false);
    const Replay &replay = summary.replay;
    const AlarmListing alarms = list_alarms(replay.alarms());
    JsonWriter json(out);
    json.open_object();
    if (summary.verdict != nullptr) {
        json.add("verdict", summary.verdict->verdict_json());
        json.open_array("floods");
        for (const Flood &flood : summary.verdict->floods()) {
            json.add(flood_json(flood));
        }
        json.close();
    }
    json.add("summary", summary_json(summary));
    json.add("protocols_received", protocols_json(ATC_DIRECTION_RX));
    json.add("protocols_sent", protocols_json(ATC_DIRECTION_TX));
    json.add("ports", ports_json(replay));
    json.add("vlans", vlans_json());
    json.open_array("flows");
    write_flows(json, replay, alarms.standing);
    json.close();
    json.open_array("alarms");
    write_alarms(json, alarms.standing);
    json.close();
    json.add("hw_deny", hw_deny_json());
    json.add("chip_rules", chip_rules_json());
    json.add("port_verdicts", port_verdicts_json(replay));
    json.open_array("flow_verdicts");
    write_flow_verdicts(json, replay);
    json.close();
    json.open_array("events");
    for (const Event &event : summary.events.events()) {
        json.add({{"time", card::time_text(event.realtime_ns)}, {"level", event.level}, {"text", event.text}});
    }
    json.close();
    json.close();
}

void write_flows(JsonWriter &json, const Run &run, const StandingAlarms &alarms) {
    each_flow_row(run.flows(), alarms, [&json](const FlowRow &row) { json.add(flow_row_json(row)); });
}

Json flow_line_json(const FlowLine &line) {
    const Subject &subject = line.subject;
    Json json = subject.source.type == ATC_SRC_NONE ? flow_key_json(subject.flow) : source_json(subject.source);
    append(json, figures_json(line.figures));
    json["over_limit"] = line.over_limit;
    return json;
}

Json flow_row_json(const FlowRow &row) {
    Json json = flow_line_json(row.flow);
    json["sources"] = Json::array();
    for (const FlowLine &line : row.sources) {
        json["sources"].push_back(flow_line_json(line));
    }
    return json;
}

void write_alarms(JsonWriter &json, const StandingAlarms &alarms) {
    for (const auto &[subject, event] : alarms) {
        Json entry = flow_key_json(subject.flow);
        entry["source"] = subject.source.type == ATC_SRC_NONE ? Json(nullptr) : source_json(subject.source);
        json.add(entry);
    }
}

void write_flow_verdicts(JsonWriter &json, const Run &run) {
    const auto known = [](const std::optional<uint64_t> &count) { return count ? Json(*count) : Json(nullptr); };
    for (const FlowVerdict &row : run.flow_verdicts().rows()) {
        Json entry = flow_key_json(row.flow);
        entry["offered"] = known(row.offered);
        entry["stopped_in_chip"] = row.stopped;
        entry["dropped_in_software"] = row.dropped;
        entry["passed"] = known(row.passed);
        json.add(entry);
    }
}

Json protocols_json(uint32_t direction) {
    return table_json(protocol_rows(direction), "protocol", protocol_name);
}

Json ports_json(const Run &run) {
    return table_json(port_rows(run.flows()), "port", [](uint32_t port) { return port; });
}

Json vlans_json() {
    return table_json(vlan_rows(), "vlan", [](uint32_t vlan) { return vlan; });
}

Json chip_rules_json() {
    Json json = Json::array();
    for (const card::ChipRule &rule : card::Chip::instance().rules()) {
        json.push_back({{"entry_id", rule.entry_id},
                        {"stat_id", rule.stat_id},
                        {"denies", rule.denies},
                        {"packets", rule.packets},
                        {"description", rule.description}});
        if (rule.is_in_software) {
            json.back()["in_software"] = true;
        }
    }
    return json;
}

// "entry-id 1 stat 20/10(current packets/last packets) rule: logic port 3 ..."
Json hw_deny_json() {
    Json json = Json::array();
    std::istringstream lines(report_text(atc_api_get_hw_deny_info));
    std::string line;
    while (std::getline(lines, line)) {
        uint32_t entry_id = 0;
        uint64_t current = 0;
        uint64_t last = 0;
        const size_t rule = line.find("rule:");
        if (std::sscanf(line.c_str(), "entry-id %" SCNu32 " stat %" SCNu64 "/%" SCNu64, &entry_id, &current, &last) ==
                3 &&
            rule != std::string::npos) {
            std::string text = line.substr(std::min(line.size(), rule + 6));
            text.erase(text.find_last_not_of(' ') + 1);
            json.push_back({{"entry_id", entry_id}, {"packets", current}, {"last_packets", last}, {"rule", text}});
        }
    }
    return json;
}

Json port_verdicts_json(const Run &run) {
    Json json = Json::array();
    for (const auto &[port, counts] : run.ports()) {
        json.push_back({{"port", port},
                        {"offered", counts.offered},
                        {"stopped_in_chip", counts.stopped},
                        {"dropped_in_software", counts.dropped},
                        {"passed", counts.passed}});
    }
    return json;
}

Json flow_key_json(const FlowKey &flow) {
    return {{"port", flow.port}, {"vlan", flow.vlan}, {"protocol", protocol_name(flow.protocol)}};
}

Json source_json(const Source &source) {
    const char *const types[] = {"none", "mac", "ipv4", "ipv6"};
    return {{"type", types[source.type]}, {"address", source_text(source)}};
}

}  // namespace host
