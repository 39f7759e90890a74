// SPDX-License-Identifier: Apache-2.0
// chip_test.cpp: the software chip by itself, through the driver's functions.
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "anti_cpu/platform.h"
#include "chip/rule_plane.h"
#include "chip_fixture.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Appends numbers of 16 bits.
void append(Bytes &bytes, std::initializer_list<size_t> values) {
    for (const size_t value : values) {
        const auto number = static_cast<uint16_t>(value);
        bytes.resize(bytes.size() + 2);
        std::memcpy(&bytes[bytes.size() - 2], &number, 2);
    }
}

Bytes u16(size_t value) {
    Bytes bytes;
    append(bytes, {value});
    return bytes;
}

Bytes ones(size_t bits) {
    Bytes mask(32);
    for (size_t bit = 0; bit < bits; ++bit) {
        mask[bit / 8] = static_cast<uint8_t>(mask[bit / 8] | 0x80U >> bit % 8);
    }
    return mask;
}

// The buffers of a driver call, written here a third time.
struct Buffers {
    Bytes match = u16(0);
    Bytes op = u16(0);
    Bytes port;

    explicit Buffers(std::initializer_list<size_t> ports = {PORT}, uint16_t action = 100) {
        append(port, {1, ports.size()});
        append(port, ports);
        operation(action).operation(113, 1);
    }
    Buffers &item(uint16_t code, const Bytes &value, const Bytes &mask = ones(256)) {
        match[0]++;
        append(match, {code, 0, value.size(), 32});
        match.insert(match.end(), value.begin(), value.end());
        match.resize(match.size() + 32 - value.size());
        match.insert(match.end(), mask.begin(), mask.end());
        match.resize(match.size() + 16);
        return *this;
    }
    Buffers &operation(uint16_t code, uint16_t values = 0) {
        op[0]++;
        append(op, {code, values});
        for (uint16_t i = 0; i < values; ++i) {
            append(op, {4, 0, 0, 0, 0, 0, 0, 0, 0});
        }
        return *this;
    }
    Buffers &set(Bytes Buffers::*list, size_t at, uint8_t byte) {
        (this->*list)[at] = byte;
        return *this;
    }
    int install() const { return call<void>(hw_driver_set_stream_qos_item, nullptr); }
    int remove() const {
        Buffers with_kind = *this;
        with_kind.port[0] = 0;
        return with_kind.call<void>(hw_driver_delete_qos_item_by_stream, nullptr);
    }
    // Blocks of exactly the used size, so that a sanitizer sees a read behind the end.
    template <typename last_t, typename function_t>
    int call(function_t function, last_t *last) const {
        const auto exact = [](const Bytes &bytes) { return Frame(bytes).exact(); };
        const auto m = exact(match), o = exact(op), p = exact(port);
        return function(0, 0, m.get(), static_cast<uint32_t>(match.size()), o.get(), static_cast<uint32_t>(op.size()),
                        p.get(), static_cast<uint32_t>(port.size()), last);
    }
};

TEST_F(ChipTest, RuleLivesFromInstallationToRemoval) {
    const Buffers rule = Buffers({PORT, 4}).item(4, u16(VLAN)).item(5, u16(0x0806));
    ASSERT_EQ(rule.install(), 0);
    EXPECT_TRUE(denies(arp()));
    EXPECT_TRUE(denies(arp(), 4));
    EXPECT_TRUE(denies(arp(), 0x10000 + PORT)) << "ports are known by their low 16 bits";
    EXPECT_FALSE(denies(arp(), 5));
    EXPECT_EQ(chip().rules()[0].description, "deny ports 3,4 vlan 100 eth-type 0x0806");
    uint32_t entry_id = 0, stat_id = 0;
    atc_stat_hw_t stat = {1, 2};
    EXPECT_EQ(rule.call(hw_driver_lookup_entry_by_stream, &entry_id), 0);
    EXPECT_EQ(rule.call(hw_driver_lookup_stat_id_by_stream, &stat_id), 0);
    EXPECT_EQ(hw_driver_get_stat_by_stat_id(stat_id, &stat), 0);
    EXPECT_EQ(stat.packets, 3U);
    EXPECT_EQ(chip().rules()[0].entry_id, entry_id);
    EXPECT_NE(stat_id, entry_id);
    EXPECT_EQ(Buffers({4, PORT}).item(4, u16(VLAN)).item(5, u16(0x0806)).remove(), card::kUnknown)
        << "a rule is known by its bytes";
    EXPECT_EQ(rule.remove(), 0);
    log();
    EXPECT_EQ(rule.remove(), card::kUnknown);
    EXPECT_EQ(log(), "chip: delete refused: not installed\n");
    EXPECT_EQ(hw_driver_get_stat_by_stat_id(stat_id, &stat), card::kUnknown);
}

