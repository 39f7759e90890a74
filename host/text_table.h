// text_table.h: a table on a terminal: headings, columns as wide as they must be, numbers to the right.
//
// Used by: report, the console. Pure.
#pragma once

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

    void print(std::FILE *out) const;

private:
    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace host
