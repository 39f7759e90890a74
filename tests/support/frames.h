// SPDX-License-Identifier: Apache-2.0
// frames.h: frames for tests, in the words of the subject.
//
// A builder function gives a complete frame of one kind with default addresses; the fluent modifiers change only what a
// test is about: tcp(51000, 179, SYN).from("00:00:00:00:00:07").tag(100). Modifiers change the frame in place and
// return it, so they chain on temporaries and on copies. They may be applied in any order, except that cut() comes
// last. Nothing here uses the module: these frames are an independent statement of what the headers look like. A
// builder used wrongly ends the program (vector::at).
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <memory>
#include <ostream>
#include <span>
#include <utility>
#include <vector>

constexpr const char *OWN_MAC = "02:00:00:00:00:01";     // the device's own
constexpr const char *SENDER_MAC = "00:11:22:33:44:55";  // sender of every frame unless it says otherwise

// TCP flags (RFC 9293).
enum : uint8_t {
    FIN = 0x01,
    SYN = 0x02,
    RST = 0x04,
    PSH = 0x08,
    ACK = 0x10
};

constexpr uint8_t high(uint32_t value) {
    return static_cast<uint8_t>(value >> 8);
}
constexpr uint8_t low(uint32_t value) {
    return static_cast<uint8_t>(value);
}

class Frame {
public:
    using Bytes = std::vector<uint8_t>;
    // 'payload' and 'l4': offsets of the first byte behind the EtherType, and of the transport header (0 = none).
    explicit Frame(Bytes bytes = {}, uint32_t payload = 14, uint32_t l4 = 0)
        : bytes_(std::move(bytes)), payload_(payload), l4_(l4) {}

    const uint8_t *data() const { return bytes_.data(); }
    uint32_t size() const { return static_cast<uint32_t>(bytes_.size()); }
    operator std::span<const uint8_t>() const { return bytes_; }
    bool operator==(const Frame &other) const { return bytes_ == other.bytes_; }

    // The bytes in a block of exactly their size, so that a sanitizer sees a read behind the end.
    std::unique_ptr<uint8_t[]> exact() const {
        auto block = std::make_unique<uint8_t[]>(bytes_.size());
        std::ranges::copy(bytes_, block.get());
        return block;
    }

    // Offsets in bytes from the start of the frame, as the modifiers so far have moved them.
    uint32_t l2_payload() const { return payload_; }
    uint32_t l4() const { return l4_; }

    // Addresses: text, or a number for the nth of many. MAC n is 06:00:nn:nn:nn:nn, IPv6 n is 2001:db8::nnnn:nnnn, a
    // numeric IPv4 address is in processor byte order.
    Frame &from(const char *mac) { return set_mac(6, mac); }
    Frame &from(uint32_t n) { return set(6, {6, 0, low(n >> 24), low(n >> 16), high(n), low(n)}); }
    Frame &to(const char *mac) { return set_mac(0, mac); }
    Frame &src_ip(const char *address) { return set_ip(address, 12, 8); }
    Frame &src_ip(uint32_t n) {
        const bool v6 = is_ipv6();
        set_ip(v6 ? "2001:db8::" : "0.0.0.0", 12, 8);
        return payload(v6 ? 20 : 12, {low(n >> 24), low(n >> 16), high(n), low(n)});
    }
    Frame &dst_ip(const char *address) { return set_ip(address, 16, 24); }

    // Layer 2. The first tag() or mpls() is the outermost.
    Frame &tag(uint32_t vid, uint32_t tpid = 0x8100, uint32_t priority = 0) {
        return insert(type_, {high(tpid), low(tpid), low(priority << 5 | vid >> 8), low(vid)}).move_type();
    }
    Frame &tags(int n) {  // 0x8100 with VIDs 1, 2, ...
        for (int i = 1; i <= n; ++i) {
            tag(static_cast<uint32_t>(i));
        }
        return *this;
    }
    Frame &mpls(int n = 1) {  // the last two bytes of each label are the type of what follows
        for (int i = 1; i <= n; ++i) {
            insert(type_, {0x88, 0x47, 0x00, static_cast<uint8_t>(16 + i)}).move_type();
        }
        return *this;
    }
    Frame &snap() {  // the EtherType becomes the type of an IEEE 802.3 frame with LLC and SNAP
        const uint32_t length = std::min<uint32_t>(size() - type_ + 6, 1500);
        return insert(type_, {high(length), low(length), 0xAA, 0xAA, 0x03, 0, 0, 0});
    }
    Frame &eth_type(uint32_t type) { return set(payload_ - 2, {high(type), low(type)}); }  // behind the tags

