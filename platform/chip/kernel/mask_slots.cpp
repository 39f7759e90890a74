// SPDX-License-Identifier: Apache-2.0
#include "chip/kernel/mask_slots.h"

namespace card {

namespace {

constexpr uint8_t kNever = 0x80;  // a presence bit that no frame has

}  // namespace

bool MaskSlots::take(const kernel_key &mask, uint32_t *slot) {
    uint32_t unused = KERNEL_MASKS;
    for (uint32_t i = 0; i < KERNEL_MASKS; i++) {
        if (users_[i] > 0 && std::memcmp(&shared_.masks[i], &mask, sizeof(mask)) == 0) {
            users_[i]++;
            *slot = i;
            return true;
        }
        if (users_[i] == 0 && unused == KERNEL_MASKS) {
            unused = i;
        }
    }
    if (unused == KERNEL_MASKS) {
        return false;
    }
    shared_.masks[unused] = mask;
    users_[unused] = 1;
    if (*shared_.count <= unused) {
        __atomic_store_n(shared_.count, unused + 1, __ATOMIC_RELEASE);  // behind the mask
    }
    *slot = unused;
    return true;
}

void MaskSlots::give(uint32_t slot) {
    if (--users_[slot] > 0) {
        return;
    }
    shared_.masks[slot].presence[1] = kNever;
    uint32_t count = *shared_.count;
    while (count > 0 && users_[count - 1] == 0) {
        count--;
    }
    *shared_.count = count;
}

}  // namespace card
