// SPDX-License-Identifier: Apache-2.0
#include "top/snapshot.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>
#include <utility>

namespace host::top {

namespace {

constexpr uint32_t kPatienceS = 2;  // for an answer; longer, and keys would seem dead
constexpr const char *kFloods = "show floods 200";

// One line, of characters that a terminal shows as they are.
std::string one_line(std::string text) {
    text.erase(text.find_last_not_of('\n') + 1);
    std::ranges::replace_if(
        text, [](unsigned char c) { return std::isprint(c) == 0; }, ' ');
    return text;
}

}  // namespace

uint64_t number_of(const Json &row, const char *key) {
    const auto found = row.find(key);
    return found != row.end() && found->is_number() ? found->get<uint64_t>() : 0;
}

std::string text_of(const Json &row, const char *key) {
    const auto found = row.find(key);
    return found != row.end() && found->is_string() ? one_line(found->get<std::string>()) : std::string();
}

bool is_true(const Json &row, const char *key) {
    const auto found = row.find(key);
    return found != row.end() && found->is_boolean() && found->get<bool>();
}

std::string Router::connect() {
    if (client_) {
        return {};
    }
    auto client = std::make_unique<ControlClient>();
    client->set_patience(kPatienceS);
    std::string error;
    if (!client->open(control_, error)) {
        return error;
    }
    client_ = std::move(client);
    return {};
}

std::string Router::ask(const std::string &line, bool json, ControlAnswer &answer) {
    if (std::string error = connect(); !error.empty()) {
        return error;
    }
    if (!client_->ask(line, json, answer)) {
        client_.reset();
        return "no answer within " + std::to_string(kPatienceS) + " s, or the process has gone";
    }
    return {};
}

std::string Router::ask(const std::string &line, Json &data) {
    ControlAnswer answer;
    if (std::string error = ask(line, true, answer); !error.empty()) {
        return error;
    }
    if (answer.status == "refused") {
        return one_line(answer.text);
    }
    if (answer.status != "done") {
        return line + ": " + one_line(answer.text);
    }
    data = Json::parse(answer.text, nullptr, false);
    return data.is_structured() ? std::string() : line + ": the answer is no data";
}

std::string Router::look(const std::string &page_line, bool with_limits, Snapshot &snapshot) {
    Snapshot fresh;
    std::string error = ask("show clock", fresh.clock);
    for (auto [line, answer] : {std::pair<std::string, Answer *>{kFloods, &fresh.floods},
                                {"show card", &fresh.card},
                                {page_line, &fresh.page}}) {
        if (error.empty() && !line.empty()) {
            error = ask(line, answer->data);
            answer->when = std::chrono::steady_clock::now();
        }
    }
    if (error.empty() && with_limits) {
        error = ask("show limits", fresh.limits);
    }
    if (error.empty()) {
        snapshot = std::move(fresh);
    }
    return error;
}

std::string Router::order(const std::string &line) {
    ControlAnswer answer;
    if (std::string error = ask(line, false, answer); !error.empty()) {
        return error;
    }
    const std::string text = one_line(answer.text);
    if (answer.status == "done") {
        return text.empty() ? "done: " + line : text;
    }
    return (answer.status == "refused" ? "refused: " : "") + text;
}

}  // namespace host::top
