// SPDX-License-Identifier: Apache-2.0
// advice.h: what to try next: the fast period that shows a flood, the reactions that hold it, as one command line.
//
// Used by: verdict. Uses: floods, module_settings. Pure.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "module_settings.h"
#include "verdict/floods.h"

namespace host {

// Seconds of a fast period, shorter than 'current_s', in which every flood that the period hides would have raised an
// alarm; none when nothing is hidden.
std::optional<uint32_t> fitting_period_s(const std::vector<Flood> &floods, uint32_t current_s);

struct Advice {
    std::vector<std::string> reasons;  // one a part of the command
    std::string command;               // empty: nothing to try
};

// The line that puts filter 'id' into the chip against a flood that no limit acts on: of its sender where one sends
// most and nothing else tells its packets from others, otherwise of its VLAN.
std::string filter_line(const Flood &flood, size_t id);

// Command lines, word by word, without secrets.
struct Commands {
    std::vector<std::string> replay;  // this one
    std::vector<std::string> tune;    // of the same captures; empty where they cannot be read again
};

// For a day without floods: what limits it needs.
Advice advice_to_tune(const Commands &commands);

// 'command' is the command line of this replay, word by word.
Advice advice_for(const std::vector<Flood> &floods, const ModuleSettings &settings, std::optional<uint32_t> period_s,
                  const std::vector<std::string> &command);

}  // namespace host
