// SPDX-License-Identifier: Apache-2.0
// match_fields.h: the fields by which software rules, hardware filters, traces and captures choose packets.
//
// One row a field: key word, kind of its value, where it goes in a rule, what it means. A rule on a console line is any
// number of "field value" pairs. Used by: grammar, help. Pure.
#pragma once

#include <vector>

#include "anti_cpu/types.h"
#include "console/kinds.h"

namespace host::console {

// Who compares a field.
enum FieldUse : uint32_t {
    kFieldSoftware = 1,  // software rules, and the trace and capture filters
    kFieldHardware = 2,  // hardware filters
};

struct MatchField {
    const char *word;
    const char *kind;
    uint32_t uses;
    const char *help;
    // False when the rule has a value for it already, or the value would match everything.
    bool (*store)(atc_filter_rule_t &rule, const Value &value);
};

const std::vector<MatchField> &match_fields();

}  // namespace host::console
