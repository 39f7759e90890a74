// SPDX-License-Identifier: Apache-2.0
// chip.cpp: the chip's rules and their counters, shared by packet threads.
#include "chip/chip.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <utility>

#include "chip/description.h"
#include "chip/frame_key.h"
#include "chip/rule_plane.h"

namespace card {

namespace {

// A shared mutex whose writer does not wait for ever while packet threads come and go: std::shared_mutex lets new
// readers pass a waiting writer, and two busy packet threads would then keep every installation out.
class RuleMutex {
public:
    RuleMutex() {
        pthread_rwlockattr_t attributes;
        pthread_rwlockattr_init(&attributes);
        pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        pthread_rwlock_init(&lock_, &attributes);
        pthread_rwlockattr_destroy(&attributes);
    }
    ~RuleMutex() { pthread_rwlock_destroy(&lock_); }
    RuleMutex(const RuleMutex &) = delete;
    RuleMutex &operator=(const RuleMutex &) = delete;

    void lock() { pthread_rwlock_wrlock(&lock_); }
    void unlock() { pthread_rwlock_unlock(&lock_); }
    void lock_shared() { pthread_rwlock_rdlock(&lock_); }
    void unlock_shared() { pthread_rwlock_unlock(&lock_); }

private:
    pthread_rwlock_t lock_;
};

constexpr uint32_t kFirstEntryId = 1;
constexpr uint32_t kFirstStatId = 100001;  // so that one is not taken for the other

struct Rule {
    uint32_t entry_id;
    uint32_t stat_id;
    Description description;
    bool is_here;                      // matched by the chip itself, not by a plane
    std::atomic<uint64_t> packets{0};  // matched here

    Rule(uint32_t entry, uint32_t stat, Description what, bool here)
        : entry_id(entry), stat_id(stat), description(std::move(what)), is_here(here) {}
    bool denies() const { return description.action == Action::kDeny; }
    uint64_t count(const RulePlane *plane) const {
        return packets.load(std::memory_order_relaxed) + (is_here ? 0 : plane->packets(entry_id));
    }
    ChipRule seen(const RulePlane *plane) const {
        return {entry_id, stat_id, denies(), count(plane), is_here && plane != nullptr, description.text};
    }
};

}  // namespace

struct Chip::State {
    mutable RuleMutex mutex;  // exclusive to change the rules, shared to look at them
    RulePlane *plane = nullptr;
    size_t capacity = kDefaultCapacity;
    size_t overflow = 0;  // rules that may be matched here beside a plane
    size_t here = 0;      // rules that are matched here
    size_t most_in_chip = 0;
    uint64_t overflowed = 0;
    uint32_t next_entry_id = kFirstEntryId;
    uint32_t next_stat_id = kFirstStatId;
    std::vector<std::unique_ptr<Rule>> rules;  // in order of entry id

    size_t in_chip() const { return plane != nullptr ? rules.size() - here : rules.size(); }

    // 0 when the chip, or its plane, takes the rule.
    int take(uint32_t entry_id, const Description &description) {
        if (in_chip() >= capacity) {
            return kFull;
        }
        const int result = plane != nullptr ? plane->add(entry_id, description) : 0;
        most_in_chip = std::max(most_in_chip, in_chip() + (result == 0 ? 1 : 0));
        return result;
    }

