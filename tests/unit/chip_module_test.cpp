// SPDX-License-Identifier: Apache-2.0
// chip_module_test.cpp: what the software chip reads in a frame against what the module does. The module's own rules in
// the chip are held against each other in docs/denies.md.
#include <algorithm>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "atc/parser.h"
#include "atc/protocol.h"
#include "chip/frame_key.h"
#include "chip_fixture.h"

namespace {

// A field of a key as text; empty when it is not there.
std::string field(const card::KeyBits &key, card::Field name) {
    card::KeyBits presence{};
    card::set_presence(presence, name);
    card::Pattern is_there{presence, presence};
    const card::FieldPlace place = card::field_place(name);
    return is_there.matches(key) ? std::string(key.bytes + place.offset, key.bytes + place.offset + place.length) : "";
}

std::string big_endian(uint64_t value, int bytes) {
    std::string text;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
        text += static_cast<char>(value >> shift);
    }
    return text;
}

// What differs between what the module and what the chip read in a frame. The module says 0 for what is not there, or
// what it has no use for, so only what it says counts; a 'whole' frame is compared the other way too.
std::string disagreement(const Frame &frame, bool whole) {
    atc_pkt_info_t info = {};
    info.direction = ATC_DIRECTION_RX;
    info.port = PORT;
    info.vlan = VLAN;
    const std::unique_ptr<uint8_t[]> exact = frame.exact();
    atc_packet_parser(exact.get(), frame.size(), &info);
    const card::KeyBits key = card::frame_key(exact.get(), frame.size(), VLAN);
    const auto raw = [](const auto &bytes) { return std::string(std::begin(bytes), std::end(bytes)); };
    const std::pair<card::Field, std::string> rows[] = {
        {card::Field::kSourceMac, raw(info.src_mac)},
        {card::Field::kDestinationMac, raw(info.dst_mac)},
        {card::Field::kVlan, big_endian(info.vlan, 2)},
        {card::Field::kEtherType, big_endian(info.eth_type, 2)},
        {card::Field::kIpProtocol, big_endian(info.ip_protocol, 1)},
        {card::Field::kSourcePort, big_endian(info.src_port, 2)},
        {card::Field::kDestinationPort, big_endian(info.dst_port, 2)},
        {card::Field::kSourceIpv4, big_endian(info.src_ipv4, 4)},
        {card::Field::kDestinationIpv4, big_endian(info.dst_ipv4, 4)},
        {card::Field::kSourceIpv6, raw(info.src_ipv6)},
        {card::Field::kDestinationIpv6, raw(info.dst_ipv6)},
    };
    std::string text;
    for (const auto &[name, parsed] : rows) {
        const std::string nothing(parsed.size(), '\0');
        const std::string decoded = field(key, name);
        if (parsed != nothing ? parsed != decoded : whole && !decoded.empty() && decoded != nothing) {
            text += "field " + std::to_string(static_cast<int>(name)) + " differs; ";
        }
    }
    return text;
}

TEST_F(ChipTest, ReadsTheSameFieldsAsTheModule) {
    std::vector<Frame> frames = {arp().tags(4), arp().tags(5), udp().mpls(4), udp().mpls(5)};
    frames.insert(frames.end(), {udp6().snap().tag(5), eth(1500), eth(1501), icmpv6(135).hop_by_hop(3)});
    frames.insert(frames.end(), {udp().options(10), udp().more_fragments().fragment_offset(100)});
    for (uint16_t id = 1; id <= ATC_PROTOCOL_COUNT; ++id) {
        frames.push_back(frame_of_class(id));
    }
    uint32_t seed = 20210902;
    const auto random = [&seed](uint32_t below) {
        seed = seed * 1664525 + 1013904223;
        return (seed >> 8) % below;
    };
    for (const Frame &frame : frames) {
        EXPECT_EQ(disagreement(frame, true), "") << testing::PrintToString(frame);
        for (uint32_t size = 0; size < frame.size(); ++size) {
            ASSERT_EQ(disagreement(Frame(frame).cut(size), false), "") << size << testing::PrintToString(frame);
        }
        for (uint32_t step = 0; step < 700; ++step) {
            Frame distorted = frame;
            for (uint32_t change = random(4); change > 0; --change) {
                distorted.set(12 + random(std::min(frame.size() - 12, 50U)), {static_cast<uint8_t>(random(256))});
            }
            ASSERT_EQ(disagreement(distorted, true), "") << step << testing::PrintToString(distorted);
        }
    }
}

}  // namespace
