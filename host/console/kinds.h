// SPDX-License-Identifier: Apache-2.0
// kinds.h: the kinds of arguments that console lines take.
//
// One row a kind: its name in a command's pattern, what an error message calls it, how a word is read, and which words
// completion offers. Used by: grammar, help, match_fields. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "addresses.h"

namespace host::console {

// A word that was read as its kind; which member counts follows from the kind.
struct Value {
    std::string text;     // as typed
    uint32_t number = 0;  // numbers, protocol ids (0: all), directions, on (1) and off (0), IPv4 addresses
    Prefix prefix;        // addresses, with or without length
};

struct Kind {
    const char *name;         // in patterns: "<port>"
    const char *description;  // "a port (0 to 4294967295)"
    std::optional<Value> (*read)(std::string_view word);
    std::vector<std::string> (*choices)();  // null when there is nothing to offer
    bool is_secret = false;                 // no echo and no message shows it
};

// Null for a name that is no kind.
const Kind *find_kind(std::string_view name);

const std::vector<Kind> &all_kinds();

// A time of 'run until': seconds behind 'start_ns' ("90", "90s"), a time of the day of 'start_ns', perhaps before it
// ("03:47:00"), or date and time ("2021-09-02T03:47:00"), in UTC. Nanoseconds since 1970; whether there is one does not
// depend on 'start_ns'.
std::optional<int64_t> read_time(std::string_view word, int64_t start_ns);

}  // namespace host::console
