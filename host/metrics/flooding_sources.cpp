// SPDX-License-Identifier: Apache-2.0
#include "metrics/flooding_sources.h"

#include <algorithm>

namespace host {

void FloodingSources::note(const Subject &subject, uint64_t rate_pps, int64_t now_ns) {
    Place *const place = place_for(subject, now_ns);
    if (place == nullptr) {
        next_left_out_++;
        return;
    }
    place->is_noted = true;
    place->next_rate_pps = std::max(place->next_rate_pps, rate_pps);
}

FloodingSources::Place *FloodingSources::place_for(const Subject &subject, int64_t now_ns) {
    size_t on_port = 0;
    Place *free_on_port = nullptr;
    Place *free_anywhere = nullptr;
    for (Place &place : places_) {
        if (place.subject == subject) {
            return &place;
        }
        const bool is_free = !place.is_noted && !place.floods && now_ns >= place.taken_ns + kHoldNs;
        const bool is_here = place.subject.flow.port == subject.flow.port;
        on_port += is_here ? 1 : 0;
        if (is_free) {
            (is_here ? free_on_port : free_anywhere) = &place;
        }
    }
    Place *place = free_on_port;
    if (place == nullptr && on_port < kPlacesPerPort) {
        place = free_anywhere;
        if (place == nullptr && places_.size() < kPlaces) {
            place = &places_.emplace_back();
        }
    }
    if (place != nullptr) {
        *place = {subject, now_ns};
    }
    return place;
}

void FloodingSources::end_pass() {
    for (Place &place : places_) {
        place.floods = place.is_noted;
        place.rate_pps = place.next_rate_pps;
        place.is_noted = false;
        place.next_rate_pps = 0;
    }
    left_out_ = next_left_out_;
    next_left_out_ = 0;
}

std::vector<FloodingSource> FloodingSources::sources() const {
    std::vector<FloodingSource> sources;
    for (const Place &place : places_) {
        if (place.floods) {
            sources.push_back({place.subject, place.rate_pps});
        }
    }
    return sources;
}

}  // namespace host
