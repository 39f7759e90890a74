// SPDX-License-Identifier: Apache-2.0
// whole_file.h: a file that is there whole, or not at all.
//
// The content goes into a file beside, of a name that nobody has, readable to its owner only; then it takes the wanted
// name, in place of what had it: a file of an earlier run stays whole until then, a link is replaced and not followed,
// a FIFO is not opened. Used by: captures_folder. Thread: any.
#pragma once

#include <string>
#include <string_view>

namespace host {

// False when it is not written; the reason through 'error'. Nothing is left beside.
bool write_whole_file(const std::string &path, std::string_view content, std::string &error);

}  // namespace host
