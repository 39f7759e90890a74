// SPDX-License-Identifier: Apache-2.0
#include "metrics/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <exception>
#include <system_error>
#include <utility>

#include "metrics/families.h"

namespace host {

namespace {

constexpr size_t kServingThreads = 2;

class Scrape : public prometheus::Collectable {
public:
    explicit Scrape(MetricsServer &server) : server_(server) {}
    std::vector<prometheus::MetricFamily> Collect() const override { return server_.collect(); }

private:
    MetricsServer &server_;
};

// An address in figures and a port: "10.0.0.1:9777", "[2001:db8::1]:9777".
bool read_address(const std::string &text, sockaddr_storage &address, socklen_t &size) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return false;
    }
    std::string host = text.substr(0, colon);
    uint16_t port = 0;
    const char *const end = text.data() + text.size();
    if (const auto read = std::from_chars(text.data() + colon + 1, end, port);
        read.ec != std::errc() || read.ptr != end || port == 0) {
        return false;
    }
    address = {};
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        auto &ipv6 = reinterpret_cast<sockaddr_in6 &>(address);
        ipv6.sin6_family = AF_INET6;
        ipv6.sin6_port = htons(port);
        size = sizeof(ipv6);
        host = host.substr(1, host.size() - 2);
        return inet_pton(AF_INET6, host.c_str(), &ipv6.sin6_addr) == 1;
    }
    auto &ipv4 = reinterpret_cast<sockaddr_in &>(address);
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(port);
    size = sizeof(ipv4);
    return inet_pton(AF_INET, host.c_str(), &ipv4.sin_addr) == 1;
}

// The server's own word for whatever goes wrong is that something did, so the system is asked first. 0, or an error.
int try_to_listen(const sockaddr_storage &address, socklen_t size) {
    const int descriptor = socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return errno;
    }
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (address.ss_family == AF_INET6) {
        setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
    }
    const bool listens =
        bind(descriptor, reinterpret_cast<const sockaddr *>(&address), size) == 0 && listen(descriptor, 1) == 0;
    const int error = listens ? 0 : errno;
    close(descriptor);
    return error;
}

}  // namespace

MetricsServer::MetricsServer() = default;

// Whoever waits for an answer is let go first.
MetricsServer::~MetricsServer() {
    {
        const std::lock_guard lock(mutex_);
        is_over_ = true;
    }
    answered_now_.notify_all();
    exposer_.reset();
}

bool MetricsServer::open(const std::string &address, std::string &error) {
    sockaddr_storage socket_address{};
    socklen_t size = 0;
    if (!read_address(address, socket_address, size)) {
        error = "expected ADDRESS:PORT in figures, such as 127.0.0.1:9777, 0.0.0.0:9777 or [::1]:9777";
        return false;
    }
    if (const int reason = try_to_listen(socket_address, size); reason != 0) {
        error = "nothing can listen there: " + std::generic_category().message(reason);
        return false;
    }
    collectable_ = std::make_shared<Scrape>(*this);
    try {
        exposer_ = std::make_unique<prometheus::Exposer>(address, kServingThreads);
        exposer_->RegisterCollectable(collectable_);
    } catch (const std::exception &failure) {
        error = std::string("nothing can listen there: ") + failure.what();
        return false;
    }
    return true;
}

void MetricsServer::answer(uint64_t number, Snapshot snapshot) {
    {
        const std::lock_guard lock(mutex_);
        answered_ = number;
        snapshot_ = std::make_shared<const Snapshot>(std::move(snapshot));
    }
    answered_now_.notify_all();
}

std::vector<prometheus::MetricFamily> MetricsServer::collect() {
    std::shared_ptr<const Snapshot> snapshot;
    {
        std::unique_lock lock(mutex_);
        const uint64_t number = asked_.fetch_add(1, std::memory_order_relaxed) + 1;
        answered_now_.wait(lock, [&] { return answered_ >= number || is_over_; });
        if (answered_ < number) {
            return {};
        }
        snapshot = snapshot_;
    }
    return families(*snapshot);
}

}  // namespace host
