// SPDX-License-Identifier: Apache-2.0
#include "events/line_queue.h"

#include <utility>

namespace host {

namespace {

constexpr auto kAgain = std::chrono::milliseconds(500);  // until what was not taken is tried again

}  // namespace

LineQueue::LineQueue(Write write, Gap gap, size_t bytes_at_most)
    : write_(std::move(write)), gap_(std::move(gap)), bytes_at_most_(bytes_at_most), thread_([this] { run(); }) {}

LineQueue::~LineQueue() {
    close(std::chrono::milliseconds(0));
}

void LineQueue::add(std::string line) {
    const std::lock_guard lock(mutex_);
    if (is_closing_ || bytes_ + line.size() > bytes_at_most_) {
        lost_behind_++;
        lost_++;
        return;
    }
    bytes_ += line.size();
    lines_.push_back({std::move(line), std::exchange(lost_behind_, 0)});
    news_.notify_all();
}

void LineQueue::close(std::chrono::milliseconds patience) {
    if (!thread_.joinable()) {
        return;
    }
    {
        std::unique_lock lock(mutex_);
        is_closing_ = true;
        news_.notify_all();
        news_.wait_for(lock, patience, [this] { return lines_.empty() && lost_before_ + lost_behind_ == 0; });
        is_given_up_ = true;
        news_.notify_all();
    }
    thread_.join();
    const std::lock_guard lock(mutex_);
    lost_ += lines_.size();
    lines_.clear();
}

LineCounts LineQueue::counts() const {
    const std::lock_guard lock(mutex_);
    return {written_, lines_.size(), lost_};
}

void LineQueue::run() {
    std::unique_lock lock(mutex_);
    while (!is_given_up_) {
        if (lines_.empty() && lost_behind_ > 0) {
            lost_before_ += std::exchange(lost_behind_, 0);
        }
        if (lost_before_ > 0 || (!lines_.empty() && lines_.front().lost_before > 0)) {
            write_gap(lock);
        } else if (!lines_.empty()) {
            write_first(lock);
        } else {
            news_.wait(lock);
        }
    }
}

bool LineQueue::write(const std::string &text) {
    return write_(text, [this] {
        const std::lock_guard lock(mutex_);
        return !is_given_up_;
    });
}

// The line keeps its place and its bytes until it is written, so that nothing else takes its room.
void LineQueue::write_first(std::unique_lock<std::mutex> &lock) {
    const std::string &text = lines_.front().text;
    lock.unlock();
    const bool is_taken = write(text);
    lock.lock();
    if (!is_taken && is_given_up_) {
        return;  // close() counts it
    }
    (is_taken ? written_ : lost_)++;
    lost_before_ += is_taken ? 0 : 1;
    bytes_ -= text.size();
    lines_.pop_front();
    news_.notify_all();
}

void LineQueue::write_gap(std::unique_lock<std::mutex> &lock) {
    if (!lines_.empty()) {
        lost_before_ += std::exchange(lines_.front().lost_before, 0);
    }
    const uint64_t lost = lost_before_;
    lock.unlock();
    const bool is_taken = write(gap_(lost));
    lock.lock();
    if (is_taken) {
        lost_before_ -= lost;
        news_.notify_all();
    } else {
        news_.wait_for(lock, kAgain, [this] { return is_given_up_; });
    }
}

}  // namespace host
