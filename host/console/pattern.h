// SPDX-License-Identifier: Apache-2.0
// pattern.h: the plain sequences of key words and arguments that a pattern of the command table stands for.
//
// Used by: grammar. Uses: kinds, match_fields. Pure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "console/kinds.h"

namespace host::console {

struct Element {
    enum class Type {
        kWord,
        kArgument,
        kMatch
    };
    Type type;
    std::string text;            // key word, or name of the argument
    const Kind *kind = nullptr;  // of an argument
    uint32_t uses = 0;           // of a match
};
using Sequence = std::vector<Element>;

// A pattern as command.h tells; a wrong one ends the process, at its first start.
std::vector<Sequence> read_pattern(const std::string &pattern);

}  // namespace host::console
