// SPDX-License-Identifier: Apache-2.0
#include "verdict/words.h"

#include <cinttypes>
#include <cstdio>

#include "clock/clock.h"
#include "services/services.h"

namespace host {

std::string with_commas(uint64_t number) {
    std::string text = std::to_string(number);
    for (size_t place = text.size(); place > 3;) {
        place -= 3;
        text.insert(place, ",");
    }
    return text;
}

std::string length_text(int64_t nanoseconds) {
    constexpr int64_t tenth_ns = card::kNanosecondsPerSecond / 10;
    char text[64];
    if (nanoseconds < 10 * card::kNanosecondsPerSecond) {
        const int64_t tenths = (nanoseconds + tenth_ns / 2) / tenth_ns;
        const char *format = tenths % 10 == 0 ? "%" PRId64 " s" : "%" PRId64 ".%" PRId64 " s";
        std::snprintf(text, sizeof(text), format, tenths / 10, tenths % 10);
        return text;
    }
    const int64_t seconds = (nanoseconds + card::kNanosecondsPerSecond / 2) / card::kNanosecondsPerSecond;
    const int64_t units[] = {seconds / 86400, seconds / 3600 % 24, seconds / 60 % 60, seconds % 60};
    const char *const names[] = {"d", "h", "min", "s"};
    if (seconds < 120) {
        return std::to_string(seconds) + " s";
    }
    size_t first = 0;
    while (units[first] == 0) {
        first++;
    }
    std::string result = std::to_string(units[first]) + " " + names[first];
    if (first + 1 < std::size(units) && units[first + 1] != 0) {
        result += " " + std::to_string(units[first + 1]) + " " + names[first + 1];
    }
    return result;
}

std::string clock_text(int64_t realtime_ns, bool with_date) {
    constexpr size_t year = 5;   // "2026-"
    constexpr size_t date = 11;  // "2026-11-22 "
    return card::time_text(realtime_ns).substr(with_date ? year : date);
}

std::string counted(uint64_t number, const char *singular, const char *plural) {
    return with_commas(number) + " " + (number == 1 ? singular : plural);
}

std::string percent(uint64_t part, uint64_t whole) {
    const double share = whole == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
    if (part > 0 && share < 1) {
        return "less than 1 %";
    }
    if (part < whole && share > 99) {
        return "more than 99 %";
    }
    char text[16];
    std::snprintf(text, sizeof(text), "%.0f %%", share);
    return text;
}

std::string rate_text(uint64_t packets, uint32_t seconds) {
    if (packets >= uint64_t{10} * seconds) {
        return with_commas(packets / seconds);
    }
    char text[16];
    std::snprintf(text, sizeof(text), "%.1f", static_cast<double>(packets) / seconds);
    return text;
}

std::string times_text(double factor) {
    char text[32];
    std::snprintf(text, sizeof(text), "%g", factor);
    return text;
}

std::string shell_quoted(const std::string &word) {
    const char *const plain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-./:=,+@%";
    if (!word.empty() && word.find_first_not_of(plain) == std::string::npos) {
        return word;
    }
    std::string quoted = "'";
    for (const char c : word) {
        quoted += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return quoted + "'";
}

}  // namespace host
