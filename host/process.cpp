// SPDX-License-Identifier: Apache-2.0
#include "process.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "options.h"

namespace host {

std::atomic<int> detail::kept_signal = 0;

namespace {

static_assert(std::atomic<int>::is_always_lock_free);  // a signal handler writes it

void keep(int signal) {
    int none = 0;
    if (!detail::kept_signal.compare_exchange_strong(none, signal)) {
        _exit(kExitSignal + signal);
    }
}

// A stream that is not there must not become the next file that is opened; what is written to it fails.
void hold_standard_streams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) == -1 && errno == EBADF) {
            open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

}  // namespace

void prepare_process() {
    hold_standard_streams();
    for (const int number : {SIGPIPE, SIGXFSZ}) {
        signal(number, SIG_IGN);
    }
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before {};
        sigaction(number, nullptr, &before);
        if (before.sa_handler != SIG_IGN) {  // as nohup has it
            struct sigaction action {};
            action.sa_handler = keep;
            action.sa_flags = SA_RESTART;  // output is not cut by it
            sigaction(number, &action, nullptr);
        }
    }
}

bool take_ctrl_c() {
    int interrupt = SIGINT;
    return detail::kept_signal.compare_exchange_strong(interrupt, 0);
}

}  // namespace host
