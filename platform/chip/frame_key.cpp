// SPDX-License-Identifier: Apache-2.0
// frame_key.cpp: the chip's own decoding of a frame, layer by layer.
#include "chip/frame_key.h"

#include <array>

namespace card {

namespace {

constexpr std::array<FieldPlace, kFieldCount> kPlaces = {{
    {0, 6},    // kSourceMac
    {6, 6},    // kDestinationMac
    {12, 2},   // kVlan
    {14, 2},   // kEtherType
    {16, 1},   // kIpProtocol
    {18, 2},   // kSourcePort
    {20, 2},   // kDestinationPort
    {22, 4},   // kSourceIpv4
    {26, 4},   // kDestinationIpv4
    {30, 16},  // kSourceIpv6
    {46, 16},  // kDestinationIpv6
}};
constexpr size_t kPresenceOffset = 62;

// IEEE 802.1Q clause 9.6; 0x9100 is the older type of stacked tags that switches still meet.
constexpr uint16_t kTypeCustomerTag = 0x8100;
constexpr uint16_t kTypeServiceTag = 0x88A8;
constexpr uint16_t kTypeStackedTag = 0x9100;
constexpr uint16_t kTypeMpls = 0x8847;  // RFC 3032, 5
constexpr uint16_t kTypeIpv4 = 0x0800;
constexpr uint16_t kTypeArp = 0x0806;
constexpr uint16_t kTypeIpv6 = 0x86DD;
constexpr uint16_t kMaxLength = 1500;  // IEEE 802.3 clause 3.2.6: up to here the type is a length
constexpr uint8_t kSnapSap = 0xAA;     // IEEE 802 clause 9.2
constexpr int kMaxTags = 4;
constexpr int kMaxLabels = 4;

constexpr uint8_t kHopByHop = 0;  // protocol numbers: IANA
constexpr uint8_t kTcp = 6;
constexpr uint8_t kUdp = 17;
constexpr uint8_t kIcmpv6 = 58;

void set_mark(KeyBits &bits, size_t bit) {
    uint8_t &byte = bits.bytes[kPresenceOffset + bit / 8];
    byte = static_cast<uint8_t>(byte | 1U << bit % 8);
}

// A reader that walks down a frame and puts what it finds into a key.
class Decoder {
public:
    Decoder(const uint8_t *frame, size_t len) : frame_(frame), len_(len) {}

    KeyBits decode(uint16_t port_vlan);

private:
    void decode_frame();
    bool skip_tags();
    bool skip_llc();
    void ipv4();
    void ipv6();
    void transport(uint8_t protocol, bool is_ipv6);

    bool has(size_t offset, size_t count) const { return at_ + offset + count <= len_; }
    uint8_t u8(size_t offset) const { return frame_[at_ + offset]; }
    uint16_t u16(size_t offset) const { return static_cast<uint16_t>(u8(offset) << 8 | u8(offset + 1)); }

