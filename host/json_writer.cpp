// SPDX-License-Identifier: Apache-2.0
#include "json_writer.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace host {

namespace {

constexpr int kIndent = 2;

// Text that is no UTF-8 has its bytes replaced.
std::string text_of(const Json &json) {
    return json.dump(kIndent, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

void JsonWriter::close() {
    const Level level = open_.back();
    open_.pop_back();
    if (!level.is_empty) {
        end_line();
    }
    std::fputc(level.closing, out_);
    if (open_.empty()) {
        std::fputc('\n', out_);
    }
}

void JsonWriter::add(const Json &element) {
    add({}, element);
}

void JsonWriter::add(const std::string &key, const Json &member) {
    begin_piece(key);
    // Strings have no line breaks in JSON: each one that there is stands between two of its lines.
    const std::string text = text_of(member);
    for (size_t begin = 0;;) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        static_cast<void>(std::fwrite(text.data() + begin, 1, end - begin, out_));  // asked for at the end: ferror
        if (end == text.size()) {
            return;
        }
        end_line();
        begin = end + 1;
    }
}

void JsonWriter::open(const std::string &key, char opening, char closing) {
    begin_piece(key);
    std::fputc(opening, out_);
    open_.push_back({closing, true});
}

void JsonWriter::begin_piece(const std::string &key) {
    if (!open_.empty()) {
        if (!open_.back().is_empty) {
            std::fputc(',', out_);
        }
        open_.back().is_empty = false;
        end_line();
    }
    if (!key.empty()) {
        std::fprintf(out_, "%s: ", text_of(key).c_str());
    }
}

void JsonWriter::end_line() {
    std::fprintf(out_, "\n%*s", kIndent * static_cast<int>(open_.size()), "");
}

void print_json(std::FILE *out, const Json &json) {
    std::fprintf(out, "%s\n", text_of(json).c_str());
}

}  // namespace host
