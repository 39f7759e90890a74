#include "event_log.h"

#include <utility>

namespace host {

namespace {

bool tells_of_full_capture(std::string_view text) {
    return text.starts_with("anti-cpu port ") && text.ends_with(" diagnose buffer is overflow");
}

}  // namespace

EventLog::EventLog(std::FILE *terminal, std::FILE *file, Keep keep) : terminal_(terminal), file_(file), keep_(keep) {
    card::set_log_sink([this](const card::LogMessage &message) { take(message); });
}

EventLog::~EventLog() {
    card::set_log_sink(nullptr);
}

std::vector<std::string> EventLog::take_full_captures() {
    has_full_.store(false, std::memory_order_relaxed);
    return std::exchange(full_, {});
}

void EventLog::take(const card::LogMessage &message) {
    if (const auto alarm = read_alarm(message)) {
        alarms_.take(*alarm);
    }
    if (tells_of_full_capture(message.text)) {
        full_.emplace_back(message.text);
        has_full_.store(true, std::memory_order_relaxed);
    }
    if (terminal_ != nullptr) {
        card::print_log_line(terminal_, message);
    }
    if (file_ != nullptr) {
        card::print_log_line(file_, message);
    }
    if (keep_ == Keep::kEvents) {
        events_.push_back({message.realtime_ns, message.level, std::string(message.text)});
    }
}

}  // namespace host
