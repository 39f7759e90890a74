// SPDX-License-Identifier: Apache-2.0
#include "completion.h"

#include <set>
#include <vector>

#include "console/command.h"
#include "console/grammar.h"

namespace host {

namespace {

constexpr const char *kHead = R"(# SPDX-License-Identifier: Apache-2.0
# Completion of anti-cpu in bash; drawn by "anti-cpu completion bash".
_anti_cpu() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} choices='' options='' lines=''
    COMPREPLY=()
    if [ "$COMP_CWORD" -eq 1 ]; then
        choices=)";

constexpr const char *kTail = R"(        esac
    fi
    case " $lines " in
        *" $before "*)
            local beginning=${word#[\'\"]}
            mapfile -t COMPREPLY < <("$1" completion line "${beginning//\\/}" 2>/dev/null)
            compopt -o filenames -o nospace 2>/dev/null || true
            return
            ;;
    esac
    case $word in
        -*) choices=$options ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$word")
}
complete -o default -F _anti_cpu anti-cpu
)";

void append(std::string &list, const std::string &word) {
    list += (list.empty() ? "" : " ") + word;
}

// What may stand in place of an argument that is no file.
std::string choices_of(const CLI::App &command) {
    std::string choices;
    if (command.get_name() == "help") {
        std::set<std::string> seen;
        for (const console::Command &row : console::commands()) {
            const std::string pattern = row.pattern;
            const std::string verb = pattern.substr(0, pattern.find(' '));
            if (seen.insert(verb).second) {
                append(choices, verb);
            }
        }
    }
    return command.get_name() == "completion" ? "bash" : choices;
}

std::string rows_of(const CLI::App &command) {
    std::string options;
    std::string lines;
    for (const CLI::Option *option : command.get_options()) {
        std::vector<std::string> names;
        for (const std::string &name : option->get_snames()) {
            names.push_back("-" + name);
        }
        for (const std::string &name : option->get_lnames()) {
            names.push_back("--" + name);
        }
        for (const std::string &name : names) {
            append(options, name);
            if (option->get_type_name() == kLineType) {
                append(lines, name);
            }
        }
    }
    return "            " + command.get_name() + ") choices='" + choices_of(command) + "' options='" + options +
           "' lines='" + lines + "' ;;\n";
}

}  // namespace

std::string bash_completion(const CLI::App &app) {
    std::string commands;
    std::string rows;
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; })) {
        append(commands, command->get_name());
        rows += rows_of(*command);
    }
    return kHead + ("'" + commands + "'\n    else\n        case ${COMP_WORDS[1]} in\n") + rows + kTail;
}

std::string completed_lines(const std::string &line) {
    std::vector<std::string> words;
    std::vector<console::Place> places;
    if (!console::split_line(line, words, &places)) {
        return {};
    }
    std::string before = line;
    std::string beginning;
    if (!words.empty() && places.back().end == line.size()) {
        before = line.substr(0, places.back().begin);
        beginning = words.back();
        words.pop_back();
    }
    const console::Grammar grammar(console::commands());
    std::string lines;
    for (const std::string &word : grammar.completions(words, beginning)) {
        lines += before + word + "\n";
    }
    return lines;
}

}  // namespace host
