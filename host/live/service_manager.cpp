// SPDX-License-Identifier: Apache-2.0
#include "live/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <string_view>

namespace host {

namespace {

uint64_t number_in(const char *name) {
    const char *text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): before other threads
    return text == nullptr ? 0 : std::strtoull(text, nullptr, 10);
}

}  // namespace

// A name that begins with '@' is one of the abstract space, and not closed by a zero.
ServiceManager::ServiceManager() {
    const char *path = std::getenv("NOTIFY_SOCKET");  // NOLINT(concurrency-mt-unsafe): before other threads
    const std::string_view name = path == nullptr ? "" : path;
    sockaddr_un address{};
    if (name.empty() || name.size() >= sizeof(address.sun_path)) {
        return;
    }
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, name.size());
    const bool is_abstract = name.front() == '@';
    address.sun_path[0] = is_abstract ? '\0' : name.front();
    const size_t size = offsetof(sockaddr_un, sun_path) + name.size() + (is_abstract ? 0 : 1);
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket_ >= 0 &&
        connect(socket_, reinterpret_cast<const sockaddr *>(&address), static_cast<socklen_t>(size)) != 0) {
        close(socket_);
        socket_ = -1;
    }
    const uint64_t process = number_in("WATCHDOG_PID");
    if (process == 0 || process == static_cast<uint64_t>(getpid())) {
        between_ = std::chrono::microseconds(number_in("WATCHDOG_USEC")) / 4;
    }
}

ServiceManager::~ServiceManager() {
    if (socket_ >= 0) {
        close(socket_);
    }
}

void ServiceManager::ready() const {
    tell("READY=1");
}

void ServiceManager::status(const std::string &text) {
    if (text != status_) {
        status_ = text;
        tell("STATUS=" + text);
    }
}

void ServiceManager::reloading() const {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t us = static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
    tell("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(us));
}

void ServiceManager::stopping() const {
    tell("STOPPING=1");
}

void ServiceManager::progress() {
    if (between_ == Clock::duration::zero()) {
        return;
    }
    if (const auto now = Clock::now(); now >= next_) {
        next_ = now + between_;
        tell("WATCHDOG=1");
    }
}

// Packets come before a manager that does not read.
void ServiceManager::tell(const std::string &text) const {
    if (socket_ >= 0) {
        send(socket_, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
}

}  // namespace host
