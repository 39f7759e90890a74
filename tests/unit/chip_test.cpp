// chip_test.cpp: the software chip by itself, through the driver's functions.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "anti_cpu/platform.h"
#include "chip_fixture.h"

namespace {

using Bytes = std::vector<uint8_t>;

// ---- The driver's buffers, written here a third time

void append_u16(Bytes &bytes, size_t value) {
    const auto number = static_cast<uint16_t>(value);
    bytes.resize(bytes.size() + 2);
    std::memcpy(&bytes[bytes.size() - 2], &number, 2);
}

Bytes u16(size_t value) {
    Bytes bytes;
    append_u16(bytes, value);
    return bytes;
}

Bytes ones(size_t bits) {
    Bytes mask(32);
    for (size_t bit = 0; bit < bits; ++bit) {
        mask[bit / 8] = static_cast<uint8_t>(mask[bit / 8] | 0x80U >> bit % 8);
    }
    return mask;
}

struct Buffers {
    Bytes match = u16(0);
    Bytes op = u16(0);
    Bytes port;

    static Buffers deny(std::initializer_list<uint16_t> ports = {PORT}) {
        return Buffers().operation(100).operation(121).operation(113, 1).on(ports);
    }
    static Buffers action(uint16_t code) { return Buffers().operation(code).operation(113, 1).on({PORT}); }

    Buffers &item(uint16_t code, const Bytes &value, const Bytes &mask = ones(256)) {
        match[0]++;
        append_u16(match, code);
        append_u16(match, 0);
        append_u16(match, value.size());
        append_u16(match, 32);
        match.insert(match.end(), value.begin(), value.end());
        match.resize(match.size() + 32 - value.size());
        match.insert(match.end(), mask.begin(), mask.end());
        match.resize(match.size() + 16);
        return *this;
    }
    Buffers &operation(uint16_t code, uint16_t values = 0) {
        op[0]++;
        append_u16(op, code);
        append_u16(op, values);
        for (uint16_t i = 0; i < values; ++i) {
            append_u16(op, 4);
            op.resize(op.size() + 16);
        }
        return *this;
    }
    Buffers &on(std::initializer_list<uint16_t> ports) {
        port = u16(1);
        append_u16(port, ports.size());
        for (const uint16_t number : ports) {
            append_u16(port, number);
        }
        return *this;
    }

    int install() const { return call(hw_driver_set_stream_qos_item, static_cast<void *>(nullptr)); }
    int remove() const {
        Buffers with_kind = *this;
        with_kind.port[0] = 0;
        return with_kind.call(hw_driver_delete_qos_item_by_stream, static_cast<void *>(nullptr));
    }
    uint32_t entry_id() const {
        uint32_t id = 0;
        call(hw_driver_lookup_entry_by_stream, &id);
        return id;
    }
    uint32_t stat_id() const {
        uint32_t id = 0;
        call(hw_driver_lookup_stat_id_by_stream, &id);
        return id;
    }
    uint64_t packets() const {
        atc_stat_hw_t stat = {0, 0};
        hw_driver_get_stat_by_stat_id(stat_id(), &stat);
        return stat.packets;
    }

