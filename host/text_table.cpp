#include "text_table.h"

#include <algorithm>

namespace host {

namespace {

std::string padded(const std::string &cell, size_t width, TextTable::Align align) {
    const std::string blanks(width > cell.size() ? width - cell.size() : 0, ' ');
    return align == TextTable::Align::kRight ? blanks + cell : cell + blanks;
}

}  // namespace

void TextTable::print(std::FILE *out) const {
    std::vector<std::string> headings;
    std::vector<size_t> widths;
    for (const Column &column : columns_) {
        headings.push_back(column.heading);
        widths.push_back(column.heading.size());
    }
    for (const auto &row : rows_) {
        for (size_t i = 0; i < row.size(); i++) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    const auto print_row = [&](const std::vector<std::string> &row) {
        std::string line;
        for (size_t i = 0; i < row.size(); i++) {
            line += (i == 0 ? "" : "  ") + padded(row[i], widths[i], columns_[i].align);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        std::fprintf(out, "%s\n", line.c_str());
    };
    print_row(headings);
    for (const auto &row : rows_) {
        print_row(row);
    }
}

}  // namespace host
