// SPDX-License-Identifier: Apache-2.0
// console.h: lines of an operator, from a file, from the command line or from a terminal.
//
// A file's lines run until one is wrong or fails; a terminal's go on. Lines of a script are echoed behind "> ", so that
// its output reads as a transcript, or give one line of JSON each (line_json.h); no password is in an echo or a
// message. A signal (process.h) ends a file of lines; at a terminal Ctrl-C ends the line that runs, or gives up the one
// that is typed. Used by: replay_command. Uses: grammar, command, terminal. Thread: the driving one.
#pragma once

#include <string>

#include "console/command.h"
#include "console/grammar.h"

namespace host::console {

class Console {
public:
    explicit Console(Session &session);

    // Runs one line of an operator who sees the output: what is wrong with it is printed there.
    Status run_line(const std::string &line);

    // Runs one line before the replay. What is wrong goes to standard error, behind 'where' it stands.
    Status run_setting(const std::string &line, const std::string &where);

    // Every line of a file; kDone, kQuit, kStopped or what the line that stopped it gave. A file that cannot be read is
    // kFailed.
    Status run_script(const std::string &path);
    Status run_settings(const std::string &path);

    // One such line, from 'where'.
    Status run_script_line(const std::string &line, const std::string &where);

    // Reads lines from the terminal until "quit", its end or a signal that ends the replay.
    Status run_terminal();

    // Whether a line changes nothing, whatever it asks for.
    bool only_looks(const std::string &line) const;

    const Grammar &grammar() const { return grammar_; }
    // Whether this line is one that shows something.
    bool shows(const std::string &line) const;

private:
    // Null where the line is wrong or empty.
    const Command *command_of(const std::string &line) const;
    Status run(const std::string &line, std::string &error);
    Status run_as_json(const std::string &line);
    Status run_paged(const std::string &line);
    template <typename RunLine>
    Status run_file(const std::string &path, RunLine run_line);
    void print_expected(const std::vector<std::string> &words, const std::string &beginning) const;

    Session &session_;
    Grammar grammar_;
};

}  // namespace host::console
