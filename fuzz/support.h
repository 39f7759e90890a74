// SPDX-License-Identifier: Apache-2.0
// support.h: what the fuzz targets share: reading values out of an input, and the complaint that ends it.
//
// Every target is one LLVMFuzzerTestOneInput. It is linked twice: with libFuzzer, which makes up inputs (run.sh), and
// with replay_main, which runs the committed ones as a test. An input always does the same: whatever a target changes,
// it puts back.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

// Ends the process, and so reports the input, unless 'holds'.
inline void require(bool holds, const char *what) {
    if (!holds) {
        std::fprintf(stderr, "fuzz: %s\n", what);
        std::abort();
    }
}

// The bytes of an input, from the front. Behind the end every value is 0.
class Input {
public:
    Input(const uint8_t *data, size_t size) : rest_(data, size) {}

    bool empty() const { return rest_.empty(); }

    template <typename value_t>
    value_t value() {
        value_t result{};
        if (const std::span<const uint8_t> taken = bytes(sizeof(result)); !taken.empty()) {
            std::memcpy(&result, taken.data(), taken.size());
        }
        return result;
    }
    uint8_t u8() { return value<uint8_t>(); }
    // u16 length and so many bytes, in a block of just their size, so that a sanitizer sees a read behind it.
    std::vector<uint8_t> block() {
        const std::span<const uint8_t> taken = bytes(value<uint16_t>());
        return {taken.begin(), taken.end()};
    }

private:
    std::span<const uint8_t> bytes(size_t size) {
        const std::span<const uint8_t> taken = rest_.first(std::min(size, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }

    std::span<const uint8_t> rest_;
};
