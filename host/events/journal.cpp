// SPDX-License-Identifier: Apache-2.0
#include "events/journal.h"

#include <utility>

#include "clock/clock.h"
#include "figures.h"
#include "module_captures.h"
#include "transfer/transfer.h"

namespace host {

namespace {

// Of its automatic capture.
std::string file_of(const Subject &subject) {
    return capture_name({ATC_DIRECTION_RX, subject});
}

}  // namespace

JournalEntry lost_entry(uint64_t lost) {
    return {card::Clock::instance().realtime_ns(), LostEntry{lost}};
}

Journal::Journal(const AlarmBook &alarms) : alarms_(alarms) {
    card::Chip::instance().set_observer([this](const card::ChipChange &change) { add(change); });
    card::set_transfer_observer([this](const card::TransferResult &result) {
        add(CaptureEntry{result.arrived ? CaptureEntry::Kind::kUploaded : CaptureEntry::Kind::kUploadFailed,
                         {},
                         result.file,
                         result.bytes,
                         result.server});
    });
}

Journal::~Journal() {
    card::Chip::instance().set_observer({});
    card::set_transfer_observer({});
}

void Journal::note(const card::LogMessage &message, const std::optional<AlarmEvent> &alarm) {
    if (alarm) {
        if (!readers_.empty()) {
            add(*alarm);
        }
    } else if (const auto subject = read_full_capture(message)) {
        add(CaptureEntry{CaptureEntry::Kind::kFull, subject, file_of(*subject), 0, {}});
    } else if (readers_.empty()) {
        return;
    } else if (tells_of_refused_memory(message)) {
        const card::MemoryUse use = card::memory_use();
        add(MemoryEntry{use.refused, use.bytes, use.budget});
    }
}

void Journal::note_written(const std::string &path, uint64_t bytes) {
    add(CaptureEntry{CaptureEntry::Kind::kWritten, {}, path, bytes, {}});
}

void Journal::add(What what) {
    const std::lock_guard lock(mutex_);
    notes_.push_back({card::Clock::instance().realtime_ns(), std::move(what)});
    has_notes_.store(true, std::memory_order_relaxed);
}

void Journal::settle(const Subject *cause) {
    std::vector<Note> notes;
    {
        const std::lock_guard lock(mutex_);
        notes.swap(notes_);
        has_notes_.store(false, std::memory_order_relaxed);
    }
    cause_ = cause;
    for (const Note &note : notes) {
        std::visit([this, &note](const auto &what) { read(note.realtime_ns, what); }, note.what);
    }
    rules_.end_of_changes();
    find_begun_captures();
}

void Journal::read(int64_t realtime_ns, const AlarmEvent &alarm) {
    const card::SleeplessScope now;
    const bool is_fast = alarm.period == AlarmEvent::Period::kFast;
    AlarmEntry entry{alarm, is_fast ? fast_s_ : long_s_, 0, {}, {}};
    Figures figures;
    if (flow_figures(ATC_DIRECTION_RX, alarm.subject, figures)) {
        entry.peak_pps = (is_fast ? figures.fast : figures.slow).peak_pps;
        if (figures.cap_len > 0) {
            entry.capture = file_of(alarm.subject);
        }
    }
    for (const Rule *rule : rules_.rules_of(alarm.subject)) {
        entry.rules.emplace_back(rule->entry_id, rule->stat_id);
    }
    tell({realtime_ns, std::move(entry)});
    follow_capture(realtime_ns, alarm.subject, figures.cap_on == 1);
}

void Journal::read(int64_t realtime_ns, const card::ChipChange &change) {
    if (auto event = rules_.take(change, realtime_ns, cause_)) {
        tell({realtime_ns, std::move(*event)});
    }
}

void Journal::read(int64_t realtime_ns, const CaptureEntry &capture) {
    captures_.full += capture.kind == CaptureEntry::Kind::kFull ? 1 : 0;
    captures_.uploaded += capture.kind == CaptureEntry::Kind::kUploaded ? 1 : 0;
    captures_.upload_failed += capture.kind == CaptureEntry::Kind::kUploadFailed ? 1 : 0;
    if (capture.kind == CaptureEntry::Kind::kWritten) {
        captures_.written++;
        captures_.written_bytes += capture.bytes;
    }
    tell({realtime_ns, capture});
    if (capture.subject) {
        recording_.erase(*capture.subject);
    }
}

// A capture begins at the end of a fast period, where an alarm is raised or stands already; it takes a large block.
void Journal::find_begun_captures() {
    if (readers_.empty() || card::large_blocks_made() == large_blocks_seen_) {
        return;
    }
    large_blocks_seen_ = card::large_blocks_made();
    const card::SleeplessScope now;
    for (const auto &[subject, alarm] : alarms_.standing(AlarmEvent::Period::kFast)) {
        Figures figures;
        const bool is_known = flow_figures(ATC_DIRECTION_RX, subject, figures);
        follow_capture(card::Clock::instance().realtime_ns(), subject, is_known && figures.cap_on == 1);
    }
}

void Journal::follow_capture(int64_t realtime_ns, const Subject &subject, bool records) {
    if (!records) {
        recording_.erase(subject);
    } else if (recording_.insert(subject).second) {
        tell({realtime_ns, CaptureEntry{CaptureEntry::Kind::kBegun, subject, file_of(subject), 0, {}}});
    }
}

void Journal::tell(const JournalEntry &entry) const {
    for (const Reader &reader : readers_) {
        reader(entry);
    }
}

}  // namespace host
