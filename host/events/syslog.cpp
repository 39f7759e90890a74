// SPDX-License-Identifier: Apache-2.0
#include "events/syslog.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>
#include <system_error>
#include <utility>

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

constexpr int kLookMs = 100;  // between questions whether waiting goes on
// Whoever reads has room for a few messages only: a replay waits so long for it.
constexpr auto kLongest = std::chrono::milliseconds(100);

// The number for documentation (RFC 5612): the project has none of its own.
constexpr const char *kDataId = "anti-cpu@32473";

int severity_of(std::string_view event) {
    return event == "alarm-raised" || event.ends_with("-refused") || event == "capture-upload-failed" ||
                   event.ends_with("-lost") || event == "guard-late"
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
    queue_.reset();
    if (socket_ >= 0) {
        ::close(socket_);
    }
}

bool Syslog::open(const std::string &target, Delivery delivery, std::string &error) {
    target_ = target;
    if (!connect(error)) {
        return false;
    }
    char name[256] = "";
    gethostname(name, sizeof(name) - 1);
    host_name_ = name;
    if (delivery == Delivery::kNoWaiting) {
        queue_ = std::make_unique<LineQueue>(
            [this](const std::string &message, const GoesOn &goes_on) { return send_message(message, goes_on); },
            [this](uint64_t lost) { return message_of(lost_entry(lost)); });
    }
    return true;
}

bool Syslog::connect(std::string &error) {
    if (socket_ >= 0) {
        ::close(socket_);
    }
    socket_ = -1;
    if (!target_.starts_with('/')) {
        return open_host(target_, error);
    }
    const bool is_open = open_path(target_);
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
    return socket_ >= 0 && ::connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
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
    if (socket_ < 0 || ::connect(socket_, found->ai_addr, found->ai_addrlen) != 0) {
        error = std::generic_category().message(errno);
        return false;
    }
    return true;
}

std::string Syslog::message_of(const JournalEntry &entry) const {
    return syslog_message(entry, host_name_, getpid());
}

void Syslog::take(const JournalEntry &entry) {
    if (queue_) {
        queue_->add(message_of(entry));
        return;
    }
    const auto end = std::chrono::steady_clock::now() + kLongest;
    const bool is_taken = send_message(message_of(entry), [end] { return std::chrono::steady_clock::now() < end; });
    (is_taken ? counts_.written : counts_.lost)++;
}

// A server that was started anew is found anew.
bool Syslog::send_message(const std::string &message, const GoesOn &goes_on) {
    bool is_found_anew = false;
    for (;;) {
        if (send(socket_, message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) {
            return true;
        }
        if (errno == EAGAIN || errno == EINTR) {
            pollfd ready{socket_, POLLOUT, 0};
            poll(&ready, 1, kLookMs);
            if (!goes_on()) {
                return false;
            }
            continue;
        }
        std::string error;
        if (std::exchange(is_found_anew, true) || !connect(error)) {
            return false;
        }
    }
}

void Syslog::close() {
    if (queue_) {
        queue_->close();
    }
}

LineCounts Syslog::counts() const {
    return queue_ ? queue_->counts() : counts_;
}

}  // namespace host
