// SPDX-License-Identifier: Apache-2.0
// event_log.h: what the module logs, as the host shows it: on the terminal, in a file, as data.
//
// The card calls it with the module's mutex held, from the packet's or the monitor task's thread, one call at a time:
// it prints and remembers, nothing else. Everything that the host prints goes through stdio, as the module's own dumps
// and traces do, so that lines stay in order. Used by: replay (alarm stop), main, report (events as data). Uses:
// alarm_book, services.h.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "alarm_book.h"
#include "services/services.h"

namespace host {

class Journal;

struct Event {
    int64_t realtime_ns;
    uint32_t level;
    std::string text;
};

class EventLog {
public:
    enum class Keep {
        kNothing,
        kEvents
    };

    // Who takes messages.
    enum class Taking {
        kAtOnce,  // whoever logs
        kLater,  // take_kept: where others log while the driving thread reads what has been taken. A line that a packet
                 // brings again and again (a chip without room refuses a rule a packet) is told once a minute.
    };

    // Takes the card's log. Lines go to 'terminal' and 'file', each unless null; neither is closed here.
    EventLog(std::FILE *terminal, std::FILE *file, Keep keep, Taking taking = Taking::kAtOnce);
    ~EventLog();
    EventLog(const EventLog &) = delete;
    EventLog &operator=(const EventLog &) = delete;

    // Takes what has been logged since the last call. The driving thread.
    void take_kept();

    const AlarmBook &alarms() const { return alarms_; }
    AlarmBook &alarms() { return alarms_; }

    // Called with every alarm that is raised or taken back.
    void set_alarm_listener(std::function<void(const AlarmEvent &)> listener) { listener_ = std::move(listener); }
    // Gets every message, besides; null ends that.
    void set_journal(Journal *journal) { journal_ = journal; }

    const std::vector<Event> &events() const { return events_; }

private:
    // A text that is told: until when it is not told again, and how often it has come meanwhile.
    struct Told {
        int64_t until_ns = 0;
        uint64_t more = 0;
    };
    void take(const card::LogMessage &message);
    bool is_repeated(const card::LogMessage &message, uint64_t &more);
    void print(const card::LogMessage &message);

    std::mutex mutex_;  // around kept_
    std::vector<Event> kept_;
    std::FILE *terminal_;
    std::FILE *file_;
    Keep keep_;
    Taking taking_;
    std::map<std::string, Told> told_;
    AlarmBook alarms_;
    std::function<void(const AlarmEvent &)> listener_;
    Journal *journal_ = nullptr;
    std::vector<Event> events_;
};

}  // namespace host
