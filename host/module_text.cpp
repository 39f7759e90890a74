// SPDX-License-Identifier: Apache-2.0
#include "module_text.h"

#include <cstdlib>

#include "anti_cpu/anti_cpu.h"

namespace host {

std::string plain_lines(const std::string &text) {
    std::string plain;
    plain.reserve(text.size());
    for (const char c : text) {
        if (c != '\r') {
            plain += c;
        }
    }
    return plain;
}

std::string report_text(int (*report)(char **text)) {
    char *text = nullptr;
    if (report(&text) != 0 || text == nullptr) {
        return {};
    }
    std::string plain = plain_lines(text);
    atc_api_free_buffer(text);
    return plain;
}

// The C library's standard output is a variable that may be set: the module's printf then prints here.
StdoutCapture::StdoutCapture() : standard_(stdout) {
    memory_ = open_memstream(&text_, &size_);
    if (memory_ != nullptr) {
        stdout = memory_;
    }
}

StdoutCapture::~StdoutCapture() {
    restore();
    std::free(text_);
}

std::string StdoutCapture::take() {
    restore();
    return text_ != nullptr ? std::string(text_, size_) : std::string();
}

void StdoutCapture::restore() {
    if (memory_ != nullptr) {
        stdout = standard_;
        std::fclose(memory_);
        memory_ = nullptr;
    }
}

}  // namespace host
