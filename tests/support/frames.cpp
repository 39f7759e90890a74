#include "frames.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "sample_frames.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t high(uint32_t value) {
    return static_cast<uint8_t>(value >> 8);
}

constexpr uint8_t low(uint32_t value) {
    return static_cast<uint8_t>(value);
}

// A builder used wrongly is a fault of the test program, not of what it tests.
void require(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "frames: %s\n", what);
        std::abort();
    }
}

Bytes udp_header(uint16_t sport, uint16_t dport) {
    Bytes bytes = {high(sport), low(sport), high(dport), low(dport), 0, 18, 0, 0};
    bytes.resize(18);
    return bytes;
}

Bytes tcp_header(uint16_t sport, uint16_t dport, uint8_t flags) {
    return {high(sport), low(sport), high(dport), low(dport), 0, 0, 0, 1, 0,    0,
            0,           2,          0x50,        flags,      2, 0, 0, 0, 0x00, 0x00};
}

}  // namespace

std::unique_ptr<uint8_t[]> Frame::exact() const {
    auto block = std::make_unique<uint8_t[]>(bytes_.size());
    std::copy(bytes_.begin(), bytes_.end(), block.get());
    return block;
}

Frame &Frame::from(std::string_view text) {
    return mac(6, text);
}

Frame &Frame::from(uint32_t n) {
    return set(6, {0x06, 0, low(n >> 24), low(n >> 16), high(n), low(n)});
}

Frame &Frame::to(std::string_view text) {
    return mac(0, text);
}

Frame &Frame::to(uint32_t n) {
    return set(0, {0x06, 0, low(n >> 24), low(n >> 16), high(n), low(n)});
}

Frame &Frame::src_ip(const char *address) {
    return ip(address, 12, 8);
}

Frame &Frame::src_ip(uint32_t n) {
    return ip(n, 12, 8);
}

Frame &Frame::dst_ip(const char *address) {
    return ip(address, 16, 24);
}

Frame &Frame::dst_ip(uint32_t n) {
    return ip(n, 16, 24);
}

Frame &Frame::tag(uint16_t vid, uint16_t tpid, uint8_t priority) {
    insert(type_, {high(tpid), low(tpid), static_cast<uint8_t>((priority << 5) | (vid >> 8)), low(vid)});
    type_ += 4;
    return *this;
}

Frame &Frame::tags(int n) {
    for (int i = 1; i <= n; ++i) {
        tag(static_cast<uint16_t>(i));
    }
    return *this;
}

Frame &Frame::mpls(int n) {
    for (int i = 1; i <= n; ++i) {
        insert(type_, {0x88, 0x47, 0x00, static_cast<uint8_t>(16 + i)});
        type_ += 4;
    }
    return *this;
}

Frame &Frame::snap() {
    uint32_t length = std::min<uint32_t>(size() - type_ + 6, 1500);
    insert(type_, {high(length), low(length), 0xAA, 0xAA, 0x03, 0, 0, 0});
    return *this;
}

Frame &Frame::eth_type(uint16_t type) {
    return set(payload_ - 2, {high(type), low(type)});
}

Frame &Frame::ip_version(uint8_t version) {
    uint8_t first = bytes_.at(payload_);
    return payload(0, {static_cast<uint8_t>((version << 4) | (first & 0x0F))});
}

Frame &Frame::ip_proto(uint8_t value) {
    return payload(is_ipv6() ? 6 : 9, {value});
}

Frame &Frame::header_words(uint8_t words) {
    return payload(0, {static_cast<uint8_t>(0x40 | (words & 0x0F))});
}

Frame &Frame::options(uint8_t words) {
    insert(l4_, Bytes(words * size_t{4}, 1));  // "no operation"
    return header_words(static_cast<uint8_t>((bytes_.at(payload_) & 0x0F) + words));
}

Frame &Frame::more_fragments() {
    return payload(6, {static_cast<uint8_t>(bytes_.at(payload_ + 6) | 0x20)});
}

Frame &Frame::fragment_offset(uint16_t offset) {
    uint32_t flags = bytes_.at(payload_ + 6) & 0xE0u;
    return payload(6, {static_cast<uint8_t>(flags | high(offset)), low(offset)});
}