    template <typename function_t, typename last_t>
    int call(function_t function, last_t *last) const {
        // Blocks of exactly the used size, so that a sanitizer sees a read behind the end.
        const auto exact = [](const Bytes &bytes) {
            auto block = std::make_unique<uint8_t[]>(bytes.size());
            std::copy(bytes.begin(), bytes.end(), block.get());
            return block;
        };
        const auto m = exact(match), o = exact(op), p = exact(port);
        return function(0, 0, m.get(), static_cast<uint32_t>(match.size()), o.get(), static_cast<uint32_t>(op.size()),
                        p.get(), static_cast<uint32_t>(port.size()), last);
    }
};

TEST_F(ChipTest, RuleLivesFromInstallationToRemoval) {
    Buffers rule = Buffers::deny({PORT, 4}).item(4, u16(VLAN)).item(5, u16(0x0806));
    EXPECT_FALSE(denies(arp()));
    ASSERT_EQ(rule.install(), 0);
    EXPECT_TRUE(denies(arp()));
    EXPECT_TRUE(denies(arp(), 4));
    EXPECT_TRUE(denies(arp(), 0x10000 + PORT)) << "ports are known by their low 16 bits";
    EXPECT_FALSE(denies(arp(), 5));
    EXPECT_FALSE(denies(arp(), PORT, VLAN + 1));
    EXPECT_FALSE(denies(lldp()));
    EXPECT_EQ(rule.packets(), 3U);
    EXPECT_NE(rule.entry_id(), rule.stat_id());
    ASSERT_EQ(chip().rules().size(), 1U);
    EXPECT_EQ(chip().rules()[0].entry_id, rule.entry_id());
    EXPECT_EQ(chip().rules()[0].description, "deny ports 3,4 vlan 100 eth-type 0x0806");
    EXPECT_EQ(log(), "");

    EXPECT_EQ(rule.install(), card::kDuplicate);
    EXPECT_EQ(log(), "chip: install refused: installed already\n");
    const uint32_t stat_id = rule.stat_id();
    EXPECT_EQ(rule.remove(), 0);
    EXPECT_FALSE(denies(arp()));
    EXPECT_EQ(rule.remove(), card::kUnknown);
    EXPECT_EQ(log(), "chip: delete refused: not installed\n");

    uint32_t id = 77;
    EXPECT_EQ(rule.call(hw_driver_lookup_entry_by_stream, &id), card::kUnknown);
    EXPECT_EQ(rule.call(hw_driver_lookup_stat_id_by_stream, &id), card::kUnknown);
    EXPECT_EQ(id, 77U);
    atc_stat_hw_t stat = {1, 2};
    EXPECT_EQ(hw_driver_get_stat_by_stat_id(stat_id, &stat), card::kUnknown);
    EXPECT_EQ(stat.packets, 2U);
    EXPECT_EQ(hw_driver_get_stat_by_stat_id(stat_id, nullptr), card::kMalformed);
    EXPECT_EQ(rule.call(hw_driver_lookup_entry_by_stream, static_cast<uint32_t *>(nullptr)), card::kMalformed);
}

TEST_F(ChipTest, RuleIsKnownByItsWholeDescription) {
    const Buffers rules[] = {
        Buffers::deny({PORT, 4}).item(4, u16(VLAN)), Buffers::deny({4, PORT}).item(4, u16(VLAN)),
        Buffers::deny().item(4, u16(VLAN)),          Buffers::deny().item(4, u16(VLAN), ones(8)),
        Buffers::action(100).item(4, u16(VLAN)),     Buffers::action(101).item(4, u16(VLAN)),
    };
    for (const Buffers &rule : rules) {
        EXPECT_EQ(rule.install(), 0);
    }
    EXPECT_EQ(rules[1].remove(), 0);
    EXPECT_EQ(rules[1].entry_id(), 0U);
    EXPECT_NE(rules[0].entry_id(), 0U);
}

TEST_F(ChipTest, MalformedBuffersAreRefusedWithTheReason) {
    using Spoil = void (*)(Buffers &);
    const struct {
        const char *reason;
        std::vector<Spoil> spoils;
    } rows[] = {
        {"match list: length disagrees with its count",
         {[](Buffers &b) { b.match.resize(1); }, [](Buffers &b) { b.match.pop_back(); },
          [](Buffers &b) { b.match.push_back(0); }, [](Buffers &b) { b.match[1] = 0xFF; }}},
        {"match list: unknown field code", {[](Buffers &b) { b.match[2] = 7; }, [](Buffers &b) { b.match[2] = 11; }}},
        {"match list: wrong flag or mask length",
         {[](Buffers &b) { b.match[4] = 1; }, [](Buffers &b) { b.match[8] = 31; }}},
        {"match list: wrong value length",
         {[](Buffers &b) { b.match[6] = 1; }, [](Buffers &b) { b.match[7] = 0xFF; },
          [](Buffers &b) { b.item(2, Bytes(6)); }}},
        {"match list: bytes that must be 0 are not",
         {[](Buffers &b) { b.match[12] = 1; }, [](Buffers &b) { b.match[41] = 1; },
          [](Buffers &b) { b.match[89] = 1; }}},
        {"match list: a field twice", {[](Buffers &b) { b.item(4, u16(VLAN + 1)); }}},
        {"operation list: length disagrees with its count",
         {[](Buffers &b) { b.op.resize(1); }, [](Buffers &b) { b.op.resize(4); }, [](Buffers &b) { b.op.pop_back(); },
          [](Buffers &b) { b.op.push_back(0); }, [](Buffers &b) { b.op[0]++; }, [](Buffers &b) { b.op[0]--; }}},
        {"operation list: unknown operation code", {[](Buffers &b) { b.op[2] = 102; }}},
        {"operation list: wrong number of values",
         {[](Buffers &b) { b.op[4] = 1; }, [](Buffers &b) { b.operation(113, 2); }}},
        {"operation list: wrong value length", {[](Buffers &b) { b.op[14] = 5; }}},
        {"operation list: not just one of deny and count",
         {[](Buffers &b) { b.operation(101); }, [](Buffers &b) { b.op = u16(0); }}},
        {"port list: length disagrees with its count",
         {[](Buffers &b) { b.port.resize(3); }, [](Buffers &b) { b.port.pop_back(); },
          [](Buffers &b) { b.port[2] = 2; }}},
        {"port list: another kind than asked for", {[](Buffers &b) { b.port[0] = 0; }}},
        {"port list: no port", {[](Buffers &b) { b.on({}); }}},
    };
    for (const auto &row : rows) {
        for (const Spoil spoil : row.spoils) {
            Buffers rule = Buffers::deny().item(4, u16(VLAN));
            spoil(rule);
            EXPECT_EQ(rule.install(), card::kMalformed);
            EXPECT_EQ(log(), std::string("chip: install refused: ") + row.reason + "\n");
        }
    }
    const Buffers good = Buffers::deny();
    EXPECT_EQ(good.install(), 0);
    EXPECT_EQ(good.call(hw_driver_delete_qos_item_by_stream, static_cast<void *>(nullptr)), card::kMalformed)
        << "a deletion needs its own kind";
    EXPECT_EQ(hw_driver_set_stream_qos_item(0, 0, nullptr, 2, good.op.data(), 2, good.port.data(), 2, nullptr),
              card::kMalformed);
    EXPECT_EQ(chip().rules().size(), 1U);
}

TEST_F(ChipTest, FullChipRefusesUntilARuleGoes) {
    chip().set_capacity(2);
    const Buffers first = Buffers::deny({1}), second = Buffers::deny({2}), third = Buffers::deny({3});
    EXPECT_EQ(first.install(), 0);
    EXPECT_EQ(second.install(), 0);
    EXPECT_EQ(third.install(), card::kFull);
    EXPECT_EQ(log(), "chip: install refused: full\n");
    EXPECT_EQ(first.install(), card::kDuplicate) << "the nearer reason";
    EXPECT_EQ(first.remove(), 0);
    EXPECT_EQ(third.install(), 0);
    EXPECT_GT(third.entry_id(), second.entry_id()) << "ids are given out once";
    chip().set_capacity(0);
    EXPECT_EQ(chip().rules().size(), 2U) << "what is there stays";
    EXPECT_EQ(first.install(), card::kFull);
    chip().reset();
    EXPECT_TRUE(chip().rules().empty());
    EXPECT_EQ(first.install(), 0);
}

TEST_F(ChipTest, FirstDenyRuleAndFirstCountingRuleCount) {
    const Buffers counting = Buffers::action(101), also_counting = Buffers::action(106),
                  deny_arp = Buffers::deny().item(5, u16(0x0806)), deny_all = Buffers::deny();
    for (const Buffers *rule : {&counting, &also_counting, &deny_arp}) {
        ASSERT_EQ(rule->install(), 0);
    }
    EXPECT_TRUE(denies(arp())) << "a deny rule stops, whatever stands before it";
    EXPECT_FALSE(denies(lldp())) << "the other operations stop nothing";
    ASSERT_EQ(deny_all.install(), 0);
    EXPECT_TRUE(denies(arp()));
    EXPECT_TRUE(denies(lldp()));
    EXPECT_EQ(counting.packets(), 4U);
    EXPECT_EQ(also_counting.packets(), 0U);
    EXPECT_EQ(deny_arp.packets(), 2U);
    EXPECT_EQ(deny_all.packets(), 1U);
    EXPECT_EQ(chip().rules()[1].description, "count(106) port 3");
}

TEST_F(ChipTest, MasksDecideWhichBitsCount) {
    const Bytes mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    const Bytes ip = {10, 0, 0, 1};
    const Bytes ip6 = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    Bytes holes = ones(0);
    holes[1] = 0xF0;
    const Frame v4 = udp(), v6 = udp6();
    const struct {
        uint16_t code;
        Bytes value;
        Bytes mask;
        const char *text;
        Frame hit;
        Frame miss;
    } rows[] = {
        {0, mac, ones(256), "src-mac 00:11:22:33:44:55", arp(), arp().from("00:11:22:33:44:54")},
        {0, mac, ones(47), "src-mac 00:11:22:33:44:55/47", arp().from("00:11:22:33:44:54"),
         arp().from("00:11:22:33:44:57")},
        {1, mac, ones(48), "dst-mac 00:11:22:33:44:55", arp().to("00:11:22:33:44:55"), arp()},
        {2, ip, ones(24), "src-ip 10.0.0.1/24", udp().src_ip("10.0.0.77"), udp().src_ip("10.0.1.1")},
        {2, ip, ones(0), "src-ip 10.0.0.1/0", udp().src_ip("192.168.0.1"), udp6()},
        {2, ip, holes, "src-ip 10.0.0.1 mask 00f00000", udp().src_ip("9.15.255.255"), udp().src_ip("10.16.0.1")},
        {3, {10, 0, 0, 2}, ones(31), "dst-ip 10.0.0.2/31", udp().dst_ip("10.0.0.3"), udp().dst_ip("10.0.0.4")},
        {2, ip6, ones(128), "src-ip 2001:db8::1", v6, udp6().src_ip("2001:db8::3")},
        {2, ip6, ones(0), "src-ip 2001:db8::1/0", udp6().src_ip("::"), v4},
        {3, ip6, ones(120), "dst-ip 2001:db8::1/120", v6, udp6().dst_ip("2001:db8::1:1")},
        {6, {17}, ones(8), "ip-protocol 17", v4, tcp()},
        {6, {0}, ones(0), "ip-protocol 0/0", tcp(), arp()},
        {9, u16(0x1200), ones(256), "src-port 4608", udp(0x1200), udp(0x1201)},
        {10, u16(0), ones(0), "dst-port 0/0", udp(), icmp()},
        {9, u16(0x8700), ones(256), "src-port 34560", icmpv6(0x87), icmpv6(0x87, 1)},
        {4, u16(VLAN), ones(256), "vlan 100", arp(), arp().tag(101)},
        {5, u16(0x42), ones(256), "eth-type 0x0042", bpdu(2), llc(0x43)},
    };
    for (const auto &row : rows) {
        chip().reset();
        ASSERT_EQ(Buffers::deny().item(row.code, row.value, row.mask).install(), 0) << row.text << log();
        EXPECT_EQ(chip().rules()[0].description, std::string("deny port 3 ") + row.text);
        EXPECT_TRUE(denies(row.hit)) << row.text;
        EXPECT_FALSE(denies(row.miss)) << row.text;
    }
}

TEST_F(ChipTest, FramesWithoutTheFieldAreNotMatched) {
    ASSERT_EQ(Buffers::deny().item(0, Bytes(6), ones(0)).install(), 0);
    EXPECT_TRUE(denies(arp().cut(12)));
    EXPECT_FALSE(denies(arp().cut(11)));
    EXPECT_FALSE(chip().denies(nullptr, 0, PORT, VLAN));
    ASSERT_EQ(Buffers::deny().install(), 0);
    EXPECT_TRUE(chip().denies(nullptr, 0, PORT, VLAN)) << "a rule of no field asks for none";
}

// ---- Threads

TEST_F(ChipTest, CountsAreTrueWhileRulesComeAndGo) {
    const Buffers lasting = Buffers::deny().item(5, u16(0x0806));
    const Buffers passing = Buffers::deny().item(5, u16(0x88CC));
    ASSERT_EQ(lasting.install(), 0);
    constexpr uint32_t rounds = 20000;
    std::atomic<uint64_t> arp_stopped{0};
    std::vector<std::thread> senders;
    for (int i = 0; i < 2; ++i) {
        senders.emplace_back([&] {
            const Frame a = arp(), b = lldp();
            for (uint32_t n = 0; n < rounds; ++n) {
                arp_stopped += denies(a) ? 1 : 0;
                denies(b);
            }
        });
    }
    for (int n = 0; n < 500; ++n) {
        EXPECT_EQ(passing.install(), 0);
        EXPECT_EQ(chip().rules().size(), 2U);
        EXPECT_EQ(passing.remove(), 0);
    }
    for (std::thread &sender : senders) {
        sender.join();
    }
    EXPECT_EQ(arp_stopped, 2 * rounds);
    EXPECT_EQ(lasting.packets(), 2 * rounds);
}

}  // namespace
