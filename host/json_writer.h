// SPDX-License-Identifier: Apache-2.0
// json_writer.h: JSON onto a file a piece at a time, with line breaks and blanks as a whole printed at once has them.
//
// A wide flood has a million flows: as one value in memory they would take more than the module itself.
// Who looks into a Json includes its library. Used by: report_data, the console. Thread: the driving one.
#pragma once

#include <cstdio>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace host {

// Keys stay in the order in which they are written.
using Json = nlohmann::ordered_json;

class JsonWriter {
public:
    explicit JsonWriter(std::FILE *out) : out_(out) {}

    // The whole, or (with a key) a member of the object that is open. What is open last is closed first.
    void open_object() { open({}, '{', '}'); }
    void open_array(const std::string &key = {}) { open(key, '[', ']'); }
    void close();

    // An element of the array, or (with a key) a member of the object that is open.
    void add(const Json &element);
    void add(const std::string &key, const Json &member);

private:
    struct Level {
        char closing;
        bool is_empty;
    };

    void open(const std::string &key, char opening, char closing);
    void begin_piece(const std::string &key);
    void end_line();

    std::FILE *out_;
    std::vector<Level> open_;
};

// As the whole of what is printed.
void print_json(std::FILE *out, const Json &json);

}  // namespace host
