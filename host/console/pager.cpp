// SPDX-License-Identifier: Apache-2.0
#include "console/pager.h"

#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "console/caught_output.h"

namespace host::console {

namespace {

constexpr const char *kPager = "less -FRX";

// Lines as the terminal breaks them, up to more than 'most'.
size_t count_lines(std::FILE *output, size_t width, size_t most) {
    size_t lines = 0;
    size_t column = 0;
    for (int c = std::fgetc(output); c != EOF && lines <= most; c = std::fgetc(output)) {
        column = c == '\n' ? 0 : column + 1;
        if (c == '\n' || column > width) {
            lines++;
            column = c == '\n' ? 0 : 1;
        }
    }
    std::rewind(output);
    return lines;
}

bool is_long(std::FILE *output) {
    winsize size{};
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 ||
        size.ws_row < 2 || size.ws_col == 0) {
        return false;
    }
    const size_t room = size.ws_row - 1U;  // the prompt takes a line
    return count_lines(output, size.ws_col, room) > room;
}

// With 'output' as its standard input and the signals of a program that a shell starts. False when it did not run.
bool run_pager(const char *pager, std::FILE *output) {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&files);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_adddup2(&files, fileno(output), STDIN_FILENO);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (const int number : {SIGINT, SIGPIPE, SIGXFSZ}) {
        sigaddset(&defaults, number);
    }
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    std::string shell = "sh";
    std::string option = "-c";
    std::string command = pager;
    char *const arguments[] = {shell.data(), option.data(), command.data(), nullptr};
    pid_t process = 0;
    int status = 0;
    // Ctrl-C in the pager is the pager's.
    struct sigaction ignored {};
    struct sigaction before {};
    ignored.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignored, &before);
    const bool ran = posix_spawn(&process, "/bin/sh", &files, &attributes, arguments, environ) == 0 &&
                     waitpid(process, &status, 0) == process;
    sigaction(SIGINT, &before, nullptr);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    constexpr int no_such_command = 127;  // POSIX, 2.8.2
    return ran && !(WIFEXITED(status) && WEXITSTATUS(status) >= no_such_command - 1);
}

}  // namespace

void show_paged(std::FILE *output) {
    const char *chosen = std::getenv("PAGER");  // NOLINT(concurrency-mt-unsafe): nobody sets it
    const char *pager = chosen != nullptr && *chosen != '\0' ? chosen : kPager;
    std::fflush(stdout);
    if (!is_long(output) || lseek(fileno(output), 0, SEEK_SET) != 0 || !run_pager(pager, output)) {
        std::rewind(output);
        copy(output, stdout);
    }
}

}  // namespace host::console
