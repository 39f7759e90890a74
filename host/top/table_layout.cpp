// SPDX-License-Identifier: Apache-2.0
#include "top/table_layout.h"

#include <algorithm>

namespace host::top {

namespace {

constexpr size_t kTextLeast = 12;  // of a column that gives way, and of the last one

std::string padded(const std::string &text, size_t width, bool is_number) {
    if (text.size() > width) {
        return width == 0 ? std::string() : text.substr(0, width - 1) + "~";
    }
    const std::string blanks(width - text.size(), ' ');
    return is_number ? blanks + text : text + blanks;
}

// Of the shown columns; the widest texts give way until the last column has room.
std::vector<size_t> widths_of(const Page &page, const std::vector<size_t> &shown, size_t width, size_t marked) {
    std::vector<size_t> widths;
    size_t sum = 0;
    for (const size_t column : shown) {
        size_t most = page.columns[column].heading.size() + (column == marked ? 1 : 0);
        for (const Row &row : page.rows) {
            most = std::max(most, row.cells[column].text.size());
        }
        widths.push_back(most);
        sum += most + 1;
    }
    const size_t last_least = std::min(widths.back(), 2 * kTextLeast);
    while (sum - widths.back() + last_least > width + 1) {
        size_t widest = SIZE_MAX;
        for (size_t i = 0; i + 1 < shown.size(); i++) {
            const bool may_shrink = !page.columns[shown[i]].is_number && widths[i] > kTextLeast;
            if (may_shrink && (widest == SIZE_MAX || widths[i] > widths[widest])) {
                widest = i;
            }
        }
        if (widest == SIZE_MAX) {
            break;
        }
        widths[widest]--;
        sum--;
    }
    return widths;
}

}  // namespace

void sort_rows(Page &page, size_t column, bool is_turned) {
    const bool is_number = page.columns[column].is_number;
    std::ranges::stable_sort(page.rows, [&](const Row &a, const Row &b) {
        const Cell &first = (is_turned == is_number ? a : b).cells[column];
        const Cell &second = (is_turned == is_number ? b : a).cells[column];
        return is_number ? first.order < second.order : first.text < second.text;
    });
}

TableLines lay_out(const Page &page, size_t width, size_t marked) {
    std::vector<size_t> shown;
    for (size_t i = 0; i < page.columns.size(); i++) {
        if (page.columns[i].from_width <= width) {
            shown.push_back(i);
        }
    }
    const std::vector<size_t> widths = widths_of(page, shown, width, marked);
    const auto line = [&](auto cell_text) {
        std::string text;
        for (size_t i = 0; i < shown.size(); i++) {
            text += padded(cell_text(shown[i]), widths[i], page.columns[shown[i]].is_number) + " ";
        }
        return text.substr(0, std::min(width, text.find_last_not_of(' ') + 1));
    };
    TableLines lines;
    lines.heading = line([&](size_t column) { return page.columns[column].heading + (column == marked ? "*" : ""); });
    for (const Row &row : page.rows) {
        lines.rows.push_back(line([&row](size_t column) { return row.cells[column].text; }));
    }
    return lines;
}

}  // namespace host::top
