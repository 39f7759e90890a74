// SPDX-License-Identifier: Apache-2.0
// module_tables.h: the module's tables as data: the columns of its text tables, by its queries.
//
// However many rows there are: a text table ends where its buffer does. Figures are of the moment, no time passes.
// Used by: report, the console, flow_verdicts. Thread: the driving one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "alarm_book.h"
#include "flow_account.h"

namespace host {

struct TableFigures {
    uint32_t packets = 0;
    uint32_t speed_pps = 0;  // in the latest fast period
    uint32_t peak_packets = 0;
    uint32_t peak_pps = 0;
    std::string peak_time;  // empty = no peak yet
};

struct TableRow {
    uint32_t key = 0;  // protocol id, port or VLAN
    TableFigures figures;
};

// In ascending order.
std::vector<TableRow> protocol_rows(uint32_t direction);
std::vector<TableRow> port_rows(FlowAccount &account);
std::vector<TableRow> vlan_rows();

// One line of the flow table.
struct FlowLine {
    Subject subject;
    TableFigures figures;
    uint32_t limit_pps = 0;      // of fast periods
    bool over_limit = false;     // its fast-period alarm is raised
    uint32_t capture_bytes = 0;  // of its automatic capture; 0 = none
};

// A flow and its sources, in ascending order of their numbers.
struct FlowRow {
    FlowLine flow;
    std::vector<FlowLine> sources;
};

// Calls use(row) for each received flow, in ascending order.
template <typename Use>
void each_flow_row(FlowAccount &account, const StandingAlarms &alarms, Use use);

// Those of which 'chosen' is true, and of these only the lines over their limits when 'only_over' is.
template <typename Chosen, typename Use>
void each_chosen_row(FlowAccount &account, const StandingAlarms &alarms, Chosen chosen, bool only_over, Use use);

// False when the module has no such flow.
bool read_flow_row(const FlowKey &flow, const StandingAlarms &alarms, FlowRow &row);

// How many lines there are: one for each flow and each source.
size_t count_flow_lines(FlowAccount &account);

// Packets that the module has counted in a flow since it was cleared; 0 when there is no such flow.
uint32_t flow_packets(const FlowKey &flow);

// A flow's sources, busiest first, with their packet counts; empty when there are none.
struct CountedSource {
    Source source;
    uint32_t packets;
};
std::vector<CountedSource> flow_sources(uint32_t direction, const FlowKey &flow);

template <typename Chosen, typename Use>
void each_chosen_row(FlowAccount &account, const StandingAlarms &alarms, Chosen chosen, bool only_over, Use use) {
    account.each_flow([&](const FlowKey &flow) {
        if (!chosen(flow)) {
            return true;
        }
        FlowRow row;
        const bool is_there = read_flow_row(flow, alarms, row);
        if (only_over) {
            std::erase_if(row.sources, [](const FlowLine &source) { return !source.over_limit; });
        }
        if (is_there && (!only_over || row.flow.over_limit || !row.sources.empty())) {
            use(row);
        }
        return is_there;
    });
}

template <typename Use>
void each_flow_row(FlowAccount &account, const StandingAlarms &alarms, Use use) {
    each_chosen_row(
        account, alarms, [](const FlowKey &) { return true; }, false, use);
}

}  // namespace host