Frame &Frame::hop_by_hop(uint8_t length) {
    Bytes header((size_t{length} + 1) * 8);
    header[0] = std::exchange(bytes_.at(payload_ + 6), uint8_t{0});
    header[1] = length;
    uint32_t at = payload_ + 40;
    insert(at, header);
    l4_ = std::max(l4_, at + static_cast<uint32_t>(header.size()));
    uint32_t rest = size() - at;
    return payload(4, {high(rest), low(rest)});
}

Frame &Frame::set(uint32_t offset, std::initializer_list<uint8_t> bytes) {
    require(offset + bytes.size() <= bytes_.size(), "bytes set behind the end of the frame");
    std::copy(bytes.begin(), bytes.end(), bytes_.begin() + offset);
    return *this;
}

Frame &Frame::pad(uint32_t size) {
    return resize(std::max(size, this->size()));
}

Frame &Frame::cut(uint32_t size) {
    return resize(std::min(size, this->size()));
}

Frame &Frame::resize(uint32_t size) {
    bytes_.resize(size);
    return *this;
}

bool Frame::is_ipv6() const {
    return bytes_.at(payload_) >> 4 == 6;
}

Frame &Frame::mac(uint32_t offset, std::string_view text) {
    unsigned int byte[6];
    char zeroed[18] = {};
    require(text.size() < sizeof zeroed, "a MAC address is written 00:11:22:33:44:55");
    std::copy(text.begin(), text.end(), zeroed);
    int count =
        std::sscanf(zeroed, "%2x:%2x:%2x:%2x:%2x:%2x", &byte[0], &byte[1], &byte[2], &byte[3], &byte[4], &byte[5]);
    require(count == 6, "a MAC address is written 00:11:22:33:44:55");
    return set(offset, {low(byte[0]), low(byte[1]), low(byte[2]), low(byte[3]), low(byte[4]), low(byte[5])});
}

Frame &Frame::ip(const char *address, uint32_t offset_ipv4, uint32_t offset_ipv6) {
    uint32_t offset = payload_ + (is_ipv6() ? offset_ipv6 : offset_ipv4);
    require(offset + (is_ipv6() ? 16 : 4) <= size(), "no IP header in the frame");
    require(inet_pton(is_ipv6() ? AF_INET6 : AF_INET, address, &bytes_.at(offset)) == 1, "not an address of the frame");
    return *this;
}

Frame &Frame::ip(uint32_t n, uint32_t offset_ipv4, uint32_t offset_ipv6) {
    if (!is_ipv6()) {
        return payload(offset_ipv4, {low(n >> 24), low(n >> 16), high(n), low(n)});
    }
    return payload(offset_ipv6,
                   {0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, low(n >> 24), low(n >> 16), high(n), low(n)});
}

void Frame::insert(uint32_t offset, const std::vector<uint8_t> &bytes) {
    require(offset <= bytes_.size(), "a header inserted behind the end of the frame");
    bytes_.insert(bytes_.begin() + offset, bytes.begin(), bytes.end());
    uint32_t size = static_cast<uint32_t>(bytes.size());
    if (offset < payload_) {
        payload_ += size;
    }
    if (l4_ != 0 && offset <= l4_) {
        l4_ += size;
    }
}

void PrintTo(const Frame &frame, std::ostream *out) {
    *out << frame.size() << " bytes";
    char text[4];
    for (uint32_t i = 0; i < frame.size(); ++i) {
        std::snprintf(text, sizeof text, " %02x", frame.data()[i]);
        *out << text;
    }
}

Frame eth(uint16_t type, Bytes payload) {
    payload.insert(payload.begin(), {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, high(type), low(type)});
    return Frame(std::move(payload)).from(SENDER_MAC).to(OWN_MAC);
}

Frame llc(uint8_t dsap, Bytes payload) {
    uint16_t length = static_cast<uint16_t>(payload.size() + 3);
    payload.insert(payload.begin(), {dsap, dsap, 0x03});
    Frame frame = eth(length, std::move(payload));
    frame.payload_ += 3;
    return frame;
}

