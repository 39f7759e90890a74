// SPDX-License-Identifier: Apache-2.0
// pages.h: the tables of `anti-cpu top`, from what the process has told now and before.
//
// Rates are of the time between the two. Used by: view, top_command. Uses: snapshot. Pure.
#pragma once

#include <string>
#include <vector>

#include "top/snapshot.h"

namespace host::top {

enum class Mood {
    kPlain,
    kHeading,
    kGood,     // a flood that is held
    kWarning,  // one that is told, and let through
    kBad,      // what is not as it should be
};

struct Cell {
    std::string text;
    double order = 0;  // of a number; texts sort as such
};

struct Column {
    std::string heading;
    bool is_number;
    size_t from_width = 0;  // of the screen, in characters; narrower ones do without
};

struct Row {
    std::vector<Cell> cells;  // one a column; the first ones name it
    Mood mood = Mood::kPlain;
    std::string match;    // the fields that name its packets in an operator's line; empty = none
    std::string sources;  // the line that shows who sends them; empty = none
};

struct Page {
    std::string name;
    std::vector<Column> columns;
    std::vector<Row> rows;
    size_t sorted_by = 0;  // column, unless the operator chooses another one
    std::string empty;     // what is said where there are no rows
};

enum class Subject {
    kFloods,
    kPorts,
    kClasses,
    kRules,
    kSources,  // of a row of another page
};
constexpr size_t kPages = 4;  // those that have a number

const char *page_name(Subject subject);
// What is asked for it besides what every page shows; empty = nothing.
std::string page_line(Subject subject, const std::string &sources_line);

// 'before' is null at first.
Page make_page(Subject subject, const Snapshot &now, const Snapshot *before);

// What stands above every page: the flood as a whole.
struct Summary {
    std::string text;
    Mood mood;
};
Summary summarize(const Snapshot &now, const Snapshot *before);

}  // namespace host::top
