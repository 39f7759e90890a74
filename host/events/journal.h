// SPDX-License-Identifier: Apache-2.0
// journal.h: what happens while packets are replayed, in its order, as data: alarms, rules, captures, memory.
//
// The card and the module tell of it while they hold their locks: it is noted there, with its time, and settled by the
// driving thread behind the packet or the step of time in which it happened, when the module can be asked again.
// Used by: event_log, replay (settles), event_file and syslog (readers). Uses: rule_book, figures, the card.
// Threads: notes from any, one at a time or not; all else from the driving one. Lock: one around the notes.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "alarm_book.h"
#include "events/rule_book.h"
#include "os/os.h"
#include "services/services.h"

namespace host {

// An alarm with what the module and the chip say of its flow or source when it is read.
struct AlarmEntry {
    AlarmEvent alarm;
    uint32_t period_s = 0;                             // that the rate is of
    uint32_t peak_pps = 0;                             // the greatest of a period so far
    std::vector<std::pair<uint32_t, uint32_t>> rules;  // entry and statistics ids
    std::string capture;                               // name of the file that the module holds; empty = none
};

struct CaptureEntry {
    enum class Kind {
        kBegun,
        kFull,
        kWritten,
        kUploaded,
        kUploadFailed
    };
    Kind kind;
    std::optional<Subject> subject;  // of the first two
    std::string file;                // its name; of a written one, its path
    uint64_t bytes = 0;              // of the last three
    std::string server;              // of the last two
};

// Of files, whether anybody reads the journal or not.
struct CaptureTotals {
    uint64_t full = 0;
    uint64_t written = 0;
    uint64_t written_bytes = 0;
    uint64_t uploaded = 0;
    uint64_t upload_failed = 0;
};

// Memory that the budget forbade.
struct MemoryEntry {
    uint64_t refused;  // blocks so far
    uint64_t bytes;    // in use
    uint64_t budget;   // bytes
};

// Entries that a reader was too slow for.
struct LostEntry {
    uint64_t lost;
};

// What befalls the protection of a live card.
struct GuardEntry {
    enum class Kind {
        kPortProtected,
        kPortLost,        // not protected any more
        kCopiesLost,      // packets that the module has not seen
        kRulesOverflow,   // chip rules without room there, which are software denies instead
        kDeniesRefused,   // software denies without room in the kernel
        kFiltersRefused,  // likewise the operator's rules
        kLate             // the process did not show itself, so packets passed
    };
    Kind kind;
    uint32_t port = 0;  // of the first two
    std::string interface;
    std::string reason;  // of a lost port
    uint64_t count = 0;  // of the last five; seconds of the last
};

struct JournalEntry {
    int64_t realtime_ns;
    std::variant<AlarmEntry, RuleEvent, CaptureEntry, MemoryEntry, LostEntry, GuardEntry> what;
};

// Of now: so many are missing here.
JournalEntry lost_entry(uint64_t lost);

class Journal {
public:
    // 'alarms' says where captures may record.
    explicit Journal(const AlarmBook &alarms);
    ~Journal();
    Journal(const Journal &) = delete;
    Journal &operator=(const Journal &) = delete;

    // Called for each entry, in settle. Without readers, only the rules are followed. Before packets.
    using Reader = std::function<void(const JournalEntry &)>;
    void add_reader(Reader reader) { readers_.push_back(std::move(reader)); }

    // What the module has logged, and what has been read from it.
    void note(const card::LogMessage &message, const std::optional<AlarmEvent> &alarm);
    // A capture file has come into the folder.
    void note_written(const std::string &path, uint64_t bytes);
    void note(GuardEntry entry) { add(std::move(entry)); }

    // Two loads.
    bool has_news() const {
        return has_notes_.load(std::memory_order_relaxed) ||
               (!readers_.empty() && card::large_blocks_made() != large_blocks_seen_);
    }
    // 'cause': the packet that the module has just been handed; null when time has passed, or an operator acted.
    void settle(const Subject *cause);

    // The lengths of the module's periods, in seconds.
    void set_period(AlarmEvent::Period period, uint32_t seconds) {
        (period == AlarmEvent::Period::kFast ? fast_s_ : long_s_) = seconds;
    }

    const CaptureTotals &captures() const { return captures_; }
    RuleBook &rules() { return rules_; }
    const RuleBook &rules() const { return rules_; }

private:
    using What = std::variant<AlarmEvent, card::ChipChange, CaptureEntry, MemoryEntry, GuardEntry>;
    struct Note {
        int64_t realtime_ns;
        What what;
    };
    void add(What what);
    void read(int64_t realtime_ns, const AlarmEvent &alarm);
    void read(int64_t realtime_ns, const card::ChipChange &change);
    void read(int64_t realtime_ns, const CaptureEntry &capture);
    void read(int64_t realtime_ns, const MemoryEntry &memory) { tell({realtime_ns, memory}); }
    void read(int64_t realtime_ns, const GuardEntry &guard) { tell({realtime_ns, guard}); }
    void find_begun_captures();
    void follow_capture(int64_t realtime_ns, const Subject &subject, bool records);
    void tell(const JournalEntry &entry) const;

    const AlarmBook &alarms_;
    uint32_t fast_s_ = 300;
    uint32_t long_s_ = 3600;
    std::mutex mutex_;
    std::vector<Note> notes_;
    std::atomic<bool> has_notes_ = false;
    std::vector<Reader> readers_;
    const Subject *cause_ = nullptr;  // while notes are read
    RuleBook rules_;
    CaptureTotals captures_;
    std::set<Subject> recording_;  // whose captures have begun and not ended
    uint64_t large_blocks_seen_ = 0;
};

}  // namespace host
