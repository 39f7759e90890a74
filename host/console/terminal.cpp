// SPDX-License-Identifier: Apache-2.0
#include "console/terminal.h"

#include <poll.h>
#include <readline/history.h>
#include <readline/readline.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "clock/clock.h"
#include "process.h"

namespace host::console {

namespace {

constexpr const char *kPrompt = "anti-cpu> ";

// readline's callbacks have no argument: the grammar of the lines that are read now.
const Grammar *g_grammar = nullptr;

// readline asks for one candidate after the other.
char *next_completion(const char *beginning, int state) {
    static std::vector<std::string> candidates;
    static size_t next;
    if (state == 0) {
        std::vector<std::string> words;
        const std::string before(rl_line_buffer, static_cast<size_t>(rl_point) - std::strlen(beginning));
        candidates.clear();
        next = 0;
        if (split_line(before, words)) {
            candidates = g_grammar->completions(words, beginning);
        }
    }
    return next < candidates.size() ? strdup(candidates[next++].c_str()) : nullptr;
}

char **complete(const char *beginning, int, int) {
    rl_attempted_completion_over = 1;  // never file names in place of key words
    return rl_completion_matches(beginning, next_completion);
}

// The next key for readline, EOF behind a signal. Ctrl-C gives up the line that was begun.
int read_key(std::FILE *terminal) {
    constexpr int look_ms = 100;
    pollfd keys = {fileno(terminal), POLLIN, 0};
    do {
        rl_check_signals();
        if (take_ctrl_c()) {
            rl_replace_line("", 1);
            rl_crlf();
            rl_on_new_line();
            rl_redisplay();
        }
        if (kept_signal() != 0) {
            rl_replace_line("", 1);
            return EOF;
        }
    } while (poll(&keys, 1, look_ms) <= 0);
    return rl_getc(terminal);
}

}  // namespace

std::optional<std::string> Terminal::read_line() {
    const card::RealTimeScope real_time;
    g_grammar = &grammar_;
    rl_attempted_completion_function = complete;
    rl_getc_function = read_key;
    rl_readline_name = "anti-cpu";
    const std::unique_ptr<char, decltype(&std::free)> line(readline(kPrompt), std::free);
    take_ctrl_c();  // it was for the line, at most
    if (!line) {
        std::printf("\n");
        return std::nullopt;
    }
    if (*line != '\0' && grammar_.without_secrets(line.get()) == line.get()) {
        add_history(line.get());
    }
    return line.get();
}

}  // namespace host::console