    // IP.
    Frame &ip_proto(uint8_t value) { return payload(is_ipv6() ? 6 : 9, {value}); }   // or next header
    Frame &header_words(uint8_t words) { return payload(0, {low(0x40U | words)}); }  // IPv4; nothing moves
    Frame &options(uint8_t words) {  // IPv4: 'words' x 4 bytes, the header length follows
        insert(l4_, Bytes(words * size_t{4}, 1));
        return header_words(low((bytes_.at(payload_) & 0x0FU) + words));
    }
    Frame &more_fragments() { return payload(6, {low(bytes_.at(payload_ + 6) | 0x20U)}); }
    Frame &fragment_offset(uint32_t offset) {  // IPv4, in 8-byte units
        return payload(6, {low((bytes_.at(payload_ + 6) & 0xE0U) | high(offset)), low(offset)});
    }
    Frame &hop_by_hop(uint8_t length = 0) {  // IPv6: an extension header of ('length' + 1) x 8 bytes in front
        Bytes header((size_t{length} + 1) * 8);
        header[0] = std::exchange(bytes_.at(payload_ + 6), uint8_t{0});
        header[1] = length;
        insert(payload_ + 40, header);
        return payload(4, {high(size() - payload_ - 40), low(size() - payload_ - 40)});
    }

    // Bytes: overwrites, from the start of the frame or of the payload; zeros up to at least, at most, exactly 'size'.
    Frame &set(uint32_t offset, std::initializer_list<uint8_t> bytes) {
        for (uint8_t byte : bytes) {
            bytes_.at(offset++) = byte;
        }
        return *this;
    }
    Frame &payload(uint32_t offset, std::initializer_list<uint8_t> bytes) { return set(payload_ + offset, bytes); }
    Frame &pad(uint32_t size) { return resize(std::max(size, this->size())); }
    Frame &cut(uint32_t size) { return resize(std::min(size, this->size())); }
    Frame &resize(uint32_t size) {
        bytes_.resize(size);
        return *this;
    }

private:
    bool is_ipv6() const { return bytes_.at(payload_) >> 4 == 6; }
    Frame &set_mac(uint32_t offset, const char *text) {
        for (uint32_t i = 0; i < 6; ++i) {
            unsigned byte = 0;
            bytes_.at(offset + i) = std::sscanf(text + 3 * i, "%2x", &byte) == 1 ? low(byte) : bytes_.at(SIZE_MAX);
        }
        return *this;
    }
    Frame &set_ip(const char *address, uint32_t offset_ipv4, uint32_t offset_ipv6) {
        uint8_t *place = &bytes_.at(payload_ + (is_ipv6() ? offset_ipv6 : offset_ipv4));
        return inet_pton(is_ipv6() ? AF_INET6 : AF_INET, address, place) == 1 ? *this : set(UINT32_MAX, {0});
    }
    Frame &insert(uint32_t offset, const Bytes &bytes) {
        bytes_.insert(&bytes_.at(offset - 1) - bytes_.data() + bytes_.begin() + 1, bytes.begin(), bytes.end());
        const auto size = static_cast<uint32_t>(bytes.size());
        payload_ += offset < payload_ ? size : 0;
        l4_ += l4_ != 0 && offset <= l4_ ? size : 0;
        return *this;
    }
    Frame &move_type() {
        type_ += 4;
        return *this;
    }

    Bytes bytes_;
    uint32_t type_ = 12;  // first type or length behind the tags
    uint32_t payload_;
    uint32_t l4_;
};

void PrintTo(const Frame &frame, std::ostream *out);

// Any EtherType; any LLC DSAP; a BPDU (IEEE 802.1D/Q on LLC: 0 STP, 2 RSTP, 3 MSTP); IEEE 802.3 annex 57A (1 LACP, 3
// OAM); IEEE 802.1ag and ITU-T Y.1731 (39 APS, 40 R-APS).
Frame eth(uint32_t type, const Frame::Bytes &payload = Frame::Bytes(46));
Frame llc(uint8_t dsap, const Frame::Bytes &payload = Frame::Bytes(43));
Frame bpdu(uint8_t version);
Frame slow(uint8_t subtype);
Frame cfm(uint8_t opcode);
Frame arp();  // request: who has 10.0.0.2, tell 10.0.0.1
Frame lldp();

// 10.0.0.1 to 10.0.0.2, 2001:db8::1 to 2001:db8::2.
Frame ipv4(uint8_t proto, const Frame::Bytes &payload = Frame::Bytes(20));
Frame ipv6(uint8_t next_header, const Frame::Bytes &payload = Frame::Bytes(20));
Frame udp(uint32_t sport = 40000, uint32_t dport = 40001);
Frame udp6(uint32_t sport = 40000, uint32_t dport = 40001);
Frame tcp(uint32_t sport = 40000, uint32_t dport = 40001, uint8_t flags = ACK);
Frame tcp6(uint32_t sport = 40000, uint32_t dport = 40001, uint8_t flags = ACK);
Frame icmp(uint8_t type = 8, uint8_t code = 0);
Frame icmpv6(uint8_t type, uint8_t code = 0);

// The sample frame of a protocol class 1..58. That of class 57 ("self") is an ARP request from OWN_MAC.
Frame frame_of_class(uint16_t protocol);
