// fake_platform.cpp: the books of the fake card; see fake_platform.h.
#include "fake_platform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

void violation(const std::string &what) {
    ADD_FAILURE() << "platform: " << what;
}

Bytes bytes(const void *data, size_t size) {
    const auto *begin = static_cast<const uint8_t *>(data);
    return Bytes(begin, begin + size);
}

uint16_t word_at(const Bytes &data, size_t offset) {
    uint16_t word = 0;
    if (offset + sizeof(word) <= data.size()) {
        std::memcpy(&word, data.data() + offset, sizeof(word));
    }
    return word;
}

// The used length of an operation list by its own counts; 0 when they lead outside.
size_t op_list_size(const Bytes &op) {
    size_t size = 2;
    for (uint32_t i = 0; i < word_at(op, 0); ++i) {
        if (size + 4 > op.size()) {
            return 0;
        }
        size += 4 + 18 * size_t{word_at(op, size + 2)};
    }
    return size;
}

template <typename rules_t>
auto with_stat_id(rules_t &rules, uint32_t stat_id) {
    return std::ranges::find(rules, stat_id, [](const auto &rule) { return rule.second.stat_id; });
}

}  // namespace

std::atomic<bool> FakePlatform::clock_owned{false};

FakePlatform &fake() {
    static FakePlatform platform;
    return platform;
}

void FakePlatform::reset() {
    if (mutex_held()) {
        give();
    }
    std::lock_guard<std::mutex> lock(guard_);
    monotonic_ns_ = 1000 * ns_per_second + 250'000'000;
    realtime_ns_ = 1'630'554'380 * ns_per_second;
    plans_ = {};
    calls_ = {};
    failed_ = {};
    live_.clear();
    queue_.clear();
    log_.clear();
    rules_.clear();
    next_rule_ = 0;
    ports_.clear();
    static_cast<CardData &>(*this) = {};
    clock_owned = true;
}

void FakePlatform::advance_ns(int64_t nanoseconds) {
    std::lock_guard<std::mutex> lock(guard_);
    monotonic_ns_ += nanoseconds;
    realtime_ns_ += nanoseconds;
}

std::optional<Bytes> FakePlatform::take_message() {
    std::lock_guard<std::mutex> lock(guard_);
    if (queue_.empty()) {
        return std::nullopt;
    }
    Bytes message = std::move(queue_.front());
    queue_.pop_front();
    return message;
}

std::vector<ChipRule> FakePlatform::chip() {
    std::lock_guard<std::mutex> lock(guard_);
    std::vector<ChipRule> rules;
    for (const auto &[key, rule] : rules_) {
        rules.push_back(rule);
    }
    std::ranges::sort(rules, {}, &ChipRule::entry_id);
    return rules;
}

void FakePlatform::set_packets(uint32_t stat_id, uint64_t packets) {
    std::lock_guard<std::mutex> lock(guard_);
    auto found = with_stat_id(rules_, stat_id);
    ASSERT_TRUE(found != rules_.end()) << "no rule in the chip with stat id " << stat_id;
    found->second.packets = packets;
}

void FakePlatform::map_port(uint32_t port, uint32_t slot, uint32_t slot_port) {
    std::lock_guard<std::mutex> lock(guard_);
    ports_[port] = std::pair{slot, slot_port};
}

void FakePlatform::unmap_port(uint32_t port) {
    std::lock_guard<std::mutex> lock(guard_);
    ports_[port] = std::nullopt;
}

bool FakePlatform::enter(Call kind) {
    std::lock_guard<std::mutex> lock(guard_);
    auto index = static_cast<size_t>(kind);
    ++calls_[index];
    Plan &plan = plans_[index];
    if (plan.in == 0 || --plan.in > 0) {
        return false;
    }
    plan.in = plan.from_then_on ? 1 : 0;
    ++plan.hits;
    ++failed_[index];
    return true;
}

void *FakePlatform::allocate(size_t size, int fill) {
    void *ptr = std::malloc(size > 0 ? size : 1);
    if (ptr != nullptr) {
        std::memset(ptr, fill, size);
        std::lock_guard<std::mutex> lock(guard_);
        live_.insert(ptr);
    }
    return ptr;
}

void FakePlatform::release(void *ptr) {
    {
        std::lock_guard<std::mutex> lock(guard_);
        if (ptr == nullptr || live_.erase(ptr) == 1) {
            std::free(ptr);
            return;
        }
    }
    violation("freed twice, or never allocated");
}

int FakePlatform::take() {
    if (mutex_held()) {
        violation("mutex taken twice by one thread");
        return -1;
    }
    sem_.lock();
    std::lock_guard<std::mutex> lock(guard_);
    owner_ = std::this_thread::get_id();
    return 0;
}