TEST_F(ChipTest, MalformedBuffersAreRefusedWithTheReason) {
    const auto rule = [] { return Buffers().item(4, u16(VLAN)); };
    std::vector<std::pair<const char *, Buffers>> rows = {
        {"match list: length disagrees with its count", rule().set(&Buffers::match, 1, 0xFF)},
        {"match list: unknown field code", rule().set(&Buffers::match, 2, 11)},
        {"match list: wrong flag or mask length", rule().set(&Buffers::match, 8, 31)},
        {"match list: wrong value length", rule().set(&Buffers::match, 7, 0xFF)},
        {"match list: bytes that must be 0 are not", rule().set(&Buffers::match, 12, 1)},
        {"match list: bytes that must be 0 are not", rule().set(&Buffers::match, 89, 1)},
        {"match list: a field twice", rule().item(4, u16(VLAN + 1))},
        {"operation list: length disagrees with its count", rule().set(&Buffers::op, 0, 1)},
        {"operation list: length disagrees with its count", rule().set(&Buffers::op, 0, 3)},
        {"operation list: unknown operation code", rule().set(&Buffers::op, 2, 102)},
        {"operation list: wrong number of values", rule().operation(113, 2)},
        {"operation list: wrong value length", rule().set(&Buffers::op, 10, 5)},
        {"operation list: not just one of deny and count", rule().operation(101)},
        {"port list: length disagrees with its count", rule().set(&Buffers::port, 2, 2)},
        {"port list: another kind than asked for", rule().set(&Buffers::port, 0, 0)},
        {"port list: no port", Buffers({})},
    };
    for (const auto list : {&Buffers::match, &Buffers::op, &Buffers::port}) {
        const size_t full = (rule().*list).size();
        for (size_t size = 0; size <= full + 1; size += size + 1 == full ? 2 : 1) {
            rows.emplace_back("list: length disagrees with its count", rule());
            (rows.back().second.*list).resize(size);
        }
    }
    for (const auto &[reason, spoilt] : rows) {
        EXPECT_EQ(spoilt.install(), card::kMalformed);
        EXPECT_TRUE(log().ends_with(std::string(reason) + "\n")) << reason;
    }
}

TEST_F(ChipTest, FullChipRefusesUntilARuleGoes) {
    chip().set_capacity(2);
    const Buffers first = Buffers({1}), second = Buffers({2}), third = Buffers({3});
    EXPECT_EQ(first.install(), 0);
    EXPECT_EQ(second.install(), 0);
    EXPECT_EQ(third.install(), card::kFull);
    EXPECT_EQ(first.install(), card::kDuplicate) << "the nearer reason";
    EXPECT_EQ(log(), "chip: install refused: full\nchip: install refused: installed already\n");
    EXPECT_EQ(first.remove(), 0);
    EXPECT_EQ(third.install(), 0);
    EXPECT_EQ(chip().rules()[1].entry_id, 3U) << "ids are given out once";
}

// A plane with room for one rule, whatever the chip's capacity.
class SmallPlane : public card::RulePlane {
public:
    SmallPlane() { chip().set_plane(this); }
    ~SmallPlane() override { chip().set_plane(nullptr); }
    int add(uint32_t entry_id, const card::Description &) override {
        return std::exchange(taken, taken == 0 ? entry_id : taken) == 0 ? 0 : card::kFull;
    }
    void remove(uint32_t entry_id) override { taken = taken == entry_id ? 0 : taken; }
    uint64_t packets(uint32_t entry_id) const override { return taken == entry_id ? 1000 : 0; }
    uint32_t taken = 0;
};

