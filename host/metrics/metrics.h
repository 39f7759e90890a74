// SPDX-License-Identifier: Apache-2.0
// metrics.h: --metrics: what a running card knows, for a Prometheus.
//
// Between two looks at the packets it goes on with whatever a scrape has asked for, a slice at a time, and with the
// round of the floods. Used by: live_command. Uses: server, gatherer, flood_watch. Thread: the driving one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "live/live_card.h"
#include "metrics/flood_watch.h"
#include "metrics/gatherer.h"
#include "metrics/server.h"

namespace host {

class Metrics {
public:
    Metrics() = default;
    // Scrapes wait from now on. False, and why.
    bool open(const std::string &address, std::string &error) { return server_.open(address, error); }
    // They are answered from now on, in the card's looks. 'card' goes first.
    void start(LiveCard &card, Gatherer::Outputs outputs);
    // Settings may have changed. Asks the module for all of them, so: where somebody waits for a line anyway.
    void read_settings();

    // Whether a scrape waits for more.
    bool is_busy() const { return is_gathering_ || server_.asked() != answered_; }

private:
    void look();

    MetricsServer server_;
    LiveCard *card_ = nullptr;
    ModuleSettings settings_;
    std::optional<FloodWatch> floods_;
    std::optional<Gatherer> gatherer_;
    bool is_gathering_ = false;
    uint64_t asked_ = 0;  // number of the scrape that is gathered for
    uint64_t answered_ = 0;
};

}  // namespace host
