// SPDX-License-Identifier: Apache-2.0
// handles.h: objects behind small integers, created once and never destroyed.
//
// Inside os/ only. Handle 0 is none. Looking a handle up takes no lock: the packet path does it twice a packet.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace card {

template <typename Object, uint32_t kCapacity>
class HandleTable {
public:
    // Takes the object over. Returns its handle, 0 when the table is full.
    uint32_t add(Object *object) {
        const uint32_t slot = used_.fetch_add(1);
        if (slot >= kCapacity) {
            used_ = kCapacity;
            return 0;
        }
        objects_[slot].store(object, std::memory_order_release);
        return slot + 1;
    }

    // Null when there is no such handle.
    Object *find(uint32_t handle) const {
        return handle == 0 || handle > kCapacity ? nullptr : objects_[handle - 1].load(std::memory_order_acquire);
    }

private:
    std::atomic<uint32_t> used_ = 0;
    std::array<std::atomic<Object *>, kCapacity> objects_ = {};
};

}  // namespace card
