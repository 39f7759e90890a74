// SPDX-License-Identifier: Apache-2.0
// table_layout.h: a page's rows in their order, as lines that fit a screen's width.
//
// Used by: view. Pure.
#pragma once

#include <string>
#include <vector>

#include "top/pages.h"

namespace host::top {

// Numbers greatest first, texts by the alphabet, unless turned round.
void sort_rows(Page &page, size_t column, bool is_turned);

struct TableLines {
    std::string heading;
    std::vector<std::string> rows;
};
// 'marked': the column by which rows are sorted.
TableLines lay_out(const Page &page, size_t width, size_t marked);

}  // namespace host::top
