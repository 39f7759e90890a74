// SPDX-License-Identifier: Apache-2.0
// caught_output.h: what a line prints, kept in a file until it is known how it shall be shown.
//
// A file without a name: a listing may be longer than memory is. Used by: console. Thread: the driving one; nothing
// else prints meanwhile.
#pragma once

#include <cstdio>
#include <memory>

namespace host::console {

class CaughtOutput {
public:
    struct Closer {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };
    using File = std::unique_ptr<std::FILE, Closer>;

    // Standard output goes into the file until take(). Where there can be none, it stays as it is.
    CaughtOutput();
    ~CaughtOutput();
    CaughtOutput(const CaughtOutput &) = delete;
    CaughtOutput &operator=(const CaughtOutput &) = delete;

    // Gives standard output back, and the file from its beginning; null when nothing was caught, or (which is told) not
    // all of it.
    File take();

private:
    std::FILE *standard_;
    File file_;
};

// Copies the rest of 'from'.
void copy(std::FILE *from, std::FILE *to);

}  // namespace host::console
