// SPDX-License-Identifier: Apache-2.0
// commands_show.cpp: "show": tables, alarms, rules and settings, as the module's own text or as data.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "anti_cpu/anti_cpu.h"
#include "clock/clock.h"
#include "console/command_rows.h"
#include "console/dump_data.h"
#include "console/flood_view.h"
#include "console/flow_view.h"
#include "console/limits_view.h"
#include "module_text.h"
#include "os/os.h"
#include "report_data.h"
#include "services/services.h"
#include "text_table.h"

namespace host::console {

namespace {

Status print_text(const std::string &text) {
    // The module's dumps stand between empty lines.
    const size_t first = text.find_first_not_of('\n');
    if (first == std::string::npos) {
        std::printf("(none)\n");
    } else {
        std::printf("%s\n", text.substr(first, text.find_last_not_of('\n') - first + 1).c_str());
    }
    return Status::kDone;
}

// An array of which write(json) writes the elements.
template <typename Write>
Status print_array(Write write) {
    JsonWriter json(stdout);
    json.open_array();
    write(json);
    json.close();
    return Status::kDone;
}

Status show_protocols(Session &session, const Arguments &arguments) {
    const uint32_t direction = arguments.number_or("direction", ATC_DIRECTION_RX);
    return as_json(session, arguments)
               ? print_json(protocols_json(direction))
               : print_text(report_text(direction == ATC_DIRECTION_RX ? atc_api_get_rx_protocol_stat_brief
                                                                      : atc_api_get_tx_protocol_stat_brief));
}

Status show_ports(Session &session, const Arguments &arguments) {
    return as_json(session, arguments) ? print_json(ports_json(session.run)) : print_text(ports_text(session.run));
}

Status show_vlans(Session &session, const Arguments &arguments) {
    return as_json(session, arguments) ? print_json(vlans_json())
                                       : print_text(report_text(atc_api_get_rx_vlan_stat_brief));
}

Status show_flows(Session &session, const Arguments &arguments) {
    const auto given = [&arguments](const char *name) {
        return arguments.given(name) ? std::optional(arguments.number(name)) : std::nullopt;
    };
    const FlowFilter filter{given("protocol"), given("port"), given("vlan"), arguments.has("over-limit")};
    if (as_json(session, arguments)) {
        return print_array([&](JsonWriter &json) { write_chosen(json, session.run, filter); });
    }
    if (filter.chooses_all()) {
        return print_text(flows_text(session.run));
    }
    print_chosen(session.run, filter);
    return Status::kDone;
}

Status show_top(Session &session, const Arguments &arguments) {
    const TopOf of = arguments.has("sources")   ? TopOf::kSources
                     : arguments.has("classes") ? TopOf::kClasses
                                                : TopOf::kFlows;
    const uint32_t count = arguments.number_or("rows", 10);
    if (as_json(session, arguments)) {
        return print_json(top_json(session.run, of, count));
    }
    print_top(session.run, of, count);
    return Status::kDone;
}

Status show_floods(Session &session, const Arguments &arguments) {
    const StandingFloods floods = standing_floods(session.run, arguments.number_or("rows", 10));
    if (as_json(session, arguments)) {
        return print_json(floods_json(floods));
    }
    print_floods(floods);
    return Status::kDone;
}

Status show_alarms(Session &session, const Arguments &arguments) {
    if (!as_json(session, arguments)) {
        return print_text(alarms_text(session.run));
    }
    const AlarmListing alarms = list_alarms(session.run.alarms());
    return print_array([&](JsonWriter &json) { write_alarms(json, alarms.standing); });
}

Status show_hw_deny(Session &session, const Arguments &arguments) {
    if (as_json(session, arguments)) {
        return print_json(hw_deny_json());
    }
    print_hw_deny(stdout);
    return Status::kDone;
}

Status show_chip(Session &session, const Arguments &arguments) {
    if (as_json(session, arguments)) {
        return print_json(chip_rules_json());
    }
    print_chip_rules(stdout);
    return Status::kDone;
}

Status show_filters(Session &session, const Arguments &arguments) {
    return as_json(session, arguments) ? print_json(filters_json()) : print_text(printed_text(atc_filter_show));
}

Status show_limits(Session &session, const Arguments &arguments) {
    const uint32_t only = arguments.number_or("protocol", 0);
    if (as_json(session, arguments)) {
        const Json all = limits_json();
        return print_json(only == 0 ? all : all.at(only - 1));
    }
    print_limits(only, session.defaults);
    return Status::kDone;
}

Status show_settings(Session &session, const Arguments &arguments) {
    return as_json(session, arguments) ? print_json(settings_json()) : print_text(settings_text());
}

Status show_trunks(Session &session, const Arguments &arguments) {
    return as_json(session, arguments) ? print_json(trunks_json()) : print_text(printed_text(atc_trunk_show));
}

Status show_port_map(Session &session, const Arguments &arguments) {
    const auto highest = static_cast<int32_t>(arguments.number("highest"));
    return as_json(session, arguments) ? print_json(port_map_json(highest))
                                       : print_text(printed_text([highest] { atc_log_port_show(highest); }));
}

Status show_names(Session &session, const Arguments &arguments) {
    Json json = Json::array();
    TextTable table({{"id", TextTable::Align::kRight}, {"protocol", TextTable::Align::kLeft}});
    for (uint32_t id = 1; id <= ATC_PROTOCOL_COUNT; id++) {
        json.push_back({{"id", id}, {"protocol", protocol_name(id)}});
        table.add({std::to_string(id), protocol_name(id)});
    }
    if (as_json(session, arguments)) {
        return print_json(json);
    }
    table.print(stdout);
    return Status::kDone;
}

// Automatic captures by what they hold of, the manual one first.
Status show_captures(Session &session, const Arguments &arguments) {
    const bool manual = atc_api_get_cap_is_exist() == 1;
    const std::vector<HeldCapture> held = held_captures(session.run.flows());
    if (as_json(session, arguments)) {
        Json json = {{"manual", manual}, {"automatic", Json::array()}};
        for (const HeldCapture &capture : held) {
            json["automatic"].push_back({{"file", capture_name(capture.key)}, {"bytes", capture.bytes}});
        }
        return print_json(json);
    }
    std::printf("manual capture: %s\n", manual ? "held" : "none");
    TextTable table({{"automatic capture", TextTable::Align::kLeft}, {"bytes", TextTable::Align::kRight}});
    for (const HeldCapture &capture : held) {
        table.add({capture_name(capture.key), std::to_string(capture.bytes)});
    }
    table.print(stdout);
    return Status::kDone;
}

Status show_verdicts(Session &session, const Arguments &arguments) {
    if (as_json(session, arguments)) {
        JsonWriter json(stdout);
        json.open_object();
        json.add("ports", port_verdicts_json(session.run));
        json.open_array("flows");
        write_flow_verdicts(json, session.run);
        json.close();
        json.close();
        return Status::kDone;
    }
    print_verdicts(stdout, session.run);
    return Status::kDone;
}

Status show_memory(Session &session, const Arguments &arguments) {
    const card::MemoryUse use = card::memory_use();
    if (as_json(session, arguments)) {
        return print_json(
            {{"blocks", use.blocks}, {"bytes", use.bytes}, {"budget", use.budget}, {"refused", use.refused}});
    }
    TextTable table({{"blocks", TextTable::Align::kRight},
                     {"bytes", TextTable::Align::kRight},
                     {"budget-bytes", TextTable::Align::kRight},
                     {"refused-blocks", TextTable::Align::kRight}});
    table.add({std::to_string(use.blocks), std::to_string(use.bytes),
               use.budget == 0 ? "none" : std::to_string(use.budget), std::to_string(use.refused)});
    table.print(stdout);
    return Status::kDone;
}

Status show_clock(Session &session, const Arguments &arguments) {
    const double since_start = static_cast<double>(session.run.now_ns() - session.run.start_ns()) /
                               static_cast<double>(card::kNanosecondsPerSecond);
    const std::string now = card::time_text(session.run.now_ns());
    const bool live = session.replay == nullptr;
    if (as_json(session, arguments)) {
        return print_json({{"time", now},
                           {"seconds_since_start", since_start},
                           {live ? "packets" : "packets_replayed", session.run.packets()}});
    }
    std::printf("%s UTC, %.3f s since %s, %llu packets %s%s\n", now.c_str(), since_start,
                live ? "the start" : "the first packet", static_cast<unsigned long long>(session.run.packets()),
                live ? "seen" : "replayed", !live && session.replay->at_end() ? ", none left" : "");
    return Status::kDone;
}

}  // namespace

std::vector<Command> show_rows() {
    return {
        {"show protocols [<direction>]", "Table of protocols, received ones unless told otherwise", show_protocols},
        {"show ports", "Table of ports", show_ports},
        {"show vlans", "Table of VLANs", show_vlans},
        {"show flows [class <protocol> | port <port> | vlan <vlan> | over-limit]...",
         "Table of flows (port, VLAN, protocol) and their sources", show_flows},
        {"show top [<rows>] [flows | sources | classes]", "What has the most packets, 10 rows unless told otherwise",
         show_top},
        {"show floods [<rows>]",
         "What floods now and what is done about it, highest rates first, 10 rows unless told otherwise", show_floods},
        {"show alarms", "Flows and sources over their fast limit", show_alarms},
        {"show hw-deny", "Automatic rules in the switching chip, newest first", show_hw_deny},
        {"show chip", "Every rule in the switching chip and what it matched", show_chip},
        {"show filters", "The operator's filters, in software and in the chip", show_filters},
        {"show limits [<protocol>]", "Limits and reactions of the protocols, changed ones marked", show_limits},
        {"show settings", "Settings that are no protocol's", show_settings},
        {"show trunks", "Trunks and their members", show_trunks},
        {"show port-map <highest:port-index>", "Slot and port of the logical ports up to this one", show_port_map},
        {"show names", "Ids and names of the protocols", show_names},
        {"show captures", "Captures that the module holds", show_captures},
        {"show verdicts", "What became of the received packets, by port and by flow", show_verdicts},
        {"show memory", "Memory that the module uses, its budget, and what that forbade", show_memory},
        {"show clock", "The replay's time", show_clock},
    };
}

}  // namespace host::console
