// SPDX-License-Identifier: Apache-2.0
// report_data.h: what a replay has found, as data: every section has a key that stays, and numbers are numbers.
//
// What may have as many rows as there are flows is written row by row.
// Used by: replay_command (the whole), the console (single sections). Uses: json_writer, replay, module_tables, the
// chip. Thread: the driving one.
#pragma once

#include "alarm_listing.h"
#include "json_writer.h"
#include "module_tables.h"
#include "report.h"

namespace host {

// One object.
void write_report(std::FILE *out, const Summary &summary);

// The elements of an array that is open.
void write_flows(JsonWriter &json, const Run &run, const StandingAlarms &alarms);
void write_alarms(JsonWriter &json, const StandingAlarms &alarms);
void write_flow_verdicts(JsonWriter &json, const Run &run);

Json protocols_json(uint32_t direction);
Json ports_json(const Run &run);
Json vlans_json();
Json chip_rules_json();
Json hw_deny_json();
Json port_verdicts_json(const Run &run);
Json flow_key_json(const FlowKey &flow);
// A flow, or one of its sources, with its figures; a flow with its sources.
Json flow_line_json(const FlowLine &line);
Json flow_row_json(const FlowRow &row);
Json source_json(const Source &source);

}  // namespace host
