// SPDX-License-Identifier: Apache-2.0
// chip.h: the switching chip of a card that has none: rules of the driver interface, matched in software.
//
// Owns every rule that came in through hw_driver_* and its counter. The process shows it each received frame before the
// module sees it; a frame that a deny rule matches goes no further. A rule is known by its whole description (match
// list, operation list and ports; not the kind, which only says what is asked for), so the same bytes remove what they
// installed. Frames are decoded here, by the standards and not by the module's parser, so that each checks the other.
// Used by: the host (denies, rules, set_capacity) and, through hw_driver_*, the module. Uses: frame_key, description,
// and ulogPrintf for the reason of every refusal.
// Threads: any; packet threads share the rules, an installation or removal excludes them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace card {

struct Description;
class RulePlane;

// Results of hw_driver_* beside 0.
enum ChipRefusal : int {
    kMalformed = -1,  // a buffer that is none
    kDuplicate = -2,  // this description is installed already
    kUnknown = -3,    // this description, or this statistics id, is not installed
    kFull = -4,       // no room
};

// One installed rule, as it was when it was asked for.
struct ChipRule {
    uint32_t entry_id;        // from 1 upwards, given out once
    uint32_t stat_id;         // given out once; another number than entry_id
    bool denies;              // true: stops what it matches (operation 100); false: counts only
    uint64_t packets;         // frames matched since installation
    bool is_in_software;      // a plane had no room for it
    std::string description;  // "deny ports 3 vlan 100 eth-type 0x0806", "count(101) ports 3,4 src-ip 10.0.0.0/8"
};

// What became of a rule.
struct ChipChange {
    enum class Kind {
        kInstalled,
        kRefused,
        kRemoved
    };
    Kind kind;
    ChipRule rule;       // a refused one has the entry id 0
    const char *reason;  // of a refusal; text that lives for ever
};

// How full the chip is.
struct ChipUse {
    size_t capacity;      // rules
    size_t in_chip;       // those that are there
    size_t most_in_chip;  // at once, since the start
    size_t in_software;   // those that found no room
    uint64_t overflowed;  // how many ever did
};

// "full"
const char *refusal_text(int code);

class Chip {
public:
    static constexpr size_t kDefaultCapacity = 1024;  // rules

    // The chip behind hw_driver_*.
    static Chip &instance();

    // How many rules fit from now on; more that are there already stay. 0 refuses every installation.
    void set_capacity(size_t rules);
    // Beside a plane: how many more there may be, which denies() matches because neither capacity nor plane has room
    // for them. They move on, oldest first, as soon as there is some. At first 0.
    void set_overflow(size_t rules);
    ChipUse use() const;

    // Entry id of the deny rule that stops the frame of 'len' bytes, which came in on 'port' and was put into 'vlan'
    // there (its own outermost tag goes first); 0 when none does. Counts it at the first deny rule and at the first
    // counting rule that match, in order of entry id. Without rules: one load. 'frame' may be null with 'len' 0.
    uint32_t denied_by(const uint8_t *frame, uint32_t len, uint32_t port, uint32_t vlan) {
        return rule_count_.load(std::memory_order_acquire) != 0 ? match_deny(frame, len, port, vlan) : 0;
    }
    bool denies(const uint8_t *frame, uint32_t len, uint32_t port, uint32_t vlan) {
        return denied_by(frame, len, port, vlan) != 0;
    }

    // From now on 'plane', which outlives the chip's use, matches frames in place of denies(), which is left with what
    // overflows; null: as at first. While there are no rules.
    void set_plane(RulePlane *plane);

    // Tells of every installation, removal and refused installation behind it, in the thread that asked for it (the
    // module's, with its mutex held); the chip may be asked meanwhile. An empty function ends that. Before packets.
    void set_observer(std::function<void(const ChipChange &)> observer);

    // Every rule, in order of entry id.
    std::vector<ChipRule> rules() const;

    // Forgets all rules and counters, starts ids afresh, and goes back to the default capacity and no overflow. Without
    // a plane only.
    void reset();

    // What hw_driver_* ask for, with a description that has been checked. They return 0 or a refusal.
    int install(Description description);
    int remove(const Description &description);
    int find(const Description &description, uint32_t *entry_id, uint32_t *stat_id) const;
    int count(uint32_t stat_id, uint64_t *packets) const;

    Chip();
    ~Chip();
    Chip(const Chip &) = delete;
    Chip &operator=(const Chip &) = delete;

private:
    uint32_t match_deny(const uint8_t *frame, uint32_t len, uint32_t port, uint32_t vlan);
    int add(Description description, ChipRule *seen);
    void use_room();
    void tell(const ChipChange &change) const noexcept;

    struct State;
    std::unique_ptr<State> state_;
    std::atomic<size_t> rule_count_{0};  // of those that are matched here
    std::function<void(const ChipChange &)> observer_;
};

}  // namespace card
