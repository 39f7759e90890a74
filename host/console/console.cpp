// SPDX-License-Identifier: Apache-2.0
#include "console/console.h"

#include <cerrno>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>

#include "clock/clock.h"
#include "console/line_json.h"
#include "console/pager.h"
#include "console/terminal.h"
#include "os/os.h"
#include "process.h"
#include "services/services.h"

namespace host::console {

namespace {

// Whether it ends in a question mark.
bool asks(const std::string &line) {
    const size_t last = line.find_last_not_of(' ');
    return last != std::string::npos && line[last] == '?';
}

bool is_show(const Command &command) {
    return std::string_view(command.pattern).starts_with("show ");
}

// Nothing happens but that something is printed.
bool is_read(const Command &command) {
    return is_show(command) || std::string_view(command.pattern).starts_with("help");
}

}  // namespace

Console::Console(Session &session) : session_(session), grammar_(commands()) {}

Status Console::run_line(const std::string &line) {
    std::string error;
    const Status status = run(line, error);
    if (status == Status::kWrong) {
        std::printf("wrong: %s\n", error.c_str());
    }
    std::fflush(stdout);
    return status;
}

Status Console::run_setting(const std::string &line, const std::string &where) {
    std::string error;
    const Status status = run(line, error);
    std::fflush(stdout);
    if (status == Status::kWrong) {
        std::fprintf(stderr, "anti-cpu: %s: %s\n", where.c_str(), error.c_str());
    } else if (status == Status::kFailed) {
        std::fprintf(stderr, "anti-cpu: %s: '%s' failed\n", where.c_str(), grammar_.without_secrets(line).c_str());
    }
    return status;
}

Status Console::run_script(const std::string &path) {
    return run_file(path,
                    [this](const std::string &line, const std::string &where) { return run_script_line(line, where); });
}

Status Console::run_script_line(const std::string &line, const std::string &where) {
    const bool may_fail = line.starts_with('-');
    const std::string command = may_fail ? line.substr(1) : line;
    if (!line.empty() && !session_.json) {
        std::printf("> %s%s\n", may_fail ? "-" : "", grammar_.without_secrets(command).c_str());
    }
    const Status status = session_.json ? run_as_json(command) : run_line(command);
    if (may_fail && status != Status::kQuit) {
        return Status::kDone;
    }
    if (status == Status::kWrong || status == Status::kFailed) {
        std::fprintf(stderr, "anti-cpu: %s: the script stops here\n", where.c_str());
    }
    return status;
}

Status Console::run_settings(const std::string &path) {
    return run_file(path,
                    [this](const std::string &line, const std::string &where) { return run_setting(line, where); });
}

Status Console::run_terminal() {
    Terminal terminal(grammar_);
    for (;;) {
        if (take_ctrl_c()) {
            std::printf("stopped at %s UTC\n", card::time_text(session_.run.now_ns()).c_str());
        }
        if (kept_signal() != 0) {
            return Status::kStopped;
        }
        const std::optional<std::string> line = terminal.read_line();
        if (!line) {
            return kept_signal() != 0 ? Status::kStopped : Status::kDone;
        }
        if (run_paged(*line) == Status::kQuit) {
            return Status::kQuit;
        }
    }
}

bool Console::shows(const std::string &line) const {
    const Command *const command = command_of(line);
    return command != nullptr && is_show(*command);
}

const Command *Console::command_of(const std::string &line) const {
    std::vector<std::string> words;
    return split_line(line, words) ? grammar_.parse(words).command : nullptr;
}

// Nothing comes of a line without words.
Status Console::run_as_json(const std::string &line) {
    std::vector<std::string> words;
    if (split_line(line, words) && words.empty()) {
        return Status::kDone;
    }
    std::string error;
    CaughtOutput output;
    const Status status = run(line, error);
    print_line_json(grammar_.without_secrets(line), status, error, shows(line), output.take());
    std::fflush(stdout);
    return status;
}

// What a "run" tells is read while it goes on.
Status Console::run_paged(const std::string &line) {
    const Command *const command = command_of(line);
    if (!asks(line) && (command == nullptr || !is_read(*command))) {
        return run_line(line);
    }
    CaughtOutput output;
    const Status status = run_line(line);
    if (const CaughtOutput::File caught = output.take()) {
        show_paged(caught.get());
        std::fflush(stdout);
    }
    return status;
}

bool Console::only_looks(const std::string &line) const {
    const Command *const command = command_of(line);
    return asks(line) || command == nullptr || is_read(*command) || std::string_view(command->pattern) == "quit";
}

Status Console::run(const std::string &line, std::string &error) {
    std::vector<std::string> words;
    if (!split_line(line, words)) {
        error = "a quote is not closed";
        return Status::kWrong;
    }
    if (words.empty()) {
        return Status::kDone;
    }
    if (words.back().ends_with('?')) {
        const std::string beginning = words.back().substr(0, words.back().size() - 1);
        words.pop_back();
        print_expected(words, beginning);
        return Status::kDone;
    }
    const Parsed parsed = grammar_.parse(words);
    if (parsed.command == nullptr) {
        error = parsed.error;
        return Status::kWrong;
    }
    const card::BudgetScope no_budget_for_the_operator(false);
    session_.captures.look();
    const Status status = parsed.command->handler(session_, parsed.arguments);
    session_.run.settle();
    return status;
}

template <typename RunLine>
Status Console::run_file(const std::string &path, RunLine run_line) {
    std::ifstream file(path);
    std::string line;
    for (uint64_t number = 1; std::getline(file, line); number++) {
        const Status status = run_line(line, path + ":" + std::to_string(number));
        if (status != Status::kDone) {
            return status;
        }
        if (kept_signal() != 0) {
            return Status::kStopped;
        }
    }
    if (!file.eof()) {  // not opened, a directory, cut off in the middle
        std::fprintf(stderr, "anti-cpu: %s: cannot be read: %s\n", path.c_str(),
                     std::generic_category().message(errno).c_str());
        return Status::kFailed;
    }
    return Status::kDone;
}

// Behind a key word that only one row has: that row's help.
void Console::print_expected(const std::vector<std::string> &words, const std::string &beginning) const {
    const Follow follow = grammar_.follow(words);
    if (!follow.error.empty()) {
        std::printf("wrong: %s\n", follow.error.c_str());
        return;
    }
    for (const Expected &one : follow.expected) {
        if (!one.is_word || one.text.starts_with(beginning)) {
            std::printf("  %-16s %s\n", one.text.c_str(), one.help.c_str());
        }
    }
    if (follow.complete) {
        std::printf("  %-16s the line is complete: %s\n", "<return>", follow.complete->help);
    }
}

}  // namespace host::console
