// SPDX-License-Identifier: Apache-2.0
// kernel_rules.h: the chip's rules as the kernel's program searches them.
//
// Rules are grouped by their mask: one slot a mask, in which a frame's bits under that mask are looked up. A rule has
// an entry for each of its ports; where several rules come to the same entry it names the oldest that denies and the
// oldest that counts, which is what the software chip's walk comes to. Every write is one that packets may see. Used
// by: guard (owns it), chip (as its plane). Uses: the maps of the program, by their descriptors. Threads: as
// rule_plane.h says.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "chip/kernel/mask_slots.h"
#include "chip/kernel/record.h"
#include "chip/rule_plane.h"

namespace card {

class KernelRules : public RulePlane {
public:
    // Descriptors of maps and memory shared with the program; they outlive this.
    struct Tables {
        int rules;    // kernel_rule_key -> kernel_rule
        int matched;  // one counter for each processor
        MaskSlots::Shared slots;
    };
    explicit KernelRules(const Tables &tables);

    int add(uint32_t entry_id, const Description &description) override;
    void remove(uint32_t entry_id) override;
    uint64_t packets(uint32_t entry_id) const override;

private:
    struct Rule {
        kernel_rule_key key;  // but for the port
        std::vector<uint16_t> ports;
        uint32_t counter;
        bool denies;
    };
    // The rules of one entry, by entry id.
    using Entry = std::map<uint32_t, const Rule *>;

    bool join(uint32_t entry_id, const Rule &rule, uint16_t port);
    void leave(uint32_t entry_id, const Rule &rule, uint16_t port);
    bool write(const kernel_rule_key &key, const Entry &entry) const;
    void write_counter(uint32_t counter, uint64_t value) const;

    Tables tables_;
    MaskSlots slots_;
    unsigned processors_;
    std::vector<uint32_t> free_counters_;
    std::map<uint32_t, Rule> rules_;
    std::map<kernel_rule_key, Entry, RuleKeyLess> entries_;
};

}  // namespace card
