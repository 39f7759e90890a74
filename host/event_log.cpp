#include "event_log.h"

#include <utility>

namespace host {

namespace {

// The part of an alarm's text that neither its restoration nor another message has.
bool raises_alarm(std::string_view text) {
    return text.find(" over fast period limit,") != std::string_view::npos ||
           text.find(" over long period limit,") != std::string_view::npos;
}

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
    if (raises_alarm(message.text)) {
        alarms_.fetch_add(1, std::memory_order_relaxed);
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
