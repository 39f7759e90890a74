// SPDX-License-Identifier: Apache-2.0
// server.h: the endpoint that a Prometheus scrapes.
//
// A scrape asks for a snapshot and waits for it: the driving thread alone may look at the card. A process that does not
// go on answers no scrape, which is what a monitor wants to know. Snapshots become text on the thread that serves.
// Used by: metrics. Uses: prometheus-cpp. Threads: the driving one; those that serve.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "metrics/snapshot.h"

namespace prometheus {
class Exposer;
}  // namespace prometheus

namespace host {

class MetricsServer {
public:
    MetricsServer();
    // At the end of the process: what serves goes with it, because its web server takes two seconds to stop in order.
    ~MetricsServer();
    MetricsServer(const MetricsServer &) = delete;
    MetricsServer &operator=(const MetricsServer &) = delete;

    // "127.0.0.1:9777". False, and why, when nothing can listen there.
    bool open(const std::string &address, std::string &error);

    // The number of the last scrape that has asked; one that has been answered asks no more.
    uint64_t asked() const;
    // For those up to this number.
    void answer(uint64_t number, Snapshot snapshot);

private:
    class Scrapes;
    std::shared_ptr<Scrapes> scrapes_;
    std::unique_ptr<prometheus::Exposer> exposer_;
};

}  // namespace host
