// SPDX-License-Identifier: Apache-2.0
// console_command.cpp: `anti-cpu console`: the operator's terminal to a running process.
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <optional>
#include <string>

#include "console/command.h"
#include "console/terminal.h"
#include "live/live_options.h"
#include "options.h"

namespace host {

namespace {

int exit_status(const std::string &status) {
    if (status == "wrong") {
        return kExitUsage;
    }
    return status == "done" || status == "quit" ? kExitGood : kExitRefused;
}

}  // namespace

int console_command(const ConsoleOptions &options) {
    ControlClient client;
    std::string error;
    if (!client.open(options.control, error)) {
        std::fprintf(stderr, "anti-cpu: %s: %s; `anti-cpu run` listens there while it runs (--control)\n",
                     options.control.c_str(), error.c_str());
        return kExitRefused;
    }
    int status = kExitGood;
    bool is_over = false;
    const auto ask = [&](const std::string &line) {
        ControlAnswer answer;
        if (!client.ask(line, options.json, answer)) {
            std::fputs("anti-cpu: the running process has gone\n", stderr);
            status = kExitRefused;
            is_over = true;
            return;
        }
        std::FILE *const out = answer.status == "refused" ? stderr : stdout;
        const bool is_shown = std::fwrite(answer.text.data(), 1, answer.text.size(), out) == answer.text.size();
        status = std::fflush(stdout) == 0 && is_shown ? exit_status(answer.status) : kExitRefused;
        is_over = answer.status == "quit";
    };
    for (const std::string &line : options.lines) {
        if (!is_over && status == kExitGood) {
            ask(line);
        }
    }
    if (!options.lines.empty()) {
        return status;
    }
    if (isatty(STDIN_FILENO) == 0) {
        for (std::string line; !is_over && std::getline(std::cin, line);) {
            ask(line);
        }
        return status;
    }
    const console::Grammar grammar(console::commands());
    console::Terminal terminal(grammar);
    for (std::optional<std::string> line; !is_over && (line = terminal.read_line());) {
        ask(*line);
    }
    return kExitGood;
}

}  // namespace host
