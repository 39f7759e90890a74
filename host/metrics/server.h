// SPDX-License-Identifier: Apache-2.0
// server.h: the endpoint that a Prometheus scrapes.
//
// A scrape asks for a snapshot and waits for it: the driving thread alone may look at the card. A process that does not
// go on answers no scrape, which is what a monitor wants to know. Snapshots become text on the thread that serves.
// Used by: metrics. Uses: prometheus-cpp. Threads: the driving one; those that serve call collect().
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "metrics/snapshot.h"

namespace prometheus {
class Collectable;
class Exposer;
struct MetricFamily;
}  // namespace prometheus

namespace host {

class MetricsServer {
public:
    MetricsServer();
    ~MetricsServer();
    MetricsServer(const MetricsServer &) = delete;
    MetricsServer &operator=(const MetricsServer &) = delete;

    // "127.0.0.1:9777", "[::1]:9777". False, and why, when nothing can listen there.
    bool open(const std::string &address, std::string &error);

    // The number of the last scrape that has asked; one that has been answered asks no more.
    uint64_t asked() const { return asked_.load(std::memory_order_relaxed); }
    // For those up to this number.
    void answer(uint64_t number, Snapshot snapshot);

    // On a thread that serves. Empty when the process ends.
    std::vector<prometheus::MetricFamily> collect();

private:
    std::atomic<uint64_t> asked_ = 0;
    std::mutex mutex_;  // around all below
    std::condition_variable answered_now_;
    uint64_t answered_ = 0;
    bool is_over_ = false;
    std::shared_ptr<const Snapshot> snapshot_;
    std::shared_ptr<prometheus::Collectable> collectable_;
    std::unique_ptr<prometheus::Exposer> exposer_;
};

}  // namespace host
