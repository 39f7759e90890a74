// SPDX-License-Identifier: Apache-2.0
// delivery.h: who waits for whom where events go out.
#pragma once

#include <string>

#include "events/line_queue.h"

namespace host {

enum class Delivery {
    kWhole,     // packets wait for the reader: a replay, of which nothing shall be missing
    kNoWaiting  // packets wait for nobody: what a slow reader has no room for is lost and told
};

// What an output has taken, as the operator sees it.
struct OutputState {
    std::string kind;  // "events", "syslog", "log"
    std::string name;
    LineCounts counts;
};

}  // namespace host
