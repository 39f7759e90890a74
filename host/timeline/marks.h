// SPDX-License-Identifier: Apache-2.0
// marks.h: what happened to each flow, and when: alarms, rules and captures as short texts.
//
// Used by: html_report. Uses: journal. Thread: the driving one.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "events/journal.h"

namespace host {

struct Mark {
    int64_t time_ns;
    const char *kind;  // "alarm", "cleared", "rule", "withdrawn", "refused" or "capture"
    std::string text;
};

// The first kMost of a flow and its sources, and how many came behind them.
struct FlowMarks {
    static constexpr size_t kMost = 100;
    std::vector<Mark> marks;
    uint64_t more = 0;
};

class Marks {
public:
    static constexpr size_t kFlows = 2000;

    // Reads 'journal' from now on.
    void follow(Journal &journal);

    // Null for a flow to which nothing happened.
    const FlowMarks *of(const FlowKey &flow) const;

private:
    void take(const JournalEntry &entry);
    void add(const Subject &subject, Mark mark);

    std::map<FlowKey, FlowMarks> flows_;
};

}  // namespace host
