// report.h: what a replay has found, as sections of text or as one JSON object.
//
// The tables are the module's own texts; the chip's rules, what became of the packets and the summary are the host's.
// As data, every section has a key that stays, and numbers are numbers. Used by: main, the console (single sections).
// Uses: replay, event_log, module_tables, the chip. Thread: the driving one.
#pragma once

#include <cstdio>
#include <nlohmann/json.hpp>

#include "event_log.h"
#include "module_tables.h"
#include "replay.h"

namespace host {

// Keys stay in the order in which they are written.
using Json = nlohmann::ordered_json;

struct Summary {
    const CaptureSet &captures;
    const Replay &replay;
    const EventLog &events;
    double real_time_s;  // not part of what two replays print alike
};

void print_report(std::FILE *out, const Summary &summary);
void print_summary(std::FILE *out, const Summary &summary);
Json report_json(const Summary &summary);

// Sections that the console shows too.
void print_chip_rules(std::FILE *out);
void print_hw_deny(std::FILE *out);
void print_verdicts(std::FILE *out, const Replay &replay);
Json table_json(const std::vector<TableRow> &rows, const char *key, bool key_is_number);
Json flows_json(const std::vector<FlowRow> &flows);
Json alarms_json(const std::vector<FlowRow> &flows);
Json chip_rules_json();
Json hw_deny_json();
Json ports_json(const Replay &replay);
Json flow_verdicts_json(const Replay &replay);
Json source_json(const Source &source);

}  // namespace host
