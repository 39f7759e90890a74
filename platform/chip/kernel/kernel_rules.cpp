// SPDX-License-Identifier: Apache-2.0
#include "chip/kernel/kernel_rules.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <utility>

#include "chip/chip.h"

namespace card {

namespace {

kernel_key kernel_key_of(const KeyBits &bits) {
    kernel_key key;
    std::memcpy(key.bytes, bits.bytes, sizeof(key.bytes));
    return key;
}

kernel_key under_mask(const Pattern &pattern) {
    kernel_key key;
    for (size_t i = 0; i < sizeof(key.bytes); i++) {
        key.bytes[i] = static_cast<uint8_t>(pattern.value.bytes[i] & pattern.mask.bytes[i]);
    }
    return key;
}

}  // namespace

static_assert(sizeof(kernel_key) == sizeof(KeyBits));

KernelRules::KernelRules(const Tables &tables)
    : tables_(tables),
      slots_(tables.slots),
      processors_(static_cast<unsigned>(libbpf_num_possible_cpus())),
      free_counters_(KERNEL_COUNTERS) {
    std::iota(free_counters_.rbegin(), free_counters_.rend(), 0U);
}

int KernelRules::add(uint32_t entry_id, const Description &description) {
    Rule rule{};
    if (free_counters_.empty() || !slots_.take(kernel_key_of(description.pattern.mask), &rule.key.slot)) {
        return kFull;
    }
    rule.key.key = under_mask(description.pattern);
    rule.ports = description.ports;
    std::ranges::sort(rule.ports);
    rule.ports.erase(std::unique(rule.ports.begin(), rule.ports.end()), rule.ports.end());
    rule.denies = description.action == Action::kDeny;
    rule.counter = free_counters_.back();
    write_counter(rule.counter, 0);
    const Rule &added = rules_.emplace(entry_id, std::move(rule)).first->second;
    for (size_t i = 0; i < added.ports.size(); i++) {
        if (!join(entry_id, added, added.ports[i])) {
            while (i-- > 0) {
                leave(entry_id, added, added.ports[i]);
            }
            slots_.give(added.key.slot);
            rules_.erase(entry_id);
            return kFull;
        }
    }
    free_counters_.pop_back();
    return 0;
}

void KernelRules::remove(uint32_t entry_id) {
    const auto found = rules_.find(entry_id);
    if (found == rules_.end()) {
        return;
    }
    for (const uint16_t port : found->second.ports) {
        leave(entry_id, found->second, port);
    }
    slots_.give(found->second.key.slot);
    free_counters_.push_back(found->second.counter);
    rules_.erase(found);
}

uint64_t KernelRules::packets(uint32_t entry_id) const {
    const auto found = rules_.find(entry_id);
    std::vector<uint64_t> each(processors_);
    if (found == rules_.end() || bpf_map_lookup_elem(tables_.matched, &found->second.counter, each.data()) != 0) {
        return 0;
    }
    return std::accumulate(each.begin(), each.end(), uint64_t{0});
}

bool KernelRules::join(uint32_t entry_id, const Rule &rule, uint16_t port) {
    kernel_rule_key key = rule.key;
    key.port = port;
    Entry &entry = entries_[key];
    entry.emplace(entry_id, &rule);
    if (write(key, entry)) {
        return true;
    }
    entry.erase(entry_id);
    if (entry.empty()) {
        entries_.erase(key);
    }
    return false;
}

void KernelRules::leave(uint32_t entry_id, const Rule &rule, uint16_t port) {
    kernel_rule_key key = rule.key;
    key.port = port;
    const auto found = entries_.find(key);
    found->second.erase(entry_id);
    if (found->second.empty()) {
        bpf_map_delete_elem(tables_.rules, &key);
        entries_.erase(found);
    } else {
        write(key, found->second);
    }
}

bool KernelRules::write(const kernel_rule_key &key, const Entry &entry) const {
    kernel_rule value{};
    for (const auto &[entry_id, rule] : entry) {
        if (rule->denies && value.deny_entry == 0) {
            value.deny_entry = entry_id;
            value.deny_counter = rule->counter;
        } else if (!rule->denies && value.count_entry == 0) {
            value.count_entry = entry_id;
            value.count_counter = rule->counter;
        }
    }
    return bpf_map_update_elem(tables_.rules, &key, &value, BPF_ANY) == 0;
}

void KernelRules::write_counter(uint32_t counter, uint64_t value) const {
    const std::vector<uint64_t> each(processors_, value);
    bpf_map_update_elem(tables_.matched, &counter, each.data(), BPF_ANY);
}

}  // namespace card
