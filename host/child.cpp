// SPDX-License-Identifier: Apache-2.0
#include "child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>

#include "process.h"

namespace host {

namespace {

struct FileCloser {
    void operator()(std::FILE *file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

void complain(const char *what) {
    std::fprintf(stderr, "anti-cpu: %s: %s\n", what, std::generic_category().message(errno).c_str());
}

// Never returns. The module's thread stands still: nothing is torn down.
[[noreturn]] void run_child(const std::function<Json()> &work, std::FILE *result, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(1);
    }
    const int nowhere = open("/dev/null", O_WRONLY);
    if (nowhere < 0 || dup2(nowhere, STDOUT_FILENO) < 0) {
        _exit(1);
    }
    const std::string text = work().dump(-1, ' ', false, Json::error_handler_t::replace);
    const bool is_whole = std::fwrite(text.data(), 1, text.size(), result) == text.size() && std::fflush(result) == 0;
    std::fflush(stderr);
    _exit(is_whole ? 0 : 1);
}

// Hands a kept signal on, which a terminal gives to both but kill(1) to one.
int wait_for(pid_t child) {
    constexpr useconds_t look_us = 10'000;
    bool told = false;
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (kept_signal() != 0 && !told) {
            kill(child, kept_signal());
            told = true;
        }
        usleep(look_us);
    }
    return status;
}

Json read_json(std::FILE *file) {
    std::rewind(file);
    return Json::parse(file, nullptr, false);
}

}  // namespace

std::optional<Json> in_child(const std::function<Json()> &work) {
    const File result(std::tmpfile());
    if (!result) {
        complain("a temporary file");
        return std::nullopt;
    }
    std::fflush(nullptr);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) {
        complain("a process for a replay");
        return std::nullopt;
    }
    if (child == 0) {
        run_child(work, result.get(), parent);
    }
    const int status = wait_for(child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        if (Json json = read_json(result.get()); !json.is_discarded()) {
            return json;
        }
    }
    if (kept_signal() == 0) {
        std::fprintf(stderr, "anti-cpu: a replay of its own ended early (%s %d)\n",
                     WIFSIGNALED(status) ? "signal" : "status",
                     WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    }
    return std::nullopt;
}

}  // namespace host