Frame arp() {
    return eth(0x0806,
               {0, 1, 8, 0, 6, 4, 0, 1, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 10, 0, 0, 2})
        .to("ff:ff:ff:ff:ff:ff");
}

Frame lldp() {
    return eth(0x88CC, {0x02, 0x07, 0x04, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x04, 0x02, 0x07, 0x31, 0x06, 0x02, 0x00,
                        0x78, 0x00, 0x00})
        .to("01:80:c2:00:00:0e");
}

Frame bpdu(uint8_t version) {
    Bytes body(version == 0 ? 35 : 36);
    body[2] = version;
    body[3] = version == 0 ? 0 : 2;  // configuration, or rapid and multiple
    return llc(0x42, std::move(body)).to("01:80:c2:00:00:00");
}

Frame isis() {
    return llc(0xFE, {0x83, 27, 1, 0, 0x0F, 1, 0, 0}).to("01:80:c2:00:00:14");
}

Frame pppoe() {
    return eth(0x8863, {0x11, 0x09, 0, 0, 0, 4, 0x01, 0x01, 0, 0}).to("ff:ff:ff:ff:ff:ff");
}

Frame dot1x() {
    return eth(0x888E, {2, 1, 0, 0}).to("01:80:c2:00:00:03");
}

Frame slow(uint8_t subtype) {
    Bytes body(110);
    body[0] = subtype;
    body[1] = 1;
    return eth(0x8809, std::move(body)).to("01:80:c2:00:00:02");
}

Frame cfm(uint8_t opcode) {
    Bytes body(75);
    body[0] = 0xA0;  // level 5, version 0
    body[1] = opcode;
    return eth(0x8902, std::move(body)).to("01:80:c2:00:00:35");
}

Frame ipv4(uint8_t proto, Bytes payload) {
    uint32_t length = static_cast<uint32_t>(payload.size() + 20);
    payload.insert(payload.begin(),
                   {0x45, 0, high(length), low(length), 0, 1, 0, 0, 64, proto, 0, 0, 10, 0, 0, 1, 10, 0, 0, 2});
    Frame frame = eth(0x0800, std::move(payload));
    frame.l4_ = frame.payload_ + 20;
    return frame;
}

Frame ipv6(uint8_t next_header, Bytes payload) {
    uint32_t length = static_cast<uint32_t>(payload.size());
    payload.insert(payload.begin(), 40, 0);
    std::ranges::copy(std::initializer_list<uint8_t>{0x60, 0, 0, 0, high(length), low(length), next_header, 64},
                      payload.begin());
    Frame frame = eth(0x86DD, std::move(payload));
    frame.l4_ = frame.payload_ + 40;
    return frame.src_ip(1u).dst_ip(2u);
}

Frame udp(uint16_t sport, uint16_t dport) {
    return ipv4(17, udp_header(sport, dport));
}

Frame udp6(uint16_t sport, uint16_t dport) {
    return ipv6(17, udp_header(sport, dport));
}

Frame tcp(uint16_t sport, uint16_t dport, uint8_t flags) {
    return ipv4(6, tcp_header(sport, dport, flags));
}

Frame tcp6(uint16_t sport, uint16_t dport, uint8_t flags) {
    return ipv6(6, tcp_header(sport, dport, flags));
}

Frame icmp(uint8_t type, uint8_t code) {
    return ipv4(1, {type, code, 0, 0, 0, 1, 0, 1});
}

Frame icmpv6(uint8_t type, uint8_t code) {
    Bytes body(24);
    body[0] = type;
    body[1] = code;
    return ipv6(58, std::move(body));
}

Frame frame_of_class(uint16_t protocol) {
    const host::SampleFrame sample = host::sample_frame(protocol);
    require(sample.protocol != 0, "protocol classes are 1..58");
    Frame frame(sample.bytes);
    const bool is_llc = frame.bytes_[12] < 6;
    const bool is_ip = frame.bytes_[12] == 0x08 && frame.bytes_[13] == 0x00;
    const bool is_ipv6 = frame.bytes_[12] == 0x86;
    frame.payload_ = is_llc ? 17 : 14;
    frame.l4_ = is_ip ? 34 : is_ipv6 ? 54 : 0;
    return frame;
}
