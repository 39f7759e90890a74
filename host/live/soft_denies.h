// SPDX-License-Identifier: Apache-2.0
// soft_denies.h: what the module drops, the kernel drops, too.
//
// The module judges copies; its verdict on one is in force for those that follow: of the same source, or of the whole
// flow when eight sources of it were denied. The first verdict that passes ends it, and so does silence. What is denied
// goes on being copied, so the module goes on counting. What the operator's rules decided in the kernel says nothing
// about other packets. Used by: live_card. Uses: guard. Thread: the driving one.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "chip/kernel/guard.h"

namespace host {

class SoftDenies {
public:
    explicit SoftDenies(card::Guard &guard) : guard_(guard) {}

    // The verdict on a copy.
    void judged(const kernel_copy &copy, bool dropped);
    // Now and then: ends what nothing has come for.
    void expire(uint64_t now_ns);

    size_t in_force() const { return guard_.denies(); }
    size_t most_in_force() const { return most_; }
    // How many found no room in the kernel: their packets go on to the stack.
    uint64_t refused() const { return refused_; }

private:
    static constexpr size_t kSourcesAtMost = 8;
    static constexpr uint64_t kSilenceNs = 2'000'000'000;

    struct FlowHash {
        size_t operator()(const kernel_flow &flow) const;
    };
    struct FlowEqual {
        bool operator()(const kernel_flow &a, const kernel_flow &b) const;
    };
    struct Denied {
        bool is_whole = false;
        std::vector<kernel_flow> sources;
        uint64_t last_ns = 0;  // of the last dropped copy
    };
    using Flows = std::unordered_map<kernel_flow, Denied, FlowHash, FlowEqual>;

    void deny(const kernel_flow &whole, Denied &denied, const kernel_flow &source);
    bool install(const kernel_flow &flow);
    void allow(Flows::iterator place, const kernel_flow *source);

    card::Guard &guard_;
    Flows flows_;  // by the flow without its source
    size_t most_ = 0;
    uint64_t refused_ = 0;
};

}  // namespace host
