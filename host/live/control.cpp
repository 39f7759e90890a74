// SPDX-License-Identifier: Apache-2.0
#include "live/control.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <system_error>

namespace host {

namespace {

using Json = nlohmann::json;

constexpr size_t kLineMax = 65536;  // bytes of a request
constexpr size_t kClientsAtMost = 64;
constexpr size_t kReadAtOnce = 65536;

bool fill_address(const std::string &path, sockaddr_un &address, std::string &error) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        error = "the path is too long for a socket (" + std::to_string(sizeof(address.sun_path) - 1) + " characters)";
        return false;
    }
    path.copy(address.sun_path, path.size());
    return true;
}

std::string last_error() {
    return std::generic_category().message(errno);
}

bool find_group(const std::string &name, gid_t *group, std::string &error) {
    if (name.empty()) {
        return true;
    }
    const ::group *found = getgrnam(name.c_str());  // NOLINT(concurrency-mt-unsafe): nobody else asks
    if (found == nullptr) {
        error = "there is no group \"" + name + "\"";
        return false;
    }
    *group = found->gr_gid;
    return true;
}

// The groups that a user is in, by the system's lists.
std::vector<gid_t> groups_of(uid_t user, gid_t group) {
    const passwd *entry = getpwuid(user);  // NOLINT(concurrency-mt-unsafe): nobody else asks
    if (entry == nullptr) {
        return {group};
    }
    int count = 64;
    std::vector<gid_t> groups(static_cast<size_t>(count));
    if (getgrouplist(entry->pw_name, group, groups.data(), &count) < 0) {
        groups.resize(static_cast<size_t>(count));
        getgrouplist(entry->pw_name, group, groups.data(), &count);
    }
    groups.resize(static_cast<size_t>(std::max(count, 0)));
    return groups;
}

}  // namespace

// A lock beside the socket tells one that is in use from one that a killed process has left.
bool ControlServer::open(const std::string &path, const std::string &operators, const std::string &observers,
                         std::string &error) {
    sockaddr_un address{};
    if (!fill_address(path, address, error) || !find_group(operators, &operators_, error) ||
        !find_group(observers, &observers_, error)) {
        return false;
    }
    // Its own folder below /run is gone after each start of the machine.
    if (const size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0) {
        mkdir(path.substr(0, slash).c_str(), 0755);
    }
    lock_ = ::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock_ < 0 || flock(lock_, LOCK_EX | LOCK_NB) != 0) {
        error = errno == EWOULDBLOCK ? "another anti-cpu listens there" : last_error();
        return false;
    }
    unlink(path.c_str());
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket_ < 0 || bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        chmod(path.c_str(), 0666) != 0 || listen(socket_, 16) != 0) {
        error = last_error();
        return false;
    }
    path_ = path;
    return true;
}

ControlServer::~ControlServer() {
    for (const Client &client : clients_) {
        close(client.socket);
    }
    if (socket_ >= 0) {
        close(socket_);
    }
    if (!path_.empty()) {
        unlink(path_.c_str());
        unlink((path_ + ".lock").c_str());
    }
    if (lock_ >= 0) {
        close(lock_);
    }
}

void ControlServer::look(const Handler &handler) {
    accept_clients();
    std::erase_if(clients_, [&](Client &client) {
        const bool stays = serve(client, handler);
        if (!stays) {
            close(client.socket);
        }
        return !stays;
    });
}

void ControlServer::accept_clients() {
    for (;;) {
        const int socket = accept4(socket_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (socket < 0) {
            return;
        }
        if (clients_.size() >= kClientsAtMost) {
            close(socket);
        } else {
            clients_.push_back({socket, role_of(socket), {}, {}});
        }
    }
}

// False: it has gone. One answer at a time: what has not been taken yet goes first.
bool ControlServer::serve(Client &client, const Handler &handler) {
    std::array<char, kReadAtOnce> bytes;
    while (client.to_send.empty()) {
        const size_t end = client.received.find('\n');
        if (end == std::string::npos) {
            const ssize_t size = recv(client.socket, bytes.data(), bytes.size(), 0);
            if (size <= 0) {
                return size < 0 && (errno == EAGAIN || errno == EINTR);
            }
            client.received.append(bytes.data(), static_cast<size_t>(size));
            if (client.received.size() > kLineMax) {
                return false;
            }
            continue;
        }
        const Json request = Json::parse(client.received.substr(0, end), nullptr, false);
        client.received.erase(0, end + 1);
        if (!request.is_object() || !request.value("line", Json()).is_string()) {
            return false;
        }
        const ControlAnswer answer =
            client.role == ControlRole::kNone
                ? ControlAnswer{"refused", "only root, and members of the groups that it names, are served\n"}
                : handler(request["line"].get<std::string>(), request.value("json", Json(false)) == true, client.role);
        client.to_send = Json{{"status", answer.status}, {"bytes", answer.text.size()}}.dump() + "\n" + answer.text;
    }
    const ssize_t size = send(client.socket, client.to_send.data(), client.to_send.size(), MSG_NOSIGNAL);
    if (size < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    client.to_send.erase(0, static_cast<size_t>(size));
    return true;
}

ControlRole ControlServer::role_of(int socket) const {
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return ControlRole::kNone;
    }
    if (peer.uid == 0 || peer.uid == geteuid()) {
        return ControlRole::kOperator;
    }
    const std::vector<gid_t> groups = groups_of(peer.uid, peer.gid);
    const auto is_in = [&](gid_t group) {
        return group != kNoGroup && std::ranges::find(groups, group) != groups.end();
    };
    return is_in(operators_) ? ControlRole::kOperator : is_in(observers_) ? ControlRole::kObserver : ControlRole::kNone;
}

bool ControlClient::open(const std::string &path, std::string &error) {
    sockaddr_un address{};
    if (!fill_address(path, address, error)) {
        return false;
    }
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval longest{static_cast<time_t>(patience_s_), 0};
    if (socket_ < 0 || setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof(longest)) != 0 ||
        setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof(longest)) != 0 ||
        connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        error = last_error();
        return false;
    }
    return true;
}

ControlClient::~ControlClient() {
    if (socket_ >= 0) {
        close(socket_);
    }
}

bool ControlClient::ask(const std::string &line, bool json, ControlAnswer &answer) {
    const std::string request = Json{{"line", line}, {"json", json}}.dump() + "\n";
    for (size_t sent = 0; sent < request.size();) {
        const ssize_t size = send(socket_, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (size <= 0) {
            return false;
        }
        sent += static_cast<size_t>(size);
    }
    std::string received;
    size_t wanted = std::string::npos;
    size_t head = 0;
    std::array<char, kReadAtOnce> bytes;
    while (wanted == std::string::npos || received.size() < wanted) {
        const ssize_t size = recv(socket_, bytes.data(), bytes.size(), 0);
        if (size <= 0) {
            return false;
        }
        received.append(bytes.data(), static_cast<size_t>(size));
        if (wanted == std::string::npos && (head = received.find('\n')) != std::string::npos) {
            const Json answered = Json::parse(received.substr(0, head), nullptr, false);
            if (!answered.is_object()) {
                return false;
            }
            answer.status = answered.value("status", "failed");
            wanted = head + 1 + answered.value("bytes", size_t{0});
        }
    }
    answer.text = received.substr(head + 1);
    return true;
}

}  // namespace host
