// SPDX-License-Identifier: Apache-2.0
#include "event_log.h"

#include <utility>

#include "clock/clock.h"
#include "events/journal.h"
#include "verdict/words.h"

namespace host {

namespace {

constexpr int64_t kRepeatNs = 60 * card::kNanosecondsPerSecond;
constexpr size_t kToldAtMost = 256;

// Beside an alarm that is taken back while rules of the chip hold its flood: the rate is that of what they let through.
std::string beside(const AlarmEvent &alarm, const RuleBook &rules) {
    uint64_t stopped = 0;
    if (alarm.subject.source.type != ATC_SRC_NONE) {
        for (const Rule *rule : rules.rules_of(alarm.subject)) {
            stopped += rule->packets;
        }
    } else if (const auto of = rules.flows().find(alarm.subject.flow); of != rules.flows().end()) {
        stopped = of->second.installed > of->second.withdrawn ? of->second.stopped : 0;
    }
    return stopped == 0
               ? ""
               : "    (counts what reached the CPU; the chip has stopped " + with_commas(stopped) + " so far)\n";
}

}  // namespace

EventLog::EventLog(std::FILE *terminal, std::FILE *file, Keep keep, Taking taking)
    : terminal_(terminal), file_(file), keep_(keep), taking_(taking) {
    card::set_log_sink([this, taking](const card::LogMessage &message) {
        if (taking == Taking::kAtOnce) {
            take(message);
            return;
        }
        const std::lock_guard lock(mutex_);
        kept_.push_back({message.realtime_ns, message.level, std::string(message.text)});
    });
}

EventLog::~EventLog() {
    card::set_log_sink(nullptr);
}

void EventLog::take_kept() {
    std::vector<Event> kept;
    {
        const std::lock_guard lock(mutex_);
        kept.swap(kept_);
    }
    for (const Event &event : kept) {
        take({event.realtime_ns, event.level, event.text});
    }
}

void EventLog::take(const card::LogMessage &message) {
    const auto alarm = read_alarm(message);
    if (alarm) {
        alarms_.take(*alarm);
        if (listener_) {
            listener_(*alarm);
        }
    }
    if (journal_ != nullptr) {
        journal_->note(message, alarm);
    }
    uint64_t more = 0;
    if (alarm || !is_repeated(message, more)) {
        print(message);
    }
    if (terminal_ != nullptr && alarm && !alarm->is_raised && journal_ != nullptr) {
        std::fputs(beside(*alarm, journal_->rules()).c_str(), terminal_);
    }
    if (more > 0) {
        const std::string text = "the same " + std::to_string(more) + " more times in the minute before";
        print({message.realtime_ns, message.level, text});
    }
    if (keep_ == Keep::kEvents) {
        events_.push_back({message.realtime_ns, message.level, std::string(message.text)});
    }
}

bool EventLog::is_repeated(const card::LogMessage &message, uint64_t &more) {
    if (taking_ == Taking::kAtOnce) {
        return false;
    }
    if (told_.size() >= kToldAtMost) {
        told_.clear();
    }
    Told &told = told_[std::string(message.text)];
    if (message.realtime_ns < told.until_ns) {
        told.more++;
        return true;
    }
    more = std::exchange(told.more, 0);
    told.until_ns = message.realtime_ns + kRepeatNs;
    return false;
}

void EventLog::print(const card::LogMessage &message) {
    for (std::FILE *file : {terminal_, file_}) {
        if (file != nullptr) {
            card::print_log_line(file, message);
        }
    }
}

}  // namespace host
