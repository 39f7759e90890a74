// SPDX-License-Identifier: Apache-2.0
// service_manager.h: what systemd is told of a process that it has started (sd_notify(3), Type=notify).
//
// Without systemd every call does nothing. The watchdog is fed by progress() only, so that a process that hangs is
// found out. Used by: live_command. Thread: one.
#pragma once

#include <chrono>
#include <string>

namespace host {

class ServiceManager {
public:
    // Where and how often it wants to hear, from the environment.
    ServiceManager();
    ~ServiceManager();
    ServiceManager(const ServiceManager &) = delete;
    ServiceManager &operator=(const ServiceManager &) = delete;

    void ready() const;
    // Ends with ready().
    void reloading() const;
    void stopping() const;

    // What `systemctl status` shows from now on.
    void status(const std::string &text);

    // Packets have been looked for. As often as it happens: told as often as the watchdog needs.
    void progress();

private:
    void tell(const std::string &text) const;

    using Clock = std::chrono::steady_clock;
    int socket_ = -1;
    std::string status_;
    Clock::duration between_{};  // of two feeds; 0 = no watchdog
    Clock::time_point next_;
};

}  // namespace host
