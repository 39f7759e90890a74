// SPDX-License-Identifier: Apache-2.0
#include "chip/kernel/kernel_filters.h"

#include <bpf/bpf.h>

#include <algorithm>

namespace card {

bool KernelFilters::PlaceLess::operator()(const Place &a, const Place &b) const {
    return std::memcmp(&a, &b, sizeof(a)) < 0;
}

size_t KernelFilters::set(const std::vector<KernelFilter> &filters) {
    std::map<Place, kernel_filter, PlaceLess> wanted;
    for (const KernelFilter &filter : filters) {
        Place place{};
        place.mask = filter.mask;
        place.key.key = filter.value;
        place.key.port = filter.port;
        kernel_filter &value = wanted.try_emplace(place, kernel_filter{KERNEL_NEVER, KERNEL_NEVER}).first->second;
        __u32 &from = filter.permits ? value.permit_from : value.deny_from;
        from = std::min(from, filter.from);
    }
    std::erase_if(held_, [&](const auto &one) {
        if (wanted.contains(one.first)) {
            return false;
        }
        kernel_rule_key key = one.first.key;
        key.slot = one.second.slot;
        bpf_map_delete_elem(map_, &key);
        slots_.give(key.slot);
        return true;
    });
    return static_cast<size_t>(
        std::ranges::count_if(wanted, [&](const auto &one) { return !write(one.first, one.second); }));
}

bool KernelFilters::write(const Place &place, const kernel_filter &value) {
    const auto found = held_.find(place);
    const bool is_new = found == held_.end();
    kernel_rule_key key = place.key;
    if (is_new && !slots_.take(place.mask, &key.slot)) {
        return false;
    }
    if (!is_new) {
        if (std::memcmp(&found->second.value, &value, sizeof(value)) == 0) {
            return true;
        }
        key.slot = found->second.slot;
    }
    if (bpf_map_update_elem(map_, &key, &value, BPF_ANY) != 0) {
        if (is_new) {
            slots_.give(key.slot);
        }
        return false;
    }
    held_[place] = {key.slot, value};
    return true;
}

}  // namespace card
