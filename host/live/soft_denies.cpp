// SPDX-License-Identifier: Apache-2.0
#include "live/soft_denies.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace host {

namespace {

kernel_flow without_source(const kernel_flow &flow) {
    kernel_flow whole{};
    whole.port = flow.port;
    whole.vlan = flow.vlan;
    whole.protocol = flow.protocol;
    return whole;
}

bool same(const kernel_flow &a, const kernel_flow &b) {
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}

}  // namespace

size_t SoftDenies::FlowHash::operator()(const kernel_flow &flow) const {
    return std::hash<std::string_view>()({reinterpret_cast<const char *>(&flow), sizeof(flow)});
}

bool SoftDenies::FlowEqual::operator()(const kernel_flow &a, const kernel_flow &b) const {
    return same(a, b);
}

void SoftDenies::judged(const kernel_copy &copy, bool dropped) {
    const bool was_denied = (copy.flags & KERNEL_DENIED) != 0;
    const bool was_ruled = (copy.flags & KERNEL_RULED) != 0;
    if (was_ruled || (!dropped && !was_denied)) {
        return;
    }
    const kernel_flow whole = without_source(copy.flow);
    if (dropped) {
        Denied &denied = flows_[whole];
        denied.last_ns = copy.time_ns;
        deny(whole, denied, copy.flow);
        return;
    }
    if (const auto place = flows_.find(whole); place != flows_.end()) {
        allow(place, &copy.flow);
    }
}

void SoftDenies::deny(const kernel_flow &whole, Denied &denied, const kernel_flow &source) {
    if (denied.is_whole) {
        return;
    }
    const bool is_known =
        std::ranges::any_of(denied.sources, [&](const kernel_flow &one) { return same(one, source); });
    if (is_known) {
        return;
    }
    if (source.src_type != 0 && denied.sources.size() + 1 < kSourcesAtMost) {
        if (install(source)) {
            denied.sources.push_back(source);
        }
        return;
    }
    if (!install(whole)) {
        return;
    }
    denied.is_whole = true;
    for (const kernel_flow &one : denied.sources) {
        guard_.allow(one);
    }
    denied.sources.clear();
}

bool SoftDenies::install(const kernel_flow &flow) {
    const bool has_room = guard_.deny(flow);
    most_ = std::max(most_, guard_.denies());
    refused_ += has_room ? 0 : 1;
    return has_room;
}

// Of one source, or all of the flow.
void SoftDenies::allow(Flows::iterator place, const kernel_flow *source) {
    Denied &denied = place->second;
    if (denied.is_whole) {
        guard_.allow(place->first);
        denied.is_whole = false;
    }
    std::erase_if(denied.sources, [&](const kernel_flow &one) {
        return (source == nullptr || same(one, *source)) && guard_.allow(one);
    });
    if (denied.sources.empty()) {
        flows_.erase(place);
    }
}

void SoftDenies::expire(uint64_t now_ns) {
    for (auto place = flows_.begin(); place != flows_.end();) {
        const auto next = std::next(place);
        if (now_ns > place->second.last_ns + kSilenceNs) {
            allow(place, nullptr);
        }
        place = next;
    }
}

}  // namespace host
