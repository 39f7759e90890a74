// SPDX-License-Identifier: Apache-2.0
#include "chip/kernel/ring_level.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

namespace card {

// A ring's first page holds how far it has been read, the second one how far it has been written.
RingLevel::RingLevel(int ring, size_t size)
    : size_(size),
      page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))),
      read_to_(mmap(nullptr, page_, PROT_READ, MAP_SHARED, ring, 0)),
      written_to_(mmap(nullptr, page_, PROT_READ, MAP_SHARED, ring, static_cast<off_t>(page_))) {}

RingLevel::~RingLevel() {
    for (void *page : {read_to_, written_to_}) {
        if (page != MAP_FAILED) {
            munmap(page, page_);
        }
    }
}

size_t RingLevel::used() const {
    if (read_to_ == MAP_FAILED || written_to_ == MAP_FAILED) {
        return 0;
    }
    const unsigned long read_to = __atomic_load_n(static_cast<unsigned long *>(read_to_), __ATOMIC_ACQUIRE);
    const unsigned long written_to = __atomic_load_n(static_cast<unsigned long *>(written_to_), __ATOMIC_ACQUIRE);
    return std::min<size_t>(written_to - read_to, size_);
}

}  // namespace card
