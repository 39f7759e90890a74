// SPDX-License-Identifier: Apache-2.0
// words.h: numbers, times and addresses as a sentence of the verdict has them.
//
// Used by: verdict, advice, tune. Pure.
#pragma once

#include <cstdint>
#include <string>

namespace host {

// "1,488,095"
std::string with_commas(uint64_t number);

// "0.2 s", "72 s", "5 min 20 s", "1 h 12 min", "2 d 3 h"
std::string length_text(int64_t nanoseconds);

// "22:05:57" in UTC; with 'with_date' "11-22 22:05:57".
std::string clock_text(int64_t realtime_ns, bool with_date);

// "1 flood", "3 floods"
std::string counted(uint64_t number, const char *singular, const char *plural);

// "80 %" of 'whole'; "less than 1 %", "more than 99 %" where it would be 0 or 100 by rounding only.
std::string percent(uint64_t part, uint64_t whole);

// "2,002", "0.3": packets a second over this many; below ten with a tenth.
std::string rate_text(uint64_t packets, uint32_t seconds);

// "2", "1.5"
std::string times_text(double factor);

// For a shell: as it is, or in single quotes.
std::string shell_quoted(const std::string &word);

}  // namespace host