    using Place = std::vector<std::unique_ptr<Rule>>::const_iterator;
    Place place_of(const Description &description) const {
        return std::find_if(rules.begin(), rules.end(), [&](const std::unique_ptr<Rule> &rule) {
            return rule->description.identity == description.identity;
        });
    }
};

const char *refusal_text(int code) {
    switch (code) {
        case kDuplicate:
            return "installed already";
        case kUnknown:
            return "not installed";
        case kFull:
            return "full";
        default:
            return "malformed";
    }
}

Chip &Chip::instance() {
    static Chip chip;
    return chip;
}

void Chip::set_capacity(size_t rules) {
    const std::unique_lock lock(state_->mutex);
    state_->capacity = rules;
    use_room();
}

void Chip::set_overflow(size_t rules) {
    const std::unique_lock lock(state_->mutex);
    state_->overflow = rules;
}

ChipUse Chip::use() const {
    const std::shared_lock lock(state_->mutex);
    const size_t in_chip = state_->in_chip();
    return {state_->capacity, in_chip, state_->most_in_chip, state_->rules.size() - in_chip, state_->overflowed};
}

// With the lock held exclusively: what overflows moves on as far as there is room now.
void Chip::use_room() {
    State &state = *state_;
    for (const std::unique_ptr<Rule> &rule : state.rules) {
        if (state.plane == nullptr || state.here == 0) {
            break;
        }
        if (rule->is_here && state.take(rule->entry_id, rule->description) == 0) {
            rule->is_here = false;
            state.here--;
        }
    }
    rule_count_.store(state.here, std::memory_order_release);
}

void Chip::set_plane(RulePlane *plane) {
    const std::unique_lock lock(state_->mutex);
    state_->plane = plane;
}

void Chip::set_observer(std::function<void(const ChipChange &)> observer) {
    observer_ = std::move(observer);
}

void Chip::tell(const ChipChange &change) const noexcept {
    if (observer_) {
        observer_(change);
    }
}

uint32_t Chip::match_deny(const uint8_t *frame, uint32_t len, uint32_t port, uint32_t vlan) {
    const KeyBits key = frame_key(frame, len, vlan);
    const std::shared_lock lock(state_->mutex);
    bool is_counted = false;
    for (const std::unique_ptr<Rule> &rule : state_->rules) {
        if (!rule->is_here || (!rule->denies() && is_counted)) {
            continue;
        }
        if (rule->description.pattern.matches(key) && rule->description.covers_port(port)) {
            rule->packets.fetch_add(1, std::memory_order_relaxed);
            if (rule->denies()) {
                return rule->entry_id;
            }
            is_counted = true;
        }
    }
    return 0;
}

std::vector<ChipRule> Chip::rules() const {
    const std::shared_lock lock(state_->mutex);
    std::vector<ChipRule> result;
    result.reserve(state_->rules.size());
    for (const std::unique_ptr<Rule> &rule : state_->rules) {
        result.push_back(rule->seen(state_->plane));
    }
    return result;
}

void Chip::reset() {
    const std::unique_lock lock(state_->mutex);
    rule_count_.store(0, std::memory_order_release);
    state_->rules.clear();
    state_->here = 0;
    state_->most_in_chip = 0;
    state_->overflow = 0;
    state_->overflowed = 0;
    state_->capacity = kDefaultCapacity;
    state_->next_entry_id = kFirstEntryId;
    state_->next_stat_id = kFirstStatId;
}

int Chip::install(Description description) {
    ChipChange change{
        ChipChange::Kind::kInstalled, {0, 0, description.action == Action::kDeny, 0, false, description.text}, nullptr};
    const int result = add(std::move(description), &change.rule);
    if (result != 0) {
        change.kind = ChipChange::Kind::kRefused;
        change.reason = refusal_text(result);
    }
    tell(change);
    return result;
}

int Chip::add(Description description, ChipRule *seen) {
    const std::unique_lock lock(state_->mutex);
    if (state_->place_of(description) != state_->rules.end()) {
        return kDuplicate;
    }
    State &state = *state_;
    const int result = state.take(state.next_entry_id, description);
    const bool overflows = result == kFull && state.plane != nullptr && state.here < state.overflow;
    if (result != 0 && !overflows) {
        return result;
    }
    const bool is_here = overflows || state.plane == nullptr;
    state.rules.push_back(
        std::make_unique<Rule>(state.next_entry_id, state.next_stat_id, std::move(description), is_here));
    ++state.next_entry_id;
    ++state.next_stat_id;
    state.here += is_here ? 1 : 0;
    state.overflowed += overflows ? 1 : 0;
    rule_count_.store(state.here, std::memory_order_release);
    *seen = state.rules.back()->seen(state.plane);
    return 0;
}

int Chip::remove(const Description &description) {
    ChipChange change{ChipChange::Kind::kRemoved, {}, nullptr};
    {
        const std::unique_lock lock(state_->mutex);
        const State::Place place = state_->place_of(description);
        if (place == state_->rules.end()) {
            return kUnknown;
        }
        change.rule = (*place)->seen(state_->plane);
        if ((*place)->is_here) {
            state_->here--;
        } else {
            state_->plane->remove(change.rule.entry_id);
        }
        state_->rules.erase(place);
        use_room();
    }
    tell(change);
    return 0;
}

int Chip::find(const Description &description, uint32_t *entry_id, uint32_t *stat_id) const {
    const std::shared_lock lock(state_->mutex);
    const State::Place place = state_->place_of(description);
    if (place == state_->rules.end()) {
        return kUnknown;
    }
    *entry_id = (*place)->entry_id;
    *stat_id = (*place)->stat_id;
    return 0;
}

int Chip::count(uint32_t stat_id, uint64_t *packets) const {
    const std::shared_lock lock(state_->mutex);
    const auto at = std::ranges::lower_bound(state_->rules, stat_id, {}, &Rule::stat_id);  // given out with entry ids
    if (at == state_->rules.end() || (*at)->stat_id != stat_id) {
        return kUnknown;
    }
    *packets = (*at)->count(state_->plane);
    return 0;
}

Chip::Chip() : state_(std::make_unique<State>()) {}

Chip::~Chip() = default;

}  // namespace card
