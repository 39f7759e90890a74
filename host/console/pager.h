// SPDX-License-Identifier: Apache-2.0
// pager.h: long output on a terminal, through the pager that the user has chosen.
//
// Used by: console. Thread: the driving one.
#pragma once

#include <cstdio>

namespace host::console {

// Shows all of 'output': through $PAGER, or "less -FRX" where there is none, when standard input and output are a
// terminal and it has fewer lines; otherwise as it is.
void show_paged(std::FILE *output);

}  // namespace host::console
