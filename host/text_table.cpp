// SPDX-License-Identifier: Apache-2.0
#include "text_table.h"

#include <algorithm>
#include <numeric>

namespace host {

namespace {

constexpr size_t kGap = 2;

std::string padded(const std::string &cell, size_t width, TextTable::Align align) {
    const std::string blanks(width > cell.size() ? width - cell.size() : 0, ' ');
    return align == TextTable::Align::kRight ? blanks + cell : cell + blanks;
}

}  // namespace

void TextTable::print(std::FILE *out, size_t width) const {
    constexpr size_t indent = 4;
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
    const size_t whole = std::accumulate(widths.begin(), widths.end(), (columns_.size() - 1) * kGap);
    const size_t beside = columns_.size() - (whole > width ? 1 : 0);
    const auto print_row = [&](const std::vector<std::string> &row) {
        std::string line;
        for (size_t i = 0; i < beside; i++) {
            line += (i == 0 ? "" : std::string(kGap, ' ')) + padded(row[i], widths[i], columns_[i].align);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        std::fprintf(out, "%s\n", line.c_str());
        if (beside < row.size()) {
            for (const std::string &part : wrapped(std::string(indent, ' ') + row.back(), width, indent)) {
                std::fprintf(out, "%s\n", part.c_str());
            }
        }
    };
    print_row(headings);
    for (const auto &row : rows_) {
        print_row(row);
    }
}

std::vector<std::string> wrapped(const std::string &line, size_t width, size_t indent) {
    std::vector<std::string> lines;
    std::string rest = line;
    while (rest.size() > width) {
        size_t blank = rest.rfind(' ', width);
        if (blank == std::string::npos || blank <= indent) {
            blank = rest.find(' ', width);
        }
        if (blank == std::string::npos) {
            break;
        }
        lines.push_back(rest.substr(0, blank));
        rest = std::string(indent, ' ') + rest.substr(blank + 1);
    }
    lines.push_back(rest);
    return lines;
}

void print_wrapped(std::FILE *out, const std::string &line, size_t indent) {
    for (const std::string &part : wrapped(line, kScreenWidth, indent)) {
        std::fprintf(out, "%s\n", part.c_str());
    }
}

}  // namespace host
