// SPDX-License-Identifier: Apache-2.0
// queues.cpp: the bounded message queues of platform.h.
//
// Called by the module: senders on any thread, also with the module's mutex held; its monitor task receives. Uses the
// clock for waiting. All memory is taken when a queue is created. Lock: one mutex a queue, never held while the clock
// is called.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <vector>

#include "anti_cpu/platform.h"
#include "clock/clock.h"
#include "os/handles.h"

namespace {

using card::Clock;

constexpr uint32_t kMaxQueues = 64;
constexpr int64_t kTickNs = card::kNanosecondsPerSecond / card::kTicksPerSecond;

class Queue {
public:
    Queue(uint32_t max_messages, uint32_t message_size);

    uint32_t message_size() const { return message_size_; }
    bool has_message() const { return count_.load(std::memory_order_acquire) > 0; }
    bool has_room() const { return count_.load(std::memory_order_acquire) < max_messages_; }

    // Never wait. False when the queue is full, or empty.
    bool put(const void *message, uint32_t priority);
    bool get(void *message);

private:
    struct Entry {
        uint32_t priority;
        uint32_t slot;
    };

    const uint32_t max_messages_;
    const uint32_t message_size_;      // bytes
    std::atomic<uint32_t> count_ = 0;  // entries_.size(), written under the mutex
    std::mutex mutex_;
    std::vector<Entry> entries_;  // next one first: by priority, equal ones as they came
    std::vector<uint32_t> free_slots_;
    std::vector<std::byte> slots_;  // message_size_ bytes each
};

constinit card::HandleTable<Queue, kMaxQueues> queues;

// Tries until it succeeds, waiting for may_succeed() in between. 'timeout' in ticks, negative = without limit.
template <typename Attempt, typename MaySucceed>
bool within(int timeout, Attempt attempt, MaySucceed may_succeed);

}  // namespace

uint32_t bep_msgQCreateEx(uint32_t max_messages, uint32_t message_size, uint32_t, const char *, int) {
    if (max_messages == 0 || message_size == 0) {
        return 0;
    }
    try {
        auto queue = std::make_unique<Queue>(max_messages, message_size);
        const uint32_t handle = queues.add(queue.get());
        if (handle != 0) {
            static_cast<void>(queue.release());  // the table's now
        }
        return handle;
    } catch (const std::exception &) {  // no memory for that many messages
        return 0;
    }
}

int bep_msgQSendEx(uint32_t msgq, const void *message, uint32_t size, int timeout, uint32_t priority, const char *,
                   int) {
    Queue *queue = queues.find(msgq);
    if (queue == nullptr || message == nullptr || size != queue->message_size()) {
        return -1;
    }
    const bool taken = within(
        timeout, [&] { return queue->put(message, priority); }, [queue] { return queue->has_room(); });
    if (taken) {
        Clock::instance().notify();
    }
    return taken ? 0 : -1;
}

int bep_msgQReceiveEx(uint32_t msgq, void *message, uint32_t size, int timeout_ticks, const char *, int) {
    Queue *queue = queues.find(msgq);
    if (queue == nullptr || message == nullptr || size < queue->message_size()) {
        return -1;
    }
    const bool received = within(
        timeout_ticks, [&] { return queue->get(message); }, [queue] { return queue->has_message(); });
    if (received) {
        Clock::instance().notify();  // there is room again
    }
    return received ? static_cast<int>(queue->message_size()) : 0;
}

namespace {

template <typename Attempt, typename MaySucceed>
bool within(int timeout, Attempt attempt, MaySucceed may_succeed) {
    if (attempt()) {
        return true;
    }
    if (timeout == 0) {
        return false;
    }
    Clock &clock = Clock::instance();
    int64_t left_ns = timeout < 0 ? -1 : timeout * kTickNs;
    const int64_t end_ns = clock.monotonic_ns() + left_ns;
    while (clock.wait_for(left_ns, may_succeed)) {
        if (attempt()) {
            return true;
        }
        // Another thread was faster: for what is left of the time.
        left_ns = timeout < 0 ? -1 : std::max<int64_t>(0, end_ns - clock.monotonic_ns());
    }
    return false;
}

Queue::Queue(uint32_t max_messages, uint32_t message_size)
    : max_messages_(max_messages),
      message_size_(message_size),
      free_slots_(max_messages),
      slots_(static_cast<size_t>(max_messages) * message_size) {
    entries_.reserve(max_messages);
    for (uint32_t i = 0; i < max_messages; ++i) {
        free_slots_[i] = i;
    }
}

bool Queue::put(const void *message, uint32_t priority) {
    const std::lock_guard lock(mutex_);
    if (free_slots_.empty()) {
        return false;
    }
    const uint32_t slot = free_slots_.back();
    free_slots_.pop_back();
    std::memcpy(&slots_[static_cast<size_t>(slot) * message_size_], message, message_size_);
    auto behind = entries_.end();
    while (behind != entries_.begin() && (behind - 1)->priority < priority) {
        --behind;
    }
    entries_.insert(behind, {priority, slot});
    count_.store(static_cast<uint32_t>(entries_.size()), std::memory_order_release);
    return true;
}

bool Queue::get(void *message) {
    if (!has_message()) {  // most often, and the mutex is not for nothing
        return false;
    }
    const std::lock_guard lock(mutex_);
    if (entries_.empty()) {
        return false;
    }
    const uint32_t slot = entries_.front().slot;
    entries_.erase(entries_.begin());
    std::memcpy(message, &slots_[static_cast<size_t>(slot) * message_size_], message_size_);
    free_slots_.push_back(slot);
    count_.store(static_cast<uint32_t>(entries_.size()), std::memory_order_release);
    return true;
}

}  // namespace
