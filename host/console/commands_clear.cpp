// SPDX-License-Identifier: Apache-2.0
// commands_clear.cpp: "clear": counters, captures and automatic hardware rules.
#include "anti_cpu/anti_cpu.h"
#include "console/command_rows.h"

namespace host::console {

namespace {

constexpr const char *kNoEntry = "there is no such entry";

uint32_t direction_of(const Arguments &arguments) {
    return arguments.number_or("direction", ATC_DIRECTION_RX);
}

Status clear_all(Session &session, const Arguments &) {
    Run &run = session.run;
    const int result = run.flow_verdicts().keep_counts(run.flows().flows(), atc_api_clear_statistic_all);
    run.alarms().forget();
    return done_if_zero(static_cast<uint32_t>(result), kNoEntry);
}

Status clear_global(Session &, const Arguments &arguments) {
    return done_if_zero(static_cast<uint32_t>(atc_api_clear_statistic_global(direction_of(arguments))), kNoEntry);
}

Status clear_port(Session &, const Arguments &arguments) {
    const int result = atc_api_clear_statistic_port(direction_of(arguments), arguments.number("port"));
    return done_if_zero(static_cast<uint32_t>(result), kNoEntry);
}

Status clear_vlan(Session &, const Arguments &arguments) {
    const int result = atc_api_clear_statistic_vlan(direction_of(arguments), arguments.number("vlan"));
    return done_if_zero(static_cast<uint32_t>(result), kNoEntry);
}

Status clear_protocol(Session &, const Arguments &arguments) {
    const int result = atc_api_clear_statistic_protocol(direction_of(arguments), arguments.number("protocol"));
    return done_if_zero(static_cast<uint32_t>(result), kNoEntry);
}

Status clear_flow(Session &session, const Arguments &arguments) {
    const FlowName flow = flow_name(arguments);
    const FlowKey cleared = flow.subject().flow;
    const int result = session.run.flow_verdicts().keep_counts({&cleared, 1}, [&flow] {
        return atc_api_clear_statistic(flow.direction, flow.vlan, flow.port, flow.protocol, flow.source.type,
                                       flow.address());
    });
    return done_if_zero(static_cast<uint32_t>(result), kNoEntry);
}

Status clear_hw_deny(Session &, const Arguments &arguments) {
    const int result = atc_api_clear_hw_deny_info(arguments.number_or("entry", 0));
    return done_if_zero(static_cast<uint32_t>(result), kNoEntry);
}

Status clear_capture(Session &, const Arguments &arguments) {
    const int result = arguments.has("manual") ? atc_api_set_cap_clear() : atc_api_set_auto_cap_clear();
    return done_if_zero(static_cast<uint32_t>(result), "the captures cannot be cleared");
}

}  // namespace

std::vector<Command> clear_rows() {
    return {
        {"clear statistic all", "Discard every entry with its sources, captures and hardware rules", clear_all},
        {"clear statistic global <direction>", "Set the figures of all packets to zero", clear_global},
        {"clear statistic port [<direction>] <port>", "Set a port's figures to zero", clear_port},
        {"clear statistic vlan [<direction>] <vlan>", "Set a VLAN's figures to zero", clear_vlan},
        {"clear statistic protocol <direction> <protocol>", "Set a protocol's figures to zero", clear_protocol},
        {"clear statistic flow " ATC_FLOW_SOURCE, "Set the figures of a flow or source to zero, free its capture",
         clear_flow},
        {"clear hw-deny [<entry:id>]", "Withdraw one automatic hardware rule, or all", clear_hw_deny},
        {"clear capture (manual | auto)", "Free the manual capture, or all automatic ones", clear_capture},
    };
}

}  // namespace host::console