TEST_F(ChipTest, WhatAPlaneHasNoRoomForIsMatchedInSoftwareUntilItHas) {
    SmallPlane plane;
    chip().set_overflow(2);
    const Buffers rules[] = {Buffers({1}), Buffers({2}), Buffers({3}), Buffers({4})};
    for (const Buffers &rule : rules) {
        EXPECT_EQ(rule.install(), &rule == &rules[3] ? card::kFull : 0);
    }
    const auto denied = [] {
        std::string ports;
        for (uint32_t port = 1; port <= 4; port++) {
            ports += denies(arp(), port) ? std::to_string(port) : "";
        }
        return ports;
    };
    EXPECT_EQ(denied(), "23") << "the first is the plane's";
    chip().set_capacity(0);
    EXPECT_EQ(rules[0].remove(), 0);
    EXPECT_EQ(plane.taken, 0U) << "no room by the operator's word";
    chip().set_capacity(1);
    EXPECT_EQ(plane.taken, 2U) << "the oldest moves on";
    EXPECT_EQ(denied(), "3");
    EXPECT_EQ(chip().rules()[0].packets, 1001U) << "counts of here and there";
    const card::ChipUse use = chip().use();
    EXPECT_EQ((std::vector{use.in_chip, use.most_in_chip, use.in_software, use.overflowed}),
              (std::vector<size_t>{1, 1, 1, 2}));
    EXPECT_EQ(rules[2].remove(), 0);
    EXPECT_EQ(rules[1].remove(), 0);
    EXPECT_EQ(denied(), "");
    EXPECT_EQ(plane.taken, 0U);
}

TEST_F(ChipTest, FirstDenyRuleAndFirstCountingRuleCount) {
    for (const Buffers &rule : {Buffers({PORT}, 101), Buffers({PORT}, 106), Buffers().item(5, u16(0x0806))}) {
        ASSERT_EQ(rule.install(), 0);
    }
    EXPECT_TRUE(denies(arp())) << "a deny rule stops, whatever stands before it";
    EXPECT_FALSE(denies(lldp())) << "the other operations stop nothing";
    ASSERT_EQ(Buffers().install(), 0);
    EXPECT_TRUE(denies(arp()));
    EXPECT_TRUE(denies(lldp()));
    std::string counts;
    for (const card::ChipRule &rule : chip().rules()) {
        counts += rule.description + ": " + std::to_string(rule.packets) + "\n";
    }
    EXPECT_EQ(counts, "count(101) port 3: 4\ncount(106) port 3: 0\ndeny port 3 eth-type 0x0806: 2\ndeny port 3: 1\n");
}

TEST_F(ChipTest, MasksDecideWhichBitsCount) {
    const Bytes mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, ip = {10, 0, 0, 1};
    const Bytes ip6 = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    Bytes holes = ones(0);
    holes[1] = 0xF0;
    const struct {
        uint16_t code;
        Bytes value;
        Bytes mask;
        const char *text;
        Frame hit;
        Frame miss;
    } rows[] = {
        {0, mac, ones(47), "src-mac 00:11:22:33:44:55/47", arp().from("00:11:22:33:44:54"),
         arp().from("00:11:22:33:44:57")},
        {0, mac, ones(0), "src-mac 00:11:22:33:44:55/0", arp().cut(12), arp().cut(11)},
        {1, mac, ones(48), "dst-mac 00:11:22:33:44:55", arp().to("00:11:22:33:44:55"), arp()},
        {2, ip, ones(0), "src-ip 10.0.0.1/0", udp().src_ip("192.168.0.1"), udp6()},
        {2, ip, holes, "src-ip 10.0.0.1 mask 00f00000", udp().src_ip("9.15.255.255"), udp().src_ip("10.16.0.1")},
        {3, {10, 0, 0, 2}, ones(31), "dst-ip 10.0.0.2/31", udp().dst_ip("10.0.0.3"), udp().dst_ip("10.0.0.4")},
        {2, ip6, ones(0), "src-ip 2001:db8::1/0", udp6().src_ip("::"), udp()},
        {3, ip6, ones(120), "dst-ip 2001:db8::1/120", udp6(), udp6().dst_ip("2001:db8::1:1")},
        {10, u16(0), ones(0), "dst-port 0/0", udp(), icmp()},
    };
    for (const auto &row : rows) {
        chip().reset();
        ASSERT_EQ(Buffers().item(row.code, row.value, row.mask).install(), 0) << row.text << log();
        EXPECT_EQ(chip().rules()[0].description, std::string("deny port 3 ") + row.text);
        EXPECT_TRUE(denies(row.hit)) << row.text;
        EXPECT_FALSE(denies(row.miss)) << row.text;
    }
}

}  // namespace
