// SPDX-License-Identifier: Apache-2.0
// child.h: work in a process of its own, for what a process has only one of: the module and its card.
//
// Used by: trial. Uses: process (signals). Thread: the process's first, before the module has been started.
#pragma once

#include <functional>
#include <optional>

#include "json_writer.h"

namespace host {

// What 'work' gives in a child of this process. Nothing when the child has not come to its end, or could not be made:
// why stands on standard error. What 'work' prints on standard output is lost. A signal that ends this process's
// replays ends the child's, too.
std::optional<Json> in_child(const std::function<Json()> &work);

}  // namespace host
