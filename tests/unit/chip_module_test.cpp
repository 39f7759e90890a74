// chip_module_test.cpp: the software chip against the module: what both read in a frame, and the module's own rules.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "anti_cpu/anti_cpu.h"
#include "atc/parser.h"
#include "atc/protocol.h"
#include "chip/frame_key.h"
#include "chip_fixture.h"
#include "clock/clock.h"

namespace {

using ChipDecodingTest = ChipTest;

// ---- The chip's decoding against the module's

// A field of a key as text; empty when it is not there.
std::string field(const card::KeyBits &key, card::Field name) {
    card::KeyBits presence{};
    card::set_presence(presence, name);
    card::Pattern is_there{presence, presence};
    const card::FieldPlace place = card::field_place(name);
    return is_there.matches(key) ? std::string(key.bytes + place.offset, key.bytes + place.offset + place.length) : "";
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

    const auto big_endian = [](uint64_t value, int bytes) {
        std::string text;
        for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
            text += static_cast<char>(value >> shift);
        }
        return text;
    };
    const auto raw = [](const uint8_t *bytes, size_t size) { return std::string(bytes, bytes + size); };
    const struct {
        const char *name;
        card::Field field;
        std::string parsed;
    } rows[] = {
        {"source MAC", card::Field::kSourceMac, raw(info.src_mac, 6)},
        {"destination MAC", card::Field::kDestinationMac, raw(info.dst_mac, 6)},
        {"VLAN", card::Field::kVlan, big_endian(info.vlan, 2)},
        {"EtherType", card::Field::kEtherType, big_endian(info.eth_type, 2)},
        {"IP protocol", card::Field::kIpProtocol, big_endian(info.ip_protocol, 1)},
        {"source port", card::Field::kSourcePort, big_endian(info.src_port, 2)},
        {"destination port", card::Field::kDestinationPort, big_endian(info.dst_port, 2)},
        {"source IPv4", card::Field::kSourceIpv4, big_endian(info.src_ipv4, 4)},
        {"destination IPv4", card::Field::kDestinationIpv4, big_endian(info.dst_ipv4, 4)},
        {"source IPv6", card::Field::kSourceIpv6, raw(info.src_ipv6, 16)},
        {"destination IPv6", card::Field::kDestinationIpv6, raw(info.dst_ipv6, 16)},
    };
    for (const auto &row : rows) {
        const std::string nothing(row.parsed.size(), '\0');
        const std::string decoded = field(key, row.field);
        if (row.parsed != nothing && row.parsed != decoded) {
            return std::string(row.name) + (decoded.empty() ? " is missing in the chip" : " differs");
        }
        if (whole && row.parsed == nothing && !decoded.empty() && decoded != nothing) {
            return std::string(row.name) + " is missing in the module";
        }
    }
    return "";
}

TEST_F(ChipDecodingTest, ReadsTheSameFieldsAsTheModuleAtEveryLength) {
    std::vector<Frame> frames = {arp().tag(7),
                                 arp().tag(200).tag(300, 0x88A8),
                                 arp().tag(200, 0x9100, 7),
                                 arp().tags(4),
                                 arp().tags(5),
                                 udp().mpls(4),
                                 udp().mpls(5),
                                 udp().mpls(2).tag(9),
                                 udp().tag(9).mpls(2),
                                 udp().snap(),
                                 udp6().snap().tag(5),
                                 llc(0x00),
                                 eth(0x0000),
                                 eth(1500),
                                 eth(1501),
                                 udp().ip_version(6),
                                 udp6().ip_version(4),
                                 udp().ip_version(5),
                                 udp().eth_type(0x86DD),
                                 udp6().eth_type(0x0800),
                                 udp().options(10),
                                 udp().header_words(0),
                                 udp().header_words(15),
                                 udp().more_fragments().fragment_offset(100),
                                 tcp6().hop_by_hop(),
                                 icmpv6(135).hop_by_hop(3),
                                 icmpv6(135).hop_by_hop(255),
                                 ipv6(0),
                                 ipv6(58),
                                 ipv4(58),
                                 ipv6(44)};
    for (uint16_t id = 1; id <= ATC_PROTOCOL_COUNT; ++id) {
        frames.push_back(frame_of_class(id));
        frames.push_back(frame_of_class(id).tag(77));
    }
    for (const Frame &frame : frames) {
        EXPECT_EQ(disagreement(frame, true), "") << testing::PrintToString(frame);
        for (uint32_t size = 0; size < frame.size(); ++size) {
            ASSERT_EQ(disagreement(Frame(frame).cut(size), false), "")
                << "cut at " << size << ": " << testing::PrintToString(frame);
        }
    }
}

