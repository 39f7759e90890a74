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
    std::atomic<uint64_t> packets{0};

    Rule(uint32_t entry, uint32_t stat, Description what)
        : entry_id(entry), stat_id(stat), description(std::move(what)) {}
    bool denies() const { return description.action == Action::kDeny; }
    uint64_t count(const RulePlane *plane) const {
        return plane != nullptr ? plane->packets(entry_id) : packets.load(std::memory_order_relaxed);
    }
    ChipRule seen(const RulePlane *plane) const {
        return {entry_id, stat_id, denies(), count(plane), description.text};
    }
};

}  // namespace

struct Chip::State {
    mutable RuleMutex mutex;  // exclusive to change the rules, shared to look at them
    RulePlane *plane = nullptr;
    size_t capacity = kDefaultCapacity;
    uint32_t next_entry_id = kFirstEntryId;
    uint32_t next_stat_id = kFirstStatId;
    std::vector<std::unique_ptr<Rule>> rules;  // in order of entry id

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
}

size_t Chip::capacity() const {
    const std::shared_lock lock(state_->mutex);
    return state_->capacity;
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
        if (!rule->denies() && is_counted) {
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
    state_->capacity = kDefaultCapacity;
    state_->next_entry_id = kFirstEntryId;
    state_->next_stat_id = kFirstStatId;
}

int Chip::install(Description description) {
    ChipChange change{
        ChipChange::Kind::kInstalled, {0, 0, description.action == Action::kDeny, 0, description.text}, nullptr};
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
    if (state_->rules.size() >= state_->capacity) {
        return kFull;
    }
    if (state_->plane != nullptr) {
        if (const int result = state_->plane->add(state_->next_entry_id, description); result != 0) {
            return result;
        }
    }
    state_->rules.push_back(
        std::make_unique<Rule>(state_->next_entry_id, state_->next_stat_id, std::move(description)));
    ++state_->next_entry_id;
    ++state_->next_stat_id;
    rule_count_.store(state_->rules.size(), std::memory_order_release);
    *seen = state_->rules.back()->seen(state_->plane);
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
        if (state_->plane != nullptr) {
            state_->plane->remove(change.rule.entry_id);
        }
        state_->rules.erase(place);
        rule_count_.store(state_->rules.size(), std::memory_order_release);
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
