// SPDX-License-Identifier: Apache-2.0
// address_table.h: what is counted for each address of each flow, in bounded memory.
//
// Exact up to kAddresses addresses in all. Beyond them the half with the fewest packets is let go, again and again: who
// sends much stays, and of the others it is known how many they were, give or take two in a hundred (HyperLogLog).
// Used by: account, tune. 'Tally' is a record with a member 'packets'. Thread: the driving one.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <unordered_map>
#include <vector>

#include "addresses.h"

namespace host {

struct FlowAddress {
    uint32_t flow;  // a number of the caller's, from 0 upwards
    Source source;
    bool operator==(const FlowAddress &other) const {
        return flow == other.flow && source.type == other.source.type && source.bytes == other.source.bytes;
    }
};

// Every bit of the result depends on every bit of the address.
inline uint64_t address_hash(const FlowAddress &key) {
    const auto mix = [](uint64_t word) {
        word = (word ^ word >> 30) * 0xbf58476d1ce4e5b9;
        word = (word ^ word >> 27) * 0x94d049bb133111eb;
        return word ^ word >> 31;
    };
    std::array<uint64_t, 2> words;
    std::memcpy(words.data(), key.source.bytes.data(), sizeof(words));
    return mix(mix(mix(words[0] + 1) + words[1]) + (uint64_t{key.flow} << 2 | key.source.type));
}

// How many different hashes it was shown, about.
class DistinctSketch {
public:
    void add(uint64_t hash) {
        uint8_t &highest = ranks_[hash % kRegisters];
        const auto rank = static_cast<uint8_t>(std::countl_zero(hash | kRegisters) + 1);
        highest = std::max(highest, rank);
    }

    uint64_t estimate() const {
        double sum = 0;
        for (const uint8_t rank : ranks_) {
            sum += std::ldexp(1.0, -rank);
        }
        constexpr double registers = kRegisters;
        constexpr double bias = 0.7213 / (1 + 1.079 / registers);
        const auto empty = static_cast<double>(std::ranges::count(ranks_, 0));
        const double raw = bias * registers * registers / sum;
        const bool few = raw <= 2.5 * registers && empty > 0;
        return static_cast<uint64_t>(std::llround(few ? registers * std::log(registers / empty) : raw));
    }

private:
    static constexpr uint64_t kRegisters = 4096;
    std::array<uint8_t, kRegisters> ranks_{};
};

struct AddressCount {
    uint64_t number = 0;
    bool exact = true;
};

template <typename Tally>
class AddressTable {
public:
    static constexpr size_t kAddresses = 1 << 17;

    // Of the address, made when there is none. Valid until the next call.
    Tally &operator()(const FlowAddress &key) {
        if (last_ == nullptr || !(last_->first == key)) {
            look_up(key);
        }
        return last_->second;
    }

    // Different addresses that the flow has had.
    AddressCount count(uint32_t flow) const {
        if (flow >= flows_.size()) {
            return {};
        }
        const Flow &of = flows_[flow];
        return of.sketch ? AddressCount{of.sketch->estimate(), false} : AddressCount{of.number, true};
    }

    // Those that are left, with their tallies, in no order.
    const auto &entries() const { return tallies_; }

private:
    struct Hash {
        size_t operator()(const FlowAddress &key) const { return address_hash(key); }
    };
    struct Flow {
        uint64_t number = 0;
        std::unique_ptr<DistinctSketch> sketch;  // since an address was let go
    };

    void look_up(const FlowAddress &key) {
        auto found = tallies_.find(key);
        if (found == tallies_.end()) {
            if (tallies_.size() >= kAddresses) {
                let_go();
            }
            found = tallies_.try_emplace(key).first;
            if (flows_.size() <= key.flow) {
                flows_.resize(key.flow + 1);
            }
            Flow &of = flows_[key.flow];
            of.number++;
            if (of.sketch) {
                of.sketch->add(address_hash(key));
            }
        }
        last_ = &*found;
    }

    void let_go() {
        std::vector<uint64_t> packets;
        for (const auto &[key, tally] : tallies_) {
            packets.push_back(tally.packets);
            Flow &of = flows_[key.flow];
            if (!of.sketch) {
                of.sketch = std::make_unique<DistinctSketch>();
            }
            of.sketch->add(address_hash(key));
        }
        const auto middle = packets.begin() + static_cast<std::ptrdiff_t>(packets.size() / 2);
        std::ranges::nth_element(packets, middle);
        std::erase_if(tallies_, [most = *middle](const auto &entry) { return entry.second.packets <= most; });
    }

    std::unordered_map<FlowAddress, Tally, Hash> tallies_;
    std::vector<Flow> flows_;
    std::pair<const FlowAddress, Tally> *last_ = nullptr;
};

}  // namespace host
