// SPDX-License-Identifier: Apache-2.0
// text_table.h: a table on a terminal: headings, columns as wide as they must be, numbers to the right; long lines.
//
// Used by: report, verdict, tune, the console. Pure.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace host {

class TextTable {
public:
    enum class Align {
        kLeft,
        kRight
    };
    struct Column {
        std::string heading;
        Align align;
    };

    explicit TextTable(std::vector<Column> columns) : columns_(std::move(columns)) {}

    // One cell a column.
    void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }

    void print(std::FILE *out) const { print(out, SIZE_MAX); }
    // Where a row would be wider than 'width' characters, the last column stands in lines of its own below each row.
    void print(std::FILE *out, size_t width) const;

private:
    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

// One line into lines of at most 'width' characters, broken at blanks; the second and further begin with 'indent'
// blanks.
std::vector<std::string> wrapped(const std::string &line, size_t width, size_t indent);

constexpr size_t kScreenWidth = 118;  // characters of what is meant to be read on a screen

// Such a line, broken to that width.
void print_wrapped(std::FILE *out, const std::string &line, size_t indent);

}  // namespace host
