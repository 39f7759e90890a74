// SPDX-License-Identifier: Apache-2.0
// control.h: operators' lines to a running process, over a socket.
//
// A request is a line of JSON, {"line": "show flows", "json": false}; the answer a line of JSON, {"status": "done",
// "bytes": N}, and N bytes of what the line has printed. Root and the operators' group may give every line, the
// observers' group those that only look; everybody else is refused (SO_PEERCRED). Lines run one after the other, on the
// driving thread. Used by: live_command (serves), console_command (asks). Thread: one.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace host {

constexpr const char *kDefaultControl = "/run/anti-cpu/control";

enum class ControlRole {
    kNone,
    kObserver,
    kOperator,
};

struct ControlAnswer {
    std::string status;  // done, failed, wrong, quit, refused
    std::string text;
};

class ControlServer {
public:
    using Handler = std::function<ControlAnswer(const std::string &line, bool json, ControlRole role)>;

    // Groups by name; empty = none. False, and why, when there is no socket.
    bool open(const std::string &path, const std::string &operators, const std::string &observers, std::string &error);
    ~ControlServer();
    ControlServer() = default;
    ControlServer(const ControlServer &) = delete;
    ControlServer &operator=(const ControlServer &) = delete;

    // Takes connections and answers what has come in. Does not wait.
    void look(const Handler &handler);

private:
    struct Client {
        int socket;
        ControlRole role;
        std::string received;
        std::string to_send;
    };
    void accept_clients();
    bool serve(Client &client, const Handler &handler);
    ControlRole role_of(int socket) const;

    std::string path_;
    int socket_ = -1;
    int lock_ = -1;
    gid_t operators_ = kNoGroup;
    gid_t observers_ = kNoGroup;
    std::vector<Client> clients_;

    static constexpr gid_t kNoGroup = static_cast<gid_t>(-1);
};

// The other end.
class ControlClient {
public:
    // False, and why.
    bool open(const std::string &path, std::string &error);
    // How long an answer may take: before open. For ever, unless set.
    void set_patience(uint32_t seconds) { patience_s_ = seconds; }
    ~ControlClient();
    ControlClient() = default;
    ControlClient(const ControlClient &) = delete;
    ControlClient &operator=(const ControlClient &) = delete;

    // False: the process has gone, or its answer takes too long.
    bool ask(const std::string &line, bool json, ControlAnswer &answer);

private:
    uint32_t patience_s_ = 0;  // 0 = for ever
    int socket_ = -1;
};

}  // namespace host
