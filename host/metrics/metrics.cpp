// SPDX-License-Identifier: Apache-2.0
#include "metrics/metrics.h"

#include <utility>

namespace host {

void Metrics::start(LiveCard &card, Gatherer::Outputs outputs) {
    card_ = &card;
    floods_.emplace(card);
    gatherer_.emplace(card, *floods_, std::move(outputs));
    read_settings();
    card.set_meanwhile([this] { look(); });
}

void Metrics::read_settings() {
    settings_ = module_settings();
}

void Metrics::look() {
    floods_->look(card::Clock::instance().monotonic_ns());
    if (!is_gathering_) {
        if (!is_busy()) {
            return;
        }
        asked_ = server_.asked();
        gatherer_->begin(settings_);
        is_gathering_ = true;
    }
    if (gatherer_->advance()) {
        is_gathering_ = false;
        answered_ = asked_;
        server_.answer(asked_, gatherer_->take());
    }
}

}  // namespace host
