// SPDX-License-Identifier: Apache-2.0
// command.h: one row of the command table, and what its handler gets.
//
// A pattern is what the operator types:
//   word           a key word; may be cut short while that is unambiguous
//   <kind>         an argument (see kinds.h); <name:kind> when its name says more
//   [ ... ]        may be left out
//   [ a | b ]...   any of these, each once, in any order
//   ( a | b )      one of these
//   {match}        any number of "field value" pairs (see match_fields.h); {hw-match} those of the switching chip
// Every row that begins with "show" also takes a last word "json".
// Used by: the commands_*.cpp (rows), grammar (reads them), help (draws texts from them).
#pragma once

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "capture_keeper.h"
#include "console/kinds.h"
#include "events/delivery.h"
#include "json_writer.h"
#include "module_settings.h"
#include "replay.h"
#include "report.h"

namespace host::console {

enum class Status {
    kDone,
    kFailed,  // the line is right, the module or the card refused; the reason has been printed
    kWrong,   // the line is wrong; nothing has changed
    kQuit,
    kStopped,  // a signal has ended what ran
};

// Whom the lines work on.
struct Session {
    Run &run;
    Replay *replay;  // the same, where packets come from captures; else null
    CaptureKeeper &captures;
    bool json;                                            // show prints data
    bool may_run;                                         // false while settings are made before the replay
    ModuleSettings defaults{};                            // what the module had before any were made
    std::function<std::vector<OutputState>()> outputs{};  // where events and messages go; empty: nobody tells
};

class Arguments {
public:
    // Whether this key word was typed (perhaps cut short).
    bool has(std::string_view word) const;
    bool given(const std::string &name) const { return values_.contains(name); }
    // Of an argument that the pattern demands, or that was given.
    const Value &value(const std::string &name) const { return values_.at(name); }
    uint32_t number(const std::string &name) const { return values_.at(name).number; }
    uint32_t number_or(const std::string &name, uint32_t otherwise) const;
    const std::string &text(const std::string &name) const { return values_.at(name).text; }
    // Of {match} and {hw-match}.
    const atc_filter_rule_t &rule() const { return rule_; }

private:
    friend class Grammar;
    std::vector<std::string> words_;
    std::map<std::string, Value> values_;
    atc_filter_rule_t rule_{};
};

struct Command {
    const char *pattern;
    const char *help;  // one line
    Status (*handler)(Session &session, const Arguments &arguments);
};

// The whole table, in the order of help.
const std::vector<Command> &commands();

// For handlers: prints why, returns kFailed.
Status failed(const char *reason);
// kDone when 'result' is 0, otherwise as above.
Status done_if_zero(uint32_t result, const char *reason);
// Whether a "show" line prints data.
bool as_json(const Session &session, const Arguments &arguments);
Status print_json(const Json &json);

}  // namespace host::console
