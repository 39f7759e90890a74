// SPDX-License-Identifier: Apache-2.0
// help.h: the texts that are drawn from the command table.
//
// Used by: commands_session, console, main (the reference page). Uses: command, match_fields, kinds. Pure.
#pragma once

#include <string>

namespace host::console {

// Every command with its help, or those whose first word begins with 'verb'; empty when there is none.
std::string help_text(const std::string &verb);

// The whole table as a page in Markdown.
std::string reference_page();

}  // namespace host::console
