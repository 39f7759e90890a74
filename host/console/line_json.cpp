// SPDX-License-Identifier: Apache-2.0
#include "console/line_json.h"

#include <array>
#include <nlohmann/json.hpp>

namespace host::console {

namespace {

constexpr std::string_view kFailed = "failed: ";  // as command.cpp words it

// JSON of several lines on one. A line break is never within a text, and behind it stand blanks that indent.
void copy_joined(std::FILE *from, std::FILE *to) {
    bool indents = false;
    for (int c = std::fgetc(from); c != EOF; c = std::fgetc(from)) {
        indents = c == '\n' || (indents && c == ' ');
        if (!indents && std::fputc(c, to) == EOF) {
            return;  // 'to' remembers it
        }
    }
}

std::string rest_of(std::FILE *file) {
    std::string text;
    std::array<char, 4096> block;
    while (const size_t size = std::fread(block.data(), 1, block.size(), file)) {
        text.append(block.data(), size);
    }
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
}

}  // namespace

void print_line_json(const std::string &line, Status status, const std::string &error, bool is_data,
                     CaughtOutput::File output) {
    Json json = {{"line", line}};
    const bool is_good = status == Status::kDone || status == Status::kQuit;
    json["status"] = is_good ? "done" : status == Status::kWrong ? "wrong" : "failed";
    if (is_good && is_data && output) {
        const std::string head = json.dump();
        std::fprintf(stdout, "%s,\"data\":", head.substr(0, head.size() - 1).c_str());
        copy_joined(output.get(), stdout);
        std::fputs("}\n", stdout);
        return;
    }
    std::string text = output ? rest_of(output.get()) : "";
    std::string reason = is_good || output ? error : "its output could not be kept";
    if (status == Status::kFailed) {
        const size_t at = text.rfind(kFailed);
        if (at != std::string::npos) {
            reason = text.substr(at + kFailed.size());
            text.erase(text.find_last_not_of('\n', at == 0 ? 0 : at - 1) + (at == 0 ? 0 : 1));
        }
    }
    if (!reason.empty()) {
        json["error"] = reason;
    }
    if (!text.empty()) {
        json["text"] = text;
    }
    // What a packet trace prints need not be UTF-8.
    std::fprintf(stdout, "%s\n", json.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
}

}  // namespace host::console
