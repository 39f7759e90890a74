#include "report.h"

#include <algorithm>
#include <cinttypes>
#include <span>
#include <sstream>

#include "anti_cpu/anti_cpu.h"
#include "chip/chip.h"
#include "clock/clock.h"
#include "module_text.h"
#include "services/services.h"
#include "text_table.h"

namespace host {

namespace {

constexpr auto kLeft = TextTable::Align::kLeft;
constexpr auto kRight = TextTable::Align::kRight;
constexpr size_t kFlowVerdictsShown = 500;  // a flood that varies everything has flows without end

void print_title(std::FILE *out, const char *title) {
    std::fprintf(out, "\n== %s ==\n", title);
}

// The first line of a module's table is its header; a table of nothing else is empty.
void print_module_table(std::FILE *out, const char *title, int (*report)(char **text)) {
    const std::string text = report_text(report);
    const size_t header_end = text.find('\n');
    print_title(out, title);
    const bool has_rows = header_end != std::string::npos && header_end + 1 < text.size();
    std::fputs(has_rows ? text.c_str() : "(none)\n", out);
}

void print_alarms(std::FILE *out) {
    const std::string alarms = report_text(atc_api_get_alarm_info);
    print_title(out, "Alarms that stand at the end");
    std::fputs(alarms.empty() ? "(none)\n" : alarms.c_str(), out);
}

double seconds(int64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / static_cast<double>(card::kNanosecondsPerSecond);
}

double packets_per_second(const Summary &summary) {
    return summary.real_time_s > 0 ? static_cast<double>(summary.replay.packets()) / summary.real_time_s : 0;
}

// Of every port.
void print_ports(std::FILE *out, const Replay &replay) {
    TextTable table({{"port", kRight},
                     {"offered", kRight},
                     {"stopped-in-chip", kRight},
                     {"dropped-in-software", kRight},
                     {"passed", kRight}});
    for (const auto &[port, counts] : replay.ports()) {
        table.add({std::to_string(port), std::to_string(counts.offered), std::to_string(counts.stopped),
                   std::to_string(counts.dropped), std::to_string(counts.passed)});
    }
    table.print(out);
}

Json figures_json(const TableRow &row) {
    Json json;
    json["packets"] = row.packets;
    json["speed_pps"] = row.speed_pps;
    json["peak_packets"] = row.peak_packets;
    json["peak_pps"] = row.peak_pps;
    json["peak_time"] = row.peak_time;
    return json;
}

void append(Json &json, const Json &more) {
    for (const auto &[key, value] : more.items()) {
        json[key] = value;
    }
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
    json["simulated_seconds"] = seconds(replay.now_ns() - replay.start_ns());
    json["real_seconds"] = summary.real_time_s;
    json["packets_per_second"] = packets_per_second(summary);
    return json;
}

}  // namespace

void print_report(std::FILE *out, const Summary &summary) {
    print_module_table(out, "Protocols, received", atc_api_get_rx_protocol_stat_brief);
    print_module_table(out, "Protocols, sent", atc_api_get_tx_protocol_stat_brief);
    print_module_table(out, "Ports", atc_api_get_rx_port_stat_brief);
    print_module_table(out, "VLANs", atc_api_get_rx_vlan_stat_brief);
    print_module_table(out, "Flows and their sources", atc_api_get_stat_brief);
    print_alarms(out);
    print_title(out, "Hardware deny rules of the module");
    print_hw_deny(out);
    print_title(out, "Rules in the switching chip");
    print_chip_rules(out);
    print_title(out, "What became of received packets");
    print_verdicts(out, summary.replay);
    print_title(out, "Summary");
    print_summary(out, summary);
}

void print_summary(std::FILE *out, const Summary &summary) {
    const Replay &replay = summary.replay;
    const PortCounts received = replay.received();
    const int64_t length_ns = replay.now_ns() - replay.start_ns();
    std::fprintf(out, "packets received        %12" PRIu64 "\n", received.offered);
    std::fprintf(out, "  stopped in the chip   %12" PRIu64 "\n", received.stopped);
    std::fprintf(out, "  dropped in software   %12" PRIu64 "\n", received.dropped);
    std::fprintf(out, "  passed                %12" PRIu64 "\n", received.passed);
    std::fprintf(out, "packets sent            %12" PRIu64 "\n", replay.sent());
    std::fprintf(out, "  dropped in software   %12" PRIu64 "\n", replay.sent_dropped());
    std::fprintf(out, "refused by the reader   %12" PRIu64 "\n", summary.captures.refused());
    if (summary.captures.shortened() > 0) {
        std::fprintf(out, "cut short when captured %12" PRIu64 "\n", summary.captures.shortened());
    }
    std::fprintf(out, "alarms raised           %12" PRIu64 "\n", summary.events.alarms().raised());
    std::fprintf(out, "simulated time          %14.1f s, %s to %s UTC\n", seconds(length_ns),
                 card::time_text(replay.start_ns()).c_str(), card::time_text(replay.now_ns()).c_str());
    std::fprintf(out, "real time               %15.2f s, %.0f packets a second\n", summary.real_time_s,
                 packets_per_second(summary));
}

Json report_json(const Summary &summary) {
    const std::vector<FlowRow> flows = flow_rows();
    Json json;
    json["summary"] = summary_json(summary);
    json["protocols_received"] = table_json(table_rows(atc_api_get_rx_protocol_stat_brief), "protocol", false);
    json["protocols_sent"] = table_json(table_rows(atc_api_get_tx_protocol_stat_brief), "protocol", false);
    json["ports"] = table_json(table_rows(atc_api_get_rx_port_stat_brief), "port", true);
    json["vlans"] = table_json(table_rows(atc_api_get_rx_vlan_stat_brief), "vlan", true);
    json["flows"] = flows_json(flows);
    json["alarms"] = alarms_json(flows);
    json["hw_deny"] = hw_deny_json();
    json["chip_rules"] = chip_rules_json();
    json["port_verdicts"] = ports_json(summary.replay);
    json["flow_verdicts"] = flow_verdicts_json(summary.replay);
    Json events = Json::array();
    for (const Event &event : summary.events.events()) {
        events.push_back({{"time", card::time_text(event.realtime_ns)}, {"level", event.level}, {"text", event.text}});
    }
    json["events"] = std::move(events);
    return json;
}

void print_chip_rules(std::FILE *out) {
    const std::vector<card::ChipRule> rules = card::Chip::instance().rules();
    if (rules.empty()) {
        std::fputs("(none)\n", out);
        return;
    }
    TextTable table({{"entry-id", kRight}, {"matched-packets", kRight}, {"rule", kLeft}});
    for (const card::ChipRule &rule : rules) {
        table.add({std::to_string(rule.entry_id), std::to_string(rule.packets), rule.description});
    }
    table.print(out);
}

void print_hw_deny(std::FILE *out) {
    const std::string text = report_text(atc_api_get_hw_deny_info);
    std::fputs(text.empty() ? "(none)\n" : text.c_str(), out);
}

void print_verdicts(std::FILE *out, const Replay &replay) {
    print_ports(out, replay);
    const std::vector<FlowVerdict> flows = replay.flow_verdicts().rows();
    if (flows.empty()) {
        return;
    }
    std::fputs(
        "\nFlows of which packets were stopped or dropped; offered: counted by the module or stopped in the chip\n",
        out);
    TextTable table({{"port", kRight},
                     {"vlan", kRight},
                     {"protocol", kLeft},
                     {"offered", kRight},
                     {"stopped-in-chip", kRight},
                     {"dropped-in-software", kRight},
                     {"passed", kRight}});
    const auto known = [](const std::optional<uint64_t> &count) { return count ? std::to_string(*count) : "unknown"; };
    for (const FlowVerdict &row : std::span(flows).first(std::min(flows.size(), kFlowVerdictsShown))) {
        table.add({std::to_string(row.flow.port), std::to_string(row.flow.vlan), protocol_name(row.flow.protocol),
                   known(row.offered), std::to_string(row.stopped), std::to_string(row.dropped), known(row.passed)});
    }
    table.print(out);
    if (flows.size() > kFlowVerdictsShown) {
        std::fprintf(out, "... and %zu flows more; as data all are shown\n", flows.size() - kFlowVerdictsShown);
    }
}

Json table_json(const std::vector<TableRow> &rows, const char *key, bool key_is_number) {
    Json json = Json::array();
    for (const TableRow &row : rows) {
        Json entry;
        if (key_is_number) {
            entry[key] = static_cast<uint32_t>(std::strtoll(row.key.c_str(), nullptr, 10));
        } else {
            entry[key] = row.key;
        }
        append(entry, figures_json(row));
        json.push_back(std::move(entry));
    }
    return json;
}

Json source_json(const Source &source) {
    const char *const types[] = {"none", "mac", "ipv4", "ipv6"};
    return {{"type", types[source.type]}, {"address", source_text(source)}};
}

Json flows_json(const std::vector<FlowRow> &flows) {
    Json json = Json::array();
    for (const FlowRow &flow : flows) {
        Json entry = {{"port", flow.port}, {"vlan", flow.vlan}, {"protocol", protocol_name(flow.protocol)}};
        append(entry, figures_json(flow.figures));
        entry["over_limit"] = flow.figures.over_limit;
        entry["sources"] = Json::array();
        for (const SourceRow &row : flow.sources) {
            Json source = source_json(row.source);
            append(source, figures_json(row.figures));
            source["over_limit"] = row.figures.over_limit;
            entry["sources"].push_back(std::move(source));
        }
        json.push_back(std::move(entry));
    }
    return json;
}

Json alarms_json(const std::vector<FlowRow> &flows) {
    Json json = Json::array();
    const auto add = [&json](const FlowRow &flow, const Json &source) {
        Json entry = {{"port", flow.port}, {"vlan", flow.vlan}, {"protocol", protocol_name(flow.protocol)}};
        entry["source"] = source;
        json.push_back(std::move(entry));
    };
    for (const FlowRow &flow : flows) {
        if (flow.figures.over_limit) {
            add(flow, nullptr);
        }
        for (const SourceRow &row : flow.sources) {
            if (row.figures.over_limit) {
                add(flow, source_json(row.source));
            }
        }
    }
    return json;
}

Json chip_rules_json() {
    Json json = Json::array();
    for (const card::ChipRule &rule : card::Chip::instance().rules()) {
        json.push_back({{"entry_id", rule.entry_id},
                        {"stat_id", rule.stat_id},
                        {"denies", rule.denies},
                        {"packets", rule.packets},
                        {"description", rule.description}});
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

Json ports_json(const Replay &replay) {
    Json json = Json::array();
    for (const auto &[port, counts] : replay.ports()) {
        json.push_back({{"port", port},
                        {"offered", counts.offered},
                        {"stopped_in_chip", counts.stopped},
                        {"dropped_in_software", counts.dropped},
                        {"passed", counts.passed}});
    }
    return json;
}

Json flow_verdicts_json(const Replay &replay) {
    const auto known = [](const std::optional<uint64_t> &count) { return count ? Json(*count) : Json(nullptr); };
    Json json = Json::array();
    for (const FlowVerdict &row : replay.flow_verdicts().rows()) {
        json.push_back({{"port", row.flow.port},
                        {"vlan", row.flow.vlan},
                        {"protocol", protocol_name(row.flow.protocol)},
                        {"offered", known(row.offered)},
                        {"stopped_in_chip", row.stopped},
                        {"dropped_in_software", row.dropped},
                        {"passed", known(row.passed)}});
    }
    return json;
}

}  // namespace host
