// SPDX-License-Identifier: Apache-2.0
#include "events/syslog.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <system_error>

#include "events/event_json.h"
#include "transfer/server_address.h"

namespace host {

namespace {

using Json = nlohmann::ordered_json;

// RFC 5424 6.2.1.
constexpr int kDaemon = 3;
constexpr int kWarning = 4;
constexpr int kNotice = 5;
constexpr int kFacilities = 8;

// The number for documentation (RFC 5612): the project has none of its own.
constexpr const char *kDataId = "anti-cpu@32473";

int severity_of(std::string_view event) {
    return event == "alarm-raised" || event == "rule-refused" || event == "memory-refused" ||
                   event == "capture-upload-failed"
               ? kWarning
               : kNotice;
}

// A value as the text of a parameter: of a list its elements, of an object its members, with commas between.
std::string value_text(const Json &value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (!value.is_structured()) {
        return value.dump();
    }
    std::string text;
    for (const auto &[key, element] : value.items()) {
        text += (text.empty() ? "" : ",") + (value.is_object() ? key + "=" : std::string()) + value_text(element);
    }
    return text;
}

// RFC 5424 6.3.3.
std::string escaped(const std::string &text) {
    std::string result;
    for (const char c : text) {
        result += c == '"' || c == '\\' || c == ']' ? std::string("\\") + c : std::string(1, c);
    }
    return result;
}

}  // namespace

std::string syslog_message(const JournalEntry &entry, const std::string &host_name, int process_id) {
    const Json json = event_json(entry);
    const std::string event = json["event"];
    std::string data;
    for (const auto &[key, value] : json.items()) {
        if (key != "time" && key != "event") {
            data += " " + key + "=\"" + escaped(value_text(value)) + "\"";
        }
    }
    return "<" + std::to_string(kDaemon * kFacilities + severity_of(event)) + ">1 " + json["time"].get<std::string>() +
           " " + (host_name.empty() ? "-" : host_name) + " anti-cpu " + std::to_string(process_id) + " " + event +
           " [" + kDataId + data + "]";
}

Syslog::~Syslog() {
    if (socket_ >= 0) {
        close(socket_);
    }
}

bool Syslog::open(const std::string &target, std::string &error) {
    if (!target.starts_with('/')) {
        return open_host(target, error);
    }
    const bool is_open = open_path(target);
    error = is_open ? "" : std::generic_category().message(errno);
    return is_open;
}

bool Syslog::open_path(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size());
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    // Whoever reads has room for a few messages only: a moment is waited for it.
    const timeval longest{0, 100'000};
    return socket_ >= 0 && setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof(longest)) == 0 &&
           connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
}

bool Syslog::open_host(const std::string &target, std::string &error) {
    const auto authority = card::url_authority(target);
    if (!authority) {
        error = "neither a path nor the address of a server";
        return false;
    }
    const size_t bracket = authority->find(']');
    const size_t colon = authority->find(':', bracket == std::string::npos ? 0 : bracket);
    const std::string port = colon == std::string::npos ? "514" : authority->substr(colon + 1);
    const std::string host =
        bracket == std::string::npos ? authority->substr(0, colon) : authority->substr(1, bracket - 1);
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *found = nullptr;
    if (const int result = getaddrinfo(host.c_str(), port.c_str(), &hints, &found); result != 0) {
        error = gai_strerror(result);
        return false;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);
    socket_ = socket(found->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket_ < 0 || connect(socket_, found->ai_addr, found->ai_addrlen) != 0) {
        error = std::generic_category().message(errno);
        return false;
    }
    return true;
}

void Syslog::follow(Journal &journal) {
    char name[256] = "";
    gethostname(name, sizeof(name) - 1);
    journal.add_reader([this, host_name = std::string(name)](const JournalEntry &entry) {
        const std::string message = syslog_message(entry, host_name, getpid());
        const bool is_taken = send(socket_, message.data(), message.size(), MSG_NOSIGNAL) >= 0;
        lost_ += is_taken ? 0 : 1;
    });
}

}  // namespace host
