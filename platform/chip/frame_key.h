// SPDX-License-Identifier: Apache-2.0
// frame_key.h: what the chip looks at in a frame, as one block of bits, and how a rule says what it wants of them.
//
// A frame becomes a key of fixed layout: every field at its own place, in network byte order, and a presence bit for
// each field that the frame has. A rule is a pattern of the same layout: a value and a mask. It matches when no bit
// under its mask differs; by the presence bits, a field that a rule names must be there even where its mask is all
// zero. Used by: description (patterns), chip (keys). Uses: nothing. Pure: no state, no lock; nothing is read at or
// behind the end of a frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace card {

enum class Field : uint8_t {
    kSourceMac,
    kDestinationMac,
    kVlan,
    kEtherType,
    kIpProtocol,
    kSourcePort,
    kDestinationPort,
    kSourceIpv4,
    kDestinationIpv4,
    kSourceIpv6,
    kDestinationIpv6,
};
constexpr size_t kFieldCount = 11;

// A mark without a field: the frame is neither IPv4, IPv6 nor ARP, as far as its type is there.
constexpr size_t kLinkLayerMark = kFieldCount;

// The block of bits: 62 bytes of fields and 2 of presence bits.
struct KeyBits {
    alignas(8) uint8_t bytes[64];
};

// Where a field lies in the block, in bytes.
struct FieldPlace {
    uint8_t offset;
    uint8_t length;
};
FieldPlace field_place(Field field);

// Marks a field as present (in a key) or asked for (in a value or a mask).
void set_presence(KeyBits &bits, Field field);
bool is_present(const KeyBits &bits, Field field);
void set_link_layer_mark(KeyBits &bits);

// The key of a frame of 'len' bytes that was put into 'vlan' (low 12 bits) where it came in. A field whose bytes are
// not all there is not present.
KeyBits frame_key(const uint8_t *frame, uint32_t len, uint32_t vlan);

struct Pattern {
    KeyBits value;
    KeyBits mask;

    bool matches(const KeyBits &key) const {
        for (size_t i = 0; i < sizeof(key.bytes); i += sizeof(uint64_t)) {
            if (((word(key, i) ^ word(value, i)) & word(mask, i)) != 0) {
                return false;
            }
        }
        return true;
    }

private:
    static uint64_t word(const KeyBits &bits, size_t offset) {
        uint64_t result;
        std::memcpy(&result, bits.bytes + offset, sizeof(result));
        return result;
    }
};

}  // namespace card
