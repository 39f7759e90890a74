// SPDX-License-Identifier: Apache-2.0
// flow_view.h: the flows that an operator asks for: by class, port, VLAN or limit, or those with the most packets.
//
// What the module's own flow table has no column or room for. Used by: commands_show. Uses: module_tables, report_data,
// text_table. Thread: the driving one.
#pragma once

#include <optional>

#include "json_writer.h"
#include "run.h"

namespace host::console {

// What is not set takes part in nothing.
struct FlowFilter {
    std::optional<uint32_t> protocol;
    std::optional<uint32_t> port;
    std::optional<uint32_t> vlan;
    bool only_over = false;

    bool chooses_all() const { return !protocol && !port && !vlan && !only_over; }
    bool chooses(const FlowKey &flow) const;
};

// A table, a line for each flow and source, or the elements of an open array, one for each flow.
void print_chosen(const Run &run, const FlowFilter &filter);
void write_chosen(JsonWriter &json, const Run &run, const FlowFilter &filter);

enum class TopOf {
    kFlows,
    kSources,  // of flows
    kClasses
};

// The 'count' with the most packets, most first, as the module counts them since they were last cleared.
void print_top(const Run &run, TopOf of, size_t count);
Json top_json(const Run &run, TopOf of, size_t count);

}  // namespace host::console
