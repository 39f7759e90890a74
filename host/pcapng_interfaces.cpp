// SPDX-License-Identifier: Apache-2.0
#include "pcapng_interfaces.h"

#include <algorithm>
#include <cstring>

namespace host {

namespace {

// Block types.
constexpr uint32_t kSectionHeader = 0x0A0D0D0A;  // reads the same in both byte orders
constexpr uint32_t kInterfaceDescription = 1;
constexpr uint32_t kOldPacket = 2;
constexpr uint32_t kSimplePacket = 3;
constexpr uint32_t kEnhancedPacket = 6;

constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;

}  // namespace

void PcapngInterfaces::take(const uint8_t *bytes, size_t count) {
    while (count > 0 && !lost_) {
        size_t used = 0;
        if (skip_ > 0) {
            used = static_cast<size_t>(std::min<uint64_t>(skip_, count));
            skip_ -= used;
        } else {
            used = std::min(kHeadSize - held_, count);
            std::memcpy(head_.data() + held_, bytes, used);
            held_ += used;
            if (held_ == kHeadSize) {
                held_ = 0;
                read_head();
            }
        }
        bytes += used;
        count -= used;
    }
}

uint32_t PcapngInterfaces::next() {
    if (!packets_.empty()) {
        last_ = packets_.front();
        packets_.pop_front();
    }
    return last_;
}

void PcapngInterfaces::read_head() {
    if (word(0) == kSectionHeader) {
        swapped_ = word(8) != kByteOrderMagic;
        section_base_ += section_interfaces_;
        section_interfaces_ = 0;
        in_section_ = true;
    } else if (const uint32_t type = number(word(0)); type == kInterfaceDescription) {
        section_interfaces_++;
    } else if (type == kEnhancedPacket) {
        packets_.push_back(section_base_ + number(word(8)));
    } else if (type == kSimplePacket) {
        packets_.push_back(section_base_);
    } else if (type == kOldPacket) {
        // 16 bits of interface in front of 16 bits of drop count.
        packets_.push_back(section_base_ + (swapped_ ? number(word(8)) >> 16 : word(8) & 0xffff));
    }
    const uint32_t length = number(word(4));
    lost_ = !in_section_ || length < kHeadSize;
    skip_ = length - kHeadSize;
}

uint32_t PcapngInterfaces::word(size_t offset) const {
    uint32_t raw;
    std::memcpy(&raw, head_.data() + offset, sizeof(raw));
    return raw;
}

}  // namespace host
