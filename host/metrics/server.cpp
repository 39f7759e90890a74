// SPDX-License-Identifier: Apache-2.0
#include "metrics/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include "metrics/families.h"

namespace host {

namespace {

constexpr size_t kServingThreads = 2;

// "10.0.0.1:9777". IPv4 only: prometheus-cpp's web server is built without the other in Debian.
bool read_address(const std::string &text, sockaddr_in &address) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return false;
    }
    uint16_t port = 0;
    const char *const end = text.data() + text.size();
    const auto read = std::from_chars(text.data() + colon + 1, end, port);
    address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    return read.ec == std::errc() && read.ptr == end && port != 0 &&
           inet_pton(AF_INET, text.substr(0, colon).c_str(), &address.sin_addr) == 1;
}

// The server's own word for whatever goes wrong is that something did, so the system is asked first. 0, or an error.
int try_to_listen(const sockaddr_in &address) {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return errno;
    }
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    const bool listens = bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0 &&
                         listen(descriptor, 1) == 0;
    const int error = listens ? 0 : errno;
    close(descriptor);
    return error;
}

}  // namespace

// Those that wait, and what they are answered. Lives as long as one of them.
class MetricsServer::Scrapes : public prometheus::Collectable {
public:
    uint64_t asked() const { return asked_.load(std::memory_order_relaxed); }

    void answer(uint64_t number, std::shared_ptr<const Snapshot> snapshot) {
        {
            const std::lock_guard lock(mutex_);
            answered_ = number;
            snapshot_ = std::move(snapshot);
        }
        answered_now_.notify_all();
    }

    // Whoever waits is let go.
    void end() {
        {
            const std::lock_guard lock(mutex_);
            is_over_ = true;
        }
        answered_now_.notify_all();
    }

    // On a thread that serves. Empty when the process ends.
    std::vector<prometheus::MetricFamily> Collect() const override {
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

private:
    mutable std::atomic<uint64_t> asked_ = 0;
    mutable std::mutex mutex_;  // around all below
    mutable std::condition_variable answered_now_;
    uint64_t answered_ = 0;
    bool is_over_ = false;
    std::shared_ptr<const Snapshot> snapshot_;
};

MetricsServer::MetricsServer() : scrapes_(std::make_shared<Scrapes>()) {}

MetricsServer::~MetricsServer() {
    scrapes_->end();
    static_cast<void>(exposer_.release());
}

uint64_t MetricsServer::asked() const {
    return scrapes_->asked();
}

bool MetricsServer::open(const std::string &address, std::string &error) {
    sockaddr_in socket_address{};
    if (!read_address(address, socket_address)) {
        error = "expected an IPv4 ADDRESS:PORT in figures, such as 127.0.0.1:9777, or 0.0.0.0:9777 for all addresses";
        return false;
    }
    if (const int reason = try_to_listen(socket_address); reason != 0) {
        error = "nothing can listen there: " + std::generic_category().message(reason);
        return false;
    }
    try {
        exposer_ = std::make_unique<prometheus::Exposer>(address, kServingThreads);
        exposer_->RegisterCollectable(scrapes_);
    } catch (const std::exception &failure) {
        error = std::string("nothing can listen there: ") + failure.what();
        return false;
    }
    return true;
}

void MetricsServer::answer(uint64_t number, Snapshot snapshot) {
    scrapes_->answer(number, std::make_shared<const Snapshot>(std::move(snapshot)));
}

}  // namespace host
