// SPDX-License-Identifier: Apache-2.0
#include "console/help.h"

#include <algorithm>
#include <vector>

#include "console/command.h"
#include "console/match_fields.h"

namespace host::console {

namespace {

constexpr size_t kHelpColumn = 44;

std::string verb_of(const Command &command) {
    const std::string pattern = command.pattern;
    return pattern.substr(0, pattern.find(' '));
}

std::string shown_pattern(const Command &command) {
    std::string shown;
    const std::string pattern = command.pattern;
    for (size_t i = 0; i < pattern.size(); i++) {
        // "<user:text>" is shown as "<user>".
        if (pattern[i] == ':') {
            i = pattern.find('>', i);
        }
        shown += pattern[i];
    }
    return shown;
}

std::string help_line(const std::string &left, const std::string &right) {
    if (left.size() + 2 >= kHelpColumn) {
        return "  " + left + "\n" + std::string(kHelpColumn, ' ') + right + "\n";
    }
    return "  " + left + std::string(kHelpColumn - 2 - left.size(), ' ') + right + "\n";
}

std::string field_lines(FieldUse use) {
    std::string text;
    for (const MatchField &field : match_fields()) {
        if ((field.uses & use) != 0) {
            text += help_line("  " + std::string(field.word) + " <" + field.kind + ">", field.help);
        }
    }
    return text;
}

bool uses_fields(const std::vector<const Command *> &rows, const char *element) {
    return std::ranges::any_of(
        rows, [element](const Command *row) { return std::string(row->pattern).find(element) != std::string::npos; });
}

// A cell of a Markdown table.
std::string cell(const std::string &text) {
    std::string escaped;
    for (const char c : text) {
        escaped += c == '|' ? std::string("\\|") : std::string(1, c);
    }
    return escaped;
}

std::string field_table(FieldUse use) {
    std::string text = "| field | value | meaning |\n|---|---|---|\n";
    for (const MatchField &field : match_fields()) {
        if ((field.uses & use) != 0) {
            text += "| `" + std::string(field.word) + "` | " + find_kind(field.kind)->description + " | " + field.help +
                    " |\n";
        }
    }
    return text;
}

}  // namespace

std::string help_text(const std::string &verb) {
    std::string text;
    std::vector<const Command *> rows;
    for (const Command &command : commands()) {
        if (verb_of(command).starts_with(verb)) {
            rows.push_back(&command);
            text += help_line(shown_pattern(command), command.help);
        }
    }
    if (uses_fields(rows, "{match}") && !verb.empty()) {
        text += "\n  {match} is any number of:\n" + field_lines(kFieldSoftware);
    }
    if (uses_fields(rows, "{hw-match}") && !verb.empty()) {
        text += "\n  {hw-match} is any number of:\n" + field_lines(kFieldHardware);
    }
    if (verb.empty()) {
        text +=
            "\n  Key words can be cut short while they are unambiguous; \"?\" lists what may follow;\n"
            "  \"help WORD\" tells more; \"json\" behind a show gives data.\n";
    }
    return text;
}

std::string reference_page() {
    std::string page =
        "# The console of anti-cpu\n\n"
        "This page is drawn from the program's own table of commands: `anti-cpu reference > docs/console.md`.\n\n"
        "The same lines are taken by `replay --config` and `-x` before the first packet, by `--then` behind the last,\n"
        "and by `--script` and `--interactive`. Key words can be cut\n"
        "short while they are unambiguous, `?` behind any beginning lists what may follow, texts with blanks go into\n"
        "`\"quotes\"`, and `#` begins a comment. Parts in `[ ]` may be left out; of parts between `( | )` one is\n"
        "chosen; parts between `[ | ]...` may stand in any order, each once. Behind every `show` the word `json` "
        "gives\n"
        "the same as data. A wrong or failing line ends a file\n"
        "of lines, but for a line of a script that begins with `-`.\n\n"
        "At a terminal, what has more lines than it goes through `$PAGER` (`less -FRX` where there is none), Ctrl-C\n"
        "gives up the line that is typed or ends the `run` that goes on. Under `--json --script` each line gives one\n"
        "JSON object on one line, and nothing else is printed: `line`, `status` (`done`, `failed` or `wrong`), and "
        "`data`\n"
        "(of a `show`), `text` (what else was printed) or `error`.\n";
    std::string verb;
    for (const Command &command : commands()) {
        if (verb_of(command) != verb) {
            verb = verb_of(command);
            page += "\n## " + verb + "\n\n| line | what it does |\n|---|---|\n";
        }
        page += "| `" + cell(shown_pattern(command)) + "` | " + cell(command.help) + " |\n";
    }
    page += "\n## Fields of `{match}`\n\nNone of them: every packet.\n\n" + field_table(kFieldSoftware);
    page += "\n## Fields of `{hw-match}`\n\n" + field_table(kFieldHardware);
    page += "\n## Arguments\n\n| argument | what it takes |\n|---|---|\n";
    for (const Kind &kind : all_kinds()) {
        page += "| `<" + cell(kind.name) + ">` | " + cell(kind.description) + " |\n";
    }
    return page;
}

}  // namespace host::console
