// SPDX-License-Identifier: Apache-2.0
// log.cpp: the log and the text of times.
//
// Called by the module (ulogPrintf with its mutex held, syslog_get_timestamp) and by the card itself. Uses the clock.
// Lock: one mutex around the sink, so that messages come one at a time and whole.
#include "services/log.h"

#include <time.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "anti_cpu/platform.h"
#include "clock/clock.h"
#include "services/services.h"

namespace {

using card::LogMessage;

constexpr uint32_t kNoteLevel = 13;

struct Log {
    std::mutex mutex;
    std::function<void(const LogMessage &)> sink;  // empty = standard error
};

// Never destroyed: tasks may log until the process has gone.
Log &the_log() {
    static Log &log = *new Log;
    return log;
}

void publish(uint32_t level, std::string_view text) {
    const LogMessage message{card::Clock::instance().realtime_ns(), level, text};
    Log &log = the_log();
    const std::lock_guard lock(log.mutex);
    if (log.sink) {
        log.sink(message);
    } else {
        card::print_log_line(stderr, message);
    }
}

std::string_view without_line_end(std::string_view text) {
    return text.ends_with("\r\n") ? text.substr(0, text.size() - 2) : text;
}

}  // namespace

namespace card {

std::string time_text(int64_t realtime_ns) {
    const int64_t below = realtime_ns % kNanosecondsPerSecond < 0 ? 1 : 0;  // a capture may claim a time before 1970
    const time_t seconds = static_cast<time_t>(realtime_ns / kNanosecondsPerSecond - below);
    tm parts = {};
    gmtime_r(&seconds, &parts);
    char text[32];
    const size_t length = std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
    return std::string(text, length);
}

void set_log_sink(std::function<void(const LogMessage &)> sink) {
    Log &log = the_log();
    const std::lock_guard lock(log.mutex);
    log.sink = std::move(sink);
}

void print_log_line(std::FILE *file, const LogMessage &message) {
    std::string line = time_text(message.realtime_ns) + ' ' + std::to_string(message.level) + ' ';
    line += message.text;
    line += '\n';
    static_cast<void>(std::fwrite(line.data(), 1, line.size(), file));  // nobody to tell when the log itself fails
}

void log_note(std::string_view text) {
    publish(kNoteLevel, text);
}

}  // namespace card

int ulogPrintf(uint32_t, uint32_t level, const char *format, ...) {
    char usual[512];
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(usual, sizeof(usual), format, arguments);
    va_end(arguments);
    if (length >= 0 && static_cast<size_t>(length) < sizeof(usual)) {
        publish(level, without_line_end({usual, static_cast<size_t>(length)}));
    } else if (length >= 0) {
        std::vector<char> whole(static_cast<size_t>(length) + 1);
        std::vsnprintf(whole.data(), whole.size(), format, again);
        publish(level, without_line_end({whole.data(), static_cast<size_t>(length)}));
    }
    va_end(again);
    return length < 0 ? -1 : 0;
}

void syslog_get_timestamp(char *text, uint32_t size) {
    if (text == nullptr || size == 0) {
        return;
    }
    const std::string now = card::time_text(card::Clock::instance().realtime_ns());
    const size_t length = std::min<size_t>(now.size(), size - 1);
    std::memcpy(text, now.data(), length);
    text[length] = '\0';
}
