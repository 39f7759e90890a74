// SPDX-License-Identifier: Apache-2.0
// report.h: what a replay has found, as sections of text.
//
// The tables are the module's own texts, with a line behind those that had no room for all their rows; the chip's
// rules, what became of the packets and the summary are the host's. Used by: replay_command, the console (single
// sections). Uses: replay, event_log, alarm_listing, module_tables, the chip. Thread: the driving one.
#pragma once

#include <cstdio>
#include <string>

#include "event_log.h"
#include "replay.h"
#include "verdict/verdict.h"

namespace host {

struct Summary {
    const CaptureSet &captures;
    const Replay &replay;
    const EventLog &events;
    double real_time_s;      // not part of what two replays print alike
    const Verdict *verdict;  // null where the traffic was not counted

    double simulated_time_s() const;
    double packets_per_second() const;
};

void print_report(std::FILE *out, const Summary &summary);
// What fits a screen: the verdict, and what the reader has to say.
void print_answer(std::FILE *out, const Summary &summary);
void print_summary(std::FILE *out, const Summary &summary);

// The module's own texts, and behind them how many rows they had no room for.
std::string ports_text(const Run &run);
std::string flows_text(const Run &run);
std::string alarms_text(const Run &run);

// Sections that the console shows too.
void print_chip_rules(std::FILE *out);
void print_hw_deny(std::FILE *out);
void print_verdicts(std::FILE *out, const Run &run);

}  // namespace host
