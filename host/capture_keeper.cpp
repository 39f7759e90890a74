// SPDX-License-Identifier: Apache-2.0
#include "capture_keeper.h"

#include "anti_cpu/anti_cpu.h"
#include "clock/clock.h"
#include "os/os.h"

namespace host {

CaptureKeeper::CaptureKeeper(const Run &run, CapturesFolder &folder) : run_(run), folder_(folder) {
    if (folder_.is_open()) {
        card::Clock::instance().set_before_drive([this] { look(); });
    }
}

CaptureKeeper::~CaptureKeeper() {
    card::Clock::instance().set_before_drive(nullptr);
}

void CaptureKeeper::look() {
    const bool may_be_new = card::large_blocks_made() != large_blocks_seen_;
    if (!folder_.is_open() || (!may_be_new && run_.packets() == packets_seen_)) {
        return;
    }
    const card::BudgetScope no_budget_for_copies(false);
    for (auto &[key, content] : held_) {
        if (may_be_new || capture_bytes(key) != content.size()) {
            update(key, content);
        }
    }
    std::erase_if(held_, [](const auto &held) { return held.second.empty(); });
    if (may_be_new) {
        find_new();
    }
    large_blocks_seen_ = card::large_blocks_made();
    packets_seen_ = run_.packets();
}

void CaptureKeeper::write_all() {
    look();
    for (const auto &[key, content] : held_) {
        folder_.write(capture_name(key), content);
    }
    held_.clear();
}

// Leaves the content empty when the module has let go of the capture and holds no other.
void CaptureKeeper::update(const CaptureKey &key, std::string &content) {
    std::optional<std::string> now = capture_content(key);
    if (!now || !now->starts_with(content)) {
        folder_.write(capture_name(key), content);
    }
    content = std::move(now).value_or("");
}

void CaptureKeeper::find_new() {
    const auto take = [this](const CaptureKey &key) {
        if (!held_.contains(key) && capture_bytes(key) > 0) {
            held_[key] = capture_content(key).value_or("");
        }
    };
    if (atc_api_get_cap_is_exist() == 1) {
        take({});
    }
    for (const auto &[subject, alarm] : run_.alarms().standing(AlarmEvent::Period::kFast)) {
        take({ATC_DIRECTION_RX, subject});
    }
}

}  // namespace host