    // Takes a field over from 'offset' behind the cursor, if all of it is there.
    void copy(Field field, size_t offset) {
        if (frame_ != nullptr && has(offset, field_place(field).length)) {
            set(field, frame_ + at_ + offset);
        }
    }
    void set(Field field, const uint8_t *bytes) {
        const FieldPlace place = field_place(field);
        std::memcpy(key_.bytes + place.offset, bytes, place.length);
        set_presence(key_, field);
    }
    void set_u16(Field field, uint16_t value) {
        const uint8_t bytes[] = {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
        set(field, bytes);
    }

    const uint8_t *frame_;
    size_t len_;
    size_t at_ = 0;      // cursor: offset of the header being read; may lie behind the end
    uint16_t type_ = 0;  // EtherType or length in front of the cursor
    KeyBits key_{};
};

KeyBits Decoder::decode(uint16_t port_vlan) {
    set_u16(Field::kVlan, port_vlan & 0x0FFF);
    copy(Field::kDestinationMac, 0);
    copy(Field::kSourceMac, 6);
    decode_frame();
    if (type_ != kTypeIpv4 && type_ != kTypeIpv6 && type_ != kTypeArp) {
        set_link_layer_mark(key_);
    }
    return key_;
}

void Decoder::decode_frame() {
    if (!has(12, 2)) {
        return;
    }
    type_ = u16(12);
    at_ = 14;
    if (!skip_tags() || !skip_llc()) {
        return;
    }
    set_u16(Field::kEtherType, type_);
    // Both types of IP are read by the version nibble, so that a frame with the wrong type of the two is still IP.
    if ((type_ == kTypeIpv4 || type_ == kTypeIpv6) && has(0, 1)) {
        if (u8(0) >> 4 == 4) {
            ipv4();
        } else if (u8(0) >> 4 == 6) {
            ipv6();
        }
    }
}

// Walks over VLAN tags, the first of which names the VLAN, and MPLS labels. A label (RFC 3032) has no type behind it;
// its last two bytes are read as one, which is what this chip and the CPU behind it have agreed on. False: too many, or
// cut off.
bool Decoder::skip_tags() {
    int tags = 0;
    int labels = 0;
    for (;; at_ += 4) {
        const bool is_label = type_ == kTypeMpls;
        if (!is_label && type_ != kTypeCustomerTag && type_ != kTypeServiceTag && type_ != kTypeStackedTag) {
            return true;
        }
        if (is_label ? labels++ == kMaxLabels : tags++ == kMaxTags) {
            return false;
        }
        if (!is_label && tags == 1 && has(0, 2)) {
            set_u16(Field::kVlan, u16(0) & 0x0FFF);
        }
        if (!has(0, 4)) {
            return false;
        }
        type_ = u16(2);
    }
}

// An 802.3 frame: the type is that of its SNAP header, or the DSAP where there is none (IEEE 802.2).
bool Decoder::skip_llc() {
    if (type_ > kMaxLength) {
        return true;
    }
    if (!has(0, 1)) {
        return false;
    }
    if (u8(0) != kSnapSap) {
        type_ = u8(0);
        at_ += 3;
        return true;
    }
    if (!has(0, 8)) {
        return false;
    }
    type_ = u16(6);
    at_ += 8;
    return true;
}

// RFC 791. A fragment's ports are read where they would stand, first fragment or not.
void Decoder::ipv4() {
    copy(Field::kIpProtocol, 9);
    copy(Field::kSourceIpv4, 12);
    copy(Field::kDestinationIpv4, 16);
    if (has(9, 1)) {
        const uint8_t protocol = u8(9);
        at_ += size_t{4} * (u8(0) & 0x0F);
        transport(protocol, false);
    }
}

// RFC 8200. One hop-by-hop header is passed; any other extension header is the protocol.
void Decoder::ipv6() {
    copy(Field::kSourceIpv6, 8);
    copy(Field::kDestinationIpv6, 24);
    if (!has(6, 1)) {
        return;
    }
    uint8_t protocol = u8(6);
    at_ += 40;
    if (protocol == kHopByHop) {
        if (!has(0, 2)) {
            return;
        }
        protocol = u8(0);
        at_ += (size_t{u8(1)} + 1) * 8;
    }
    set(Field::kIpProtocol, &protocol);
    transport(protocol, true);
}

// RFC 9293, RFC 768: ports. RFC 4443: type and code of ICMPv6 stand in for the source port.
void Decoder::transport(uint8_t protocol, bool is_ipv6) {
    if (protocol == kTcp || protocol == kUdp) {
        copy(Field::kSourcePort, 0);
        copy(Field::kDestinationPort, 2);
    } else if (protocol == kIcmpv6 && is_ipv6) {
        copy(Field::kSourcePort, 0);
    }
}

}  // namespace

FieldPlace field_place(Field field) {
    return kPlaces[static_cast<size_t>(field)];
}

void set_presence(KeyBits &bits, Field field) {
    set_mark(bits, static_cast<size_t>(field));
}

bool is_present(const KeyBits &bits, Field field) {
    const size_t bit = static_cast<size_t>(field);
    return (bits.bytes[kPresenceOffset + bit / 8] >> bit % 8 & 1U) != 0;
}

void set_link_layer_mark(KeyBits &bits) {
    set_mark(bits, kLinkLayerMark);
}

KeyBits frame_key(const uint8_t *frame, uint32_t len, uint32_t vlan) {
    return Decoder(frame, frame == nullptr ? 0 : len).decode(static_cast<uint16_t>(vlan));
}

}  // namespace card
