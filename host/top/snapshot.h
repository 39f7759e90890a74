// SPDX-License-Identifier: Apache-2.0
// snapshot.h: what a running process tells at one moment, as data: answers to lines of its console.
//
// Used by: pages, top_command. Uses: the control socket. Thread: one.
#pragma once

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "json_writer.h"
#include "live/control.h"

namespace host::top {

// What counts, with its time: rates are of the time between two answers.
struct Answer {
    Json data = Json::array();
    std::chrono::steady_clock::time_point when;
};

struct Snapshot {
    Json clock = Json::object();
    Answer floods;
    Answer card;
    Answer page;                  // what the page shown is about, where it is none of these
    Json limits = Json::array();  // of the classes, where they are shown
};

// Members of a row; 0 and nothing where it has none such.
uint64_t number_of(const Json &row, const char *key);
std::string text_of(const Json &row, const char *key);
bool is_true(const Json &row, const char *key);

// The process at the other end: found anew whenever it has gone.
class Router {
public:
    explicit Router(std::string control) : control_(std::move(control)) {}

    // 'page_line': what the page asks besides; empty = nothing. Empty when all was answered, else why not.
    std::string look(const std::string &page_line, bool with_limits, Snapshot &snapshot);

    // What the process says to a line, for people.
    std::string order(const std::string &line);

private:
    std::string connect();
    std::string ask(const std::string &line, bool json, ControlAnswer &answer);
    std::string ask(const std::string &line, Json &data);

    std::string control_;
    std::unique_ptr<ControlClient> client_;
};

}  // namespace host::top
