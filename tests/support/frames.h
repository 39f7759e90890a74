// frames.h: frames for tests, in the words of the subject.
//
// A builder function gives a complete frame of one kind with default addresses; the fluent modifiers change only what a
// test is about: tcp(51000, 179, SYN).from("00:00:00:00:00:07").tag(100). Modifiers change the frame in place and
// return it, so they chain on temporaries and on copies. They may be applied in any order, except that cut() comes
// last. Nothing here uses the module: these frames are an independent statement of what the headers look like.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <ostream>
#include <span>
#include <string_view>
#include <vector>

constexpr std::string_view OWN_MAC = "02:00:00:00:00:01";     // the device's own
constexpr std::string_view SENDER_MAC = "00:11:22:33:44:55";  // sender of every frame unless it says otherwise

// TCP flags (RFC 9293).
enum : uint8_t {
    FIN = 0x01,
    SYN = 0x02,
    RST = 0x04,
    PSH = 0x08,
    ACK = 0x10,
};

class Frame {
public:
    Frame() = default;
    explicit Frame(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}

    const uint8_t *data() const { return bytes_.data(); }
    uint32_t size() const { return static_cast<uint32_t>(bytes_.size()); }
    operator std::span<const uint8_t>() const { return bytes_; }
    bool operator==(const Frame &other) const { return bytes_ == other.bytes_; }

    // The bytes in a block of exactly their size, so that a sanitizer sees a read behind the end.
    std::unique_ptr<uint8_t[]> exact() const;

    // Offsets in bytes from the start of the frame, as the modifiers so far have moved them.
    uint32_t l2_payload() const { return payload_; }  // first byte behind EtherType, LLC or SNAP; the IP header
    uint32_t l4() const { return l4_; }               // transport header; 0 when there is none

    // Addresses: text, or a number for the nth of many. MAC n is 06:00:nn:nn:nn:nn, IPv6 n is 2001:db8::nnnn:nnnn, a
    // numeric IPv4 address is in processor byte order.
    Frame &from(std::string_view mac);
    Frame &from(uint32_t n);
    Frame &to(std::string_view mac);
    Frame &to(uint32_t n);
    Frame &src_ip(const char *address);
    Frame &src_ip(uint32_t n);
    Frame &dst_ip(const char *address);
    Frame &dst_ip(uint32_t n);

    // Layer 2. The first tag() or mpls() is the outermost.
    Frame &tag(uint16_t vid, uint16_t tpid = 0x8100, uint8_t priority = 0);
    Frame &tags(int n);              // n tags 0x8100 with VIDs 1, 2, ...
    Frame &mpls(int n = 1);          // n label entries; the last two bytes of each are the type of what follows
    Frame &snap();                   // the EtherType becomes the type of an IEEE 802.3 frame with LLC and SNAP
    Frame &eth_type(uint16_t type);  // behind the tags

    // IP.
    Frame &ip_version(uint8_t version);
    Frame &ip_proto(uint8_t value);           // IPv4 protocol or IPv6 next header, whatever follows
    Frame &header_words(uint8_t words);       // IPv4 header length field only, nothing moves
    Frame &options(uint8_t words);            // IPv4 options: 'words' x 4 bytes, the header length follows
    Frame &more_fragments();                  // IPv4
    Frame &fragment_offset(uint16_t offset);  // IPv4, in 8-byte units
    Frame &hop_by_hop(uint8_t length = 0);    // IPv6: an extension header of ('length' + 1) x 8 bytes in front

    // Bytes.
    Frame &set(uint32_t offset, std::initializer_list<uint8_t> bytes);  // overwrites, from the start of the frame
    Frame &payload(uint32_t offset, std::initializer_list<uint8_t> bytes) { return set(payload_ + offset, bytes); }
    Frame &pad(uint32_t size);     // zeros up to at least 'size'
    Frame &cut(uint32_t size);     // at most 'size'
    Frame &resize(uint32_t size);  // exactly 'size'

private:
    friend Frame eth(uint16_t type, std::vector<uint8_t> payload);
    friend Frame llc(uint8_t dsap, std::vector<uint8_t> payload);
    friend Frame ipv4(uint8_t proto, std::vector<uint8_t> payload);
    friend Frame ipv6(uint8_t next_header, std::vector<uint8_t> payload);
    friend Frame frame_of_class(uint16_t protocol);

    bool is_ipv6() const;
    Frame &mac(uint32_t offset, std::string_view text);
    Frame &ip(const char *address, uint32_t offset_ipv4, uint32_t offset_ipv6);
    Frame &ip(uint32_t n, uint32_t offset_ipv4, uint32_t offset_ipv6);
    void insert(uint32_t offset, const std::vector<uint8_t> &bytes);

    std::vector<uint8_t> bytes_;
    uint32_t type_ = 12;  // first type or length behind the tags
    uint32_t payload_ = 14;
    uint32_t l4_ = 0;
};

void PrintTo(const Frame &frame, std::ostream *out);

// Any EtherType; any LLC DSAP.
Frame eth(uint16_t type, std::vector<uint8_t> payload = std::vector<uint8_t>(46));
Frame llc(uint8_t dsap, std::vector<uint8_t> payload = std::vector<uint8_t>(43));

Frame arp();                  // request: who has 10.0.0.2, tell 10.0.0.1
Frame lldp();                 // IEEE 802.1AB
Frame bpdu(uint8_t version);  // IEEE 802.1D/Q on LLC: 0 STP, 2 RSTP, 3 MSTP
Frame isis();                 // ISO 10589 on LLC
Frame pppoe();                // discovery (RFC 2516)
Frame dot1x();                // IEEE 802.1X EAPOL start
Frame slow(uint8_t subtype);  // IEEE 802.3 annex 57A: 1 LACP, 3 OAM
Frame cfm(uint8_t opcode);    // IEEE 802.1ag, ITU-T Y.1731: 39 APS, 40 R-APS

// 10.0.0.1 to 10.0.0.2, 2001:db8::1 to 2001:db8::2.
Frame ipv4(uint8_t proto, std::vector<uint8_t> payload = std::vector<uint8_t>(20));
Frame ipv6(uint8_t next_header, std::vector<uint8_t> payload = std::vector<uint8_t>(20));
Frame udp(uint16_t sport = 40000, uint16_t dport = 40001);
Frame udp6(uint16_t sport = 40000, uint16_t dport = 40001);
Frame tcp(uint16_t sport = 40000, uint16_t dport = 40001, uint8_t flags = ACK);
Frame tcp6(uint16_t sport = 40000, uint16_t dport = 40001, uint8_t flags = ACK);
Frame icmp(uint8_t type = 8, uint8_t code = 0);
Frame icmpv6(uint8_t type, uint8_t code = 0);

// The sample frame of a protocol class 1..58. That of class 57 ("self") is an ARP request from OWN_MAC.
Frame frame_of_class(uint16_t protocol);