int FakePlatform::give() {
    if (!mutex_held()) {
        violation("mutex given by a thread that has not taken it");
        return -1;
    }
    {
        std::lock_guard<std::mutex> lock(guard_);
        owner_ = {};
    }
    sem_.unlock();
    return 0;
}

int FakePlatform::send(const void *message, uint32_t size, int timeout, uint32_t priority) {
    std::lock_guard<std::mutex> lock(guard_);
    sent_as.push_back({static_cast<uint32_t>(timeout), priority});
    if (queues.empty() || size != queues.back()[1]) {
        violation("a message of " + std::to_string(size) + " bytes does not fit the queue");
        return -1;
    }
    if (queue_.size() >= queue_capacity) {
        return -1;
    }
    queue_.push_back(bytes(message, size));
    return 0;
}

int FakePlatform::receive(void *message, uint32_t size, int timeout) {
    std::lock_guard<std::mutex> lock(guard_);
    receive_timeout = timeout;
    if (queue_.empty()) {
        return 0;
    }
    if (size != queue_.front().size()) {
        violation("a message is received into " + std::to_string(size) + " bytes");
        return -1;
    }
    std::memcpy(message, queue_.front().data(), size);
    queue_.pop_front();
    return static_cast<int>(size);
}

int FakePlatform::upload(Upload file) {
    std::lock_guard<std::mutex> lock(guard_);
    if (upload_result == 0) {
        uploads.push_back(std::move(file));
    }
    return upload_result;
}

void FakePlatform::add_log(uint32_t mod_id, uint32_t level, std::string text) {
    std::lock_guard<std::mutex> lock(guard_);
    log_.push_back({mod_id, level, std::move(text)});
}

FakePlatform::ChipKey FakePlatform::chip_key(uint16_t kind, const void *match, uint32_t match_len, const void *op,
                                             uint32_t op_len, const void *port, uint32_t port_len) {
    ChipKey key{bytes(match, match_len), bytes(op, op_len), bytes(port, port_len)};
    auto &[match_list, op_list, port_list] = key;
    EXPECT_EQ(match_list.size(), 2 + 88 * size_t{word_at(match_list, 0)}) << "match list";
    EXPECT_EQ(op_list.size(), op_list_size(op_list)) << "operation list";
    EXPECT_EQ(port_list.size(), 4 + 2 * size_t{word_at(port_list, 2)}) << "port list";
    EXPECT_EQ(word_at(port_list, 0), kind) << "kind of the port list";
    if (port_list.size() >= 2) {
        port_list.erase(port_list.begin(), port_list.begin() + 2);
    }
    return key;
}

int FakePlatform::chip_set(const void *match, uint32_t match_len, const void *op, uint32_t op_len, const void *port,
                           uint32_t port_len) {
    ChipKey key = chip_key(1, match, match_len, op, op_len, port, port_len);
    std::lock_guard<std::mutex> lock(guard_);
    if (chip_set_result < 0) {
        return chip_set_result;
    }
    ChipRule rule{first_entry_id + next_rule_, first_stat_id + next_rule_, bytes(match, match_len),
                  bytes(op, op_len),           bytes(port, port_len),      0};
    if (!rules_.emplace(std::move(key), std::move(rule)).second) {
        return -1;
    }
    ++next_rule_;
    return chip_set_result;
}

int FakePlatform::chip_delete(const void *match, uint32_t match_len, const void *op, uint32_t op_len, const void *port,
                              uint32_t port_len) {
    ChipKey key = chip_key(0, match, match_len, op, op_len, port, port_len);
    std::lock_guard<std::mutex> lock(guard_);
    return rules_.erase(key) == 1 ? 0 : -1;
}

std::optional<ChipRule> FakePlatform::chip_lookup(const void *match, uint32_t match_len, const void *op,
                                                  uint32_t op_len, const void *port, uint32_t port_len) {
    ChipKey key = chip_key(1, match, match_len, op, op_len, port, port_len);
    std::lock_guard<std::mutex> lock(guard_);
    auto found = rules_.find(key);
    return found == rules_.end() ? std::nullopt : std::optional<ChipRule>(found->second);
}

std::optional<uint64_t> FakePlatform::packets(uint32_t stat_id) {
    std::lock_guard<std::mutex> lock(guard_);
    auto found = with_stat_id(rules_, stat_id);
    return found == rules_.end() ? std::nullopt : std::optional<uint64_t>(found->second.packets);
}

std::optional<std::pair<uint32_t, uint32_t>> FakePlatform::slot_port(uint32_t port) {
    std::lock_guard<std::mutex> lock(guard_);
    auto found = ports_.find(port);
    return found == ports_.end() ? std::pair{port / 64 + 1, port % 64} : found->second;
}
