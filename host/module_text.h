// SPDX-License-Identifier: Apache-2.0
// module_text.h: the module's own texts, ready to be shown.
//
// Reports are allocated by the module and given back to it; dumps are printed by the module on standard output. Both
// come back from here as strings with "\n" line ends, whatever the module ends its lines with.
// Used by: report, alarm_listing, the console. Thread: the driving one; nothing else prints meanwhile.
#pragma once

#include <cstdio>
#include <string>

namespace host {

// "\r\n" and "\n\r" become "\n".
std::string plain_lines(const std::string &text);

// Text of a report operation such as atc_api_get_alarm_info; empty when it gives none.
std::string report_text(int (*report)(char **text));

// What 'print' prints on standard output.
template <typename Print>
std::string printed_text(Print print);

// Sends standard output into a string while it lives.
class StdoutCapture {
public:
    StdoutCapture();
    ~StdoutCapture();
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;

    // Ends the capture.
    std::string take();

private:
    void restore();

    FILE *standard_;
    FILE *memory_ = nullptr;
    char *text_ = nullptr;
    size_t size_ = 0;
};

template <typename Print>
std::string printed_text(Print print) {
    StdoutCapture capture;
    print();
    return plain_lines(capture.take());
}

}  // namespace host
