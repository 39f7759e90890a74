// SPDX-License-Identifier: Apache-2.0
// ring_level.h: how full the ring of copies is.
//
// Reads the two positions that the kernel keeps in front of a ring, so it costs two loads. Used by: guard. Thread: any.
#pragma once

#include <cstddef>
#include <cstdint>

namespace card {

class RingLevel {
public:
    // Of the ring with this descriptor and this size. Where the kernel does not show its positions, used() is 0.
    RingLevel(int ring, size_t size);
    ~RingLevel();
    RingLevel(const RingLevel &) = delete;
    RingLevel &operator=(const RingLevel &) = delete;

    size_t size() const { return size_; }
    // Bytes that have not been read yet, heads and gaps of records included.
    size_t used() const;

private:
    size_t size_;
    size_t page_;
    void *read_to_;
    void *written_to_;
};

}  // namespace card