TEST_F(ChipDecodingTest, ReadsTheSameFieldsAsTheModuleInDistortedFrames) {
    uint32_t seed = 20210902;
    const auto random = [&seed](uint32_t below) {
        seed = seed * 1664525 + 1013904223;
        return (seed >> 8) % below;
    };
    for (uint32_t i = 0; i < 50000; ++i) {
        Frame frame = frame_of_class(static_cast<uint16_t>(1 + random(ATC_PROTOCOL_COUNT)));
        if (random(3) == 0) {
            frame.tag(static_cast<uint16_t>(random(0x10000)));
        }
        for (uint32_t change = random(4); change > 0; --change) {
            const uint32_t offset = 12 + random(std::min(frame.size() - 12, 50U));
            frame.set(offset, {static_cast<uint8_t>(random(256))});
        }
        ASSERT_EQ(disagreement(frame, true), "") << "step " << i << ": " << testing::PrintToString(frame);
    }
}

// ---- The module's rules in the chip

class ModuleInChipTest : public ChipTest {
protected:
    static void SetUpTestSuite() {
        card::Clock::instance().simulate(1'630'554'380 * card::kNanosecondsPerSecond);
        ASSERT_EQ(atc_init(), 0);
    }
    // The test runner takes its times from the clock too.
    static void TearDownTestSuite() { static const card::RealTimeScope for_good; }
    void TearDown() override {
        atc_api_clear_statistic_all();
        for (uint32_t id = 1; id <= ATC_PROTOCOL_COUNT; ++id) {
            atc_api_set_protocol_hw_deny_enable(id, 0);
            atc_api_set_protocol_src_hw_deny_enable(id, 0);
        }
        EXPECT_TRUE(chip().rules().empty()) << chip().rules()[0].description;
        ChipTest::TearDown();
    }

    // Floods the module until the chip has a rule; its description, or empty when none comes.
    std::string flood(uint16_t id, bool per_source) {
        atc_api_set_fast_period_time(1);
        atc_api_set_protocol_fp_limit(id, 2);
        atc_api_set_protocol_src_fp_limit(id, 2);
        atc_api_set_protocol_hw_deny_enable(id, per_source ? 0 : 1);
        atc_api_set_protocol_src_hw_deny_enable(id, per_source ? 1 : 0);
        const Frame frame = frame_of_class(id);
        for (int i = 0; i < 10 && chip().rules().empty(); ++i) {
            atc_api_receive_packet(frame.data(), frame.size(), PORT, VLAN);
        }
        return chip().rules().empty() ? "" : chip().rules()[0].description;
    }
};

// Changes one thing about a frame of the class; what a rule must name to notice.
struct Change {
    const char *names;  // in the rule's description
    Frame frame;
    uint32_t port;
    uint32_t vlan;
};

std::vector<Change> changes(uint16_t id) {
    const Frame frame = frame_of_class(id);
    std::vector<Change> all = {
        {" port ", frame, PORT + 1, VLAN},
        {" vlan ", frame, PORT, VLAN + 1},
        {" vlan ", Frame(frame).tag(VLAN + 1), PORT, VLAN},
        {" src-mac ", Frame(frame).from("00:11:22:33:44:56"), PORT, VLAN},
        {" dst-mac ", Frame(frame).to("00:00:00:00:00:99"), PORT, VLAN},
        {" eth-type ", Frame(frame).eth_type(0x7777), PORT, VLAN},
    };
    const uint32_t ip = frame.l2_payload();
    const uint32_t l4 = frame.l4();
    if (l4 != 0) {
        const uint32_t last_src_byte = ip + (frame.data()[ip] >> 4 == 6 ? 23 : 15);
        const auto other = [&](uint32_t offset) {
            return Frame(frame).set(offset, {static_cast<uint8_t>(frame.data()[offset] ^ 1)});
        };
        all.push_back({" src-ip ", other(last_src_byte), PORT, VLAN});
        all.push_back({" ip-protocol ", Frame(frame).ip_proto(99), PORT, VLAN});
        all.push_back({" src-port ", other(l4 + 1), PORT, VLAN});
        all.push_back({" dst-port ", other(l4 + 3), PORT, VLAN});
    }
    return all;
}

TEST_F(ModuleInChipTest, RuleOfEveryClassStopsItsFrameAndNoOther) {
    for (const bool per_source : {false, true}) {
        for (uint16_t id = 1; id <= ATC_PROTOCOL_COUNT; ++id) {
            SCOPED_TRACE(std::to_string(id) + (per_source ? " by source" : ""));
            const std::string rule = flood(id, per_source);
            if (per_source && id == ATC_SELF) {
                EXPECT_EQ(rule, "") << "the device itself is no source";
                continue;
            }
            ASSERT_EQ(chip().rules().size(), 1U);
            EXPECT_TRUE(denies(frame_of_class(id))) << rule;
            EXPECT_TRUE(id != ATC_ICMPV6_NS || rule.find("vlan 100 eth-type 0x86dd") != rule.npos) << rule;
            EXPECT_TRUE(id != ATC_ICMPV6_NS || rule.ends_with(" ip-protocol 58 src-port 34560")) << rule;
            int noticed = 0;
            for (const Change &change : changes(id)) {
                const bool is_named = rule.find(change.names) != std::string::npos;
                EXPECT_EQ(denies(change.frame, change.port, change.vlan), !is_named)
                    << rule << " against" << change.names;
                noticed += is_named ? 1 : 0;
            }
            EXPECT_GE(noticed, 3) << "port and VLAN at least";

            EXPECT_EQ(atc_api_clear_hw_deny_info(0), 0);
            EXPECT_TRUE(chip().rules().empty()) << "the removal found what was installed";
            atc_api_clear_statistic_all();
        }
    }
    EXPECT_EQ(log(), "");
}

TEST_F(ModuleInChipTest, FullChipIsAnEverydayCase) {
    chip().set_capacity(0);
    EXPECT_EQ(flood(ATC_ARP, false), "");
    std::string refusals;
    for (int packet = 2; packet <= 10; ++packet) {
        refusals += "chip: install refused: full\ndrv set stream deny tocpu faild!\n";
    }
    EXPECT_EQ(log(), refusals) << "every packet from the limit on tries";
    chip().set_capacity(1);
    EXPECT_NE(flood(ATC_ARP, false), "");
    EXPECT_EQ(log(), "");
}

TEST_F(ModuleInChipTest, ConfiguredFiltersStopOnlyWhenTheyDeny) {
    const std::pair<uint32_t, std::string> rows[] = {
        {ATC_HW_ACTION_DENY, "deny"},
        {ATC_HW_ACTION_2, "count(101)"},
        {ATC_HW_ACTION_3, "count(106)"},
    };
    for (const auto &[action, text] : rows) {
        atc_filter_rule_t rule = {};
        rule.id = 5;
        rule.port = PORT;
        std::memcpy(rule.src_mac, "\x00\x11\x22\x33\x44\x55", 6);
        rule.src_mac_masklen = 40;
        rule.src_ipv4 = 0x0A000000;
        rule.src_ipv4_masklen = 24;
        rule.ip_protocol = 17;
        rule.action = action;
        ASSERT_EQ(atc_api_cfg_hw_filter_rule_add(&rule), 0);
        EXPECT_EQ(chip().rules()[0].entry_id, rule.sdk_id);
        EXPECT_EQ(chip().rules()[0].description,
                  text + " port 3 src-mac 00:11:22:33:44:55/40 src-ip 10.0.0.0/24 ip-protocol 17");
        EXPECT_EQ(denies(udp()), action == ATC_HW_ACTION_DENY);
        EXPECT_FALSE(denies(udp().src_ip("10.0.1.1")));
        EXPECT_EQ(chip().rules()[0].packets, 1U);
        EXPECT_EQ(atc_api_cfg_hw_filter_rule_del(5), 0);
    }
}

}  // namespace
