// SPDX-License-Identifier: Apache-2.0
// commands_statistic.cpp: "show statistic" and "show sources": the module's two-sample queries.
//
// A query takes a second of the replay's time, in which that second's packets are replayed.
#include "anti_cpu/anti_cpu.h"

#include <nlohmann/json.hpp>
#include "console/command_rows.h"
#include "figures.h"
#include "module_tables.h"
#include "report_data.h"
#include "text_table.h"

namespace host::console {

namespace {

Json period_json(const PeriodFigures &period, bool of_flow) {
    Json json = {{"latest", period.latest},     {"latest_pps", period.latest_pps},
                 {"smallest", period.smallest}, {"smallest_pps", period.smallest_pps},
                 {"largest", period.largest},   {"largest_pps", period.largest_pps},
                 {"average", period.average},   {"average_pps", period.average_pps}};
    if (of_flow) {
        json["limit"] = period.limit;
        json["limit_pps"] = period.limit_pps;
    }
    json["peak"] = period.peak;
    json["peak_pps"] = period.peak_pps;
    json["peak_time"] = period.peak_time;
    return json;
}

Json figures_json(const Figures &f, bool of_flow) {
    Json json = {{"packets", f.count}, {"pps", f.pps}};
    json["fast_period"] = period_json(f.fast, of_flow);
    json["long_period"] = period_json(f.slow, of_flow);
    if (of_flow) {
        json["capture_on"] = f.cap_on == 1;
        json["capture_bytes"] = f.cap_len;
        json["software_deny_on"] = f.sw_deny_on == 1;
        json["hardware_deny_on"] = f.hw_deny_on == 1;
    }
    return json;
}

void print_figures(const Figures &f, bool of_flow) {
    std::printf("packets %u, in the last second %u\n\n", f.count, f.pps);
    constexpr auto right = TextTable::Align::kRight;
    TextTable table({{"last 12 periods", TextTable::Align::kLeft},
                     {"fast period (packets)", right},
                     {"(pps)", right},
                     {"long period (packets)", right},
                     {"(pps)", right}});
    const auto add = [&table](const char *name, uint32_t fast, uint32_t fast_pps, uint32_t slow, uint32_t slow_pps) {
        table.add(
            {name, std::to_string(fast), std::to_string(fast_pps), std::to_string(slow), std::to_string(slow_pps)});
    };
    add("latest", f.fast.latest, f.fast.latest_pps, f.slow.latest, f.slow.latest_pps);
    add("smallest", f.fast.smallest, f.fast.smallest_pps, f.slow.smallest, f.slow.smallest_pps);
    add("largest", f.fast.largest, f.fast.largest_pps, f.slow.largest, f.slow.largest_pps);
    add("average", f.fast.average, f.fast.average_pps, f.slow.average, f.slow.average_pps);
    if (of_flow) {
        add("limit", f.fast.limit, f.fast.limit_pps, f.slow.limit, f.slow.limit_pps);
    }
    add("peak ever", f.fast.peak, f.fast.peak_pps, f.slow.peak, f.slow.peak_pps);
    table.add({"time of the peak", f.fast.peak_time, "", f.slow.peak_time, ""});
    table.print(stdout);
    if (of_flow) {
        std::printf("\ncapture %s (%u bytes), software deny %s, hardware deny %s\n", f.cap_on == 1 ? "on" : "off",
                    f.cap_len, f.sw_deny_on == 1 ? "on" : "off", f.hw_deny_on == 1 ? "on" : "off");
    }
}

Status show_figures(const Session &session, const Arguments &arguments, bool found, const Figures &figures,
                    bool of_flow) {
    if (!found) {
        return failed("there is no such entry");
    }
    if (session.json || arguments.has("json")) {
        return print_json(figures_json(figures, of_flow));
    }
    print_figures(figures, of_flow);
    return Status::kDone;
}

Status show_global(Session &session, const Arguments &arguments) {
    Figures figures;
    const bool found = global_figures(arguments.number("direction"), figures);
    return show_figures(session, arguments, found, figures, false);
}

Status show_port(Session &session, const Arguments &arguments) {
    Figures figures;
    const uint32_t direction = arguments.number_or("direction", ATC_DIRECTION_RX);
    const bool found = port_figures(direction, arguments.number("port"), figures);
    return show_figures(session, arguments, found, figures, false);
}

Status show_vlan(Session &session, const Arguments &arguments) {
    Figures figures;
    const uint32_t direction = arguments.number_or("direction", ATC_DIRECTION_RX);
    const bool found = vlan_figures(direction, arguments.number("vlan"), figures);
    return show_figures(session, arguments, found, figures, false);
}

Status show_protocol(Session &session, const Arguments &arguments) {
    Figures figures;
    const bool found = protocol_figures(arguments.number("direction"), arguments.number("protocol"), figures);
    return show_figures(session, arguments, found, figures, false);
}

Status show_flow(Session &session, const Arguments &arguments) {
    Figures figures;
    const FlowName flow = flow_name(arguments);
    const bool found = flow_figures(flow.direction, flow.subject(), figures);
    return show_figures(session, arguments, found, figures, true);
}

Status show_sources(Session &session, const Arguments &arguments) {
    const FlowName flow = flow_name(arguments);
    const std::vector<CountedSource> sources = flow_sources(flow.direction, flow.subject().flow);
    if (session.json || arguments.has("json")) {
        Json json = Json::array();
        for (const CountedSource &counted : sources) {
            json.push_back(source_json(counted.source));
            json.back()["packets"] = counted.packets;
        }
        return print_json(json);
    }
    if (sources.empty()) {
        return failed("there is no such flow, or it has no sources");
    }
    TextTable table({{"source", TextTable::Align::kLeft}, {"packets", TextTable::Align::kRight}});
    for (const CountedSource &counted : sources) {
        table.add({source_text(counted.source), std::to_string(counted.packets)});
    }
    table.print(stdout);
    return Status::kDone;
}

}  // namespace

std::vector<Command> statistic_rows() {
    return {
        {"show statistic global <direction>", "Figures of all packets; measures for a second", show_global},
        {"show statistic port [<direction>] <port>", "Figures of a port's packets", show_port},
        {"show statistic vlan [<direction>] <vlan>", "Figures of a VLAN's packets", show_vlan},
        {"show statistic protocol <direction> <protocol>", "Figures of a protocol's packets", show_protocol},
        {"show statistic flow " ATC_FLOW_SOURCE, "Figures of a flow or one of its sources, with limits and denies",
         show_flow},
        {"show sources " ATC_FLOW, "Sources of a flow, busiest first", show_sources},
    };
}

}  // namespace host::console
