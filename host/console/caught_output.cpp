// SPDX-License-Identifier: Apache-2.0
#include "console/caught_output.h"

#include <array>

namespace host::console {

// The C library's standard output is a variable that may be set: the module's printf then prints here.
CaughtOutput::CaughtOutput() : standard_(stdout), file_(std::tmpfile()) {
    if (file_) {
        stdout = file_.get();
    }
}

CaughtOutput::~CaughtOutput() {
    stdout = standard_;
}

CaughtOutput::File CaughtOutput::take() {
    stdout = standard_;
    if (file_ && (std::fflush(file_.get()) != 0 || std::ferror(file_.get()) != 0)) {
        std::fputs("anti-cpu: the temporary files have no room for what this line prints\n", stderr);
        file_.reset();
    }
    if (file_) {
        std::rewind(file_.get());
    }
    return std::move(file_);
}

void copy(std::FILE *from, std::FILE *to) {
    std::array<char, 65536> block;
    while (const size_t size = std::fread(block.data(), 1, block.size(), from)) {
        if (std::fwrite(block.data(), 1, size, to) != size) {
            return;  // 'to' remembers it
        }
    }
}

}  // namespace host::console
