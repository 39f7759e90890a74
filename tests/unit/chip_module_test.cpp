// chip_module_test.cpp: the software chip against the module: what both read in a frame, and the module's own rules.
#include <algorithm>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "anti_cpu/anti_cpu.h"
#include "atc/parser.h"
#include "atc/protocol.h"
#include "chip/frame_key.h"
#include "chip_fixture.h"
#include "clock/clock.h"

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

// A started module, and a frame for the rules that it installs.
class ModuleInChipTest : public ChipTest {
protected:
    static void SetUpTestSuite() {
        card::Clock::instance().simulate(1'630'554'380 * card::kNanosecondsPerSecond);
        ASSERT_EQ(atc_init(), 0);
    }
    // The test runner takes its times from the clock too.
    static void TearDownTestSuite() { static const card::RealTimeScope for_good; }

    // Floods the module until the chip has a rule; its description, or empty when none comes.
    std::string flood(uint16_t id, bool per_source) {
        atc_api_set_fast_period_time(1);
        (per_source ? atc_api_set_protocol_src_fp_limit : atc_api_set_protocol_fp_limit)(id, 2);
        atc_api_set_protocol_hw_deny_enable(id, per_source ? 0 : 1);
        atc_api_set_protocol_src_hw_deny_enable(id, per_source ? 1 : 0);
        const Frame frame = frame_of_class(id);
        for (int i = 0; i < 10 && chip().rules().empty(); ++i) {
            atc_api_receive_packet(frame.data(), frame.size(), PORT, VLAN);
        }
        return chip().rules().empty() ? "" : chip().rules()[0].description;
    }
};

// What a rule must name to tell such a frame from that of its class.
struct Change {
    const char *names;  // in the rule's description
    Frame frame;
    uint32_t port;
    uint32_t vlan;
};

std::vector<Change> changes(uint16_t id) {
    const Frame frame = frame_of_class(id);
    const auto other = [&](uint32_t offset) {
        return Frame(frame).set(offset, {static_cast<uint8_t>(frame.data()[offset] ^ 1)});
    };
    std::vector<Change> all = {
        {" port ", frame, PORT + 1, VLAN},
        {" vlan ", frame, PORT, VLAN + 1},
        {" vlan ", Frame(frame).tag(VLAN + 1), PORT, VLAN},
        {" src-mac ", other(11), PORT, VLAN},
        {" dst-mac ", other(5), PORT, VLAN},
        {" eth-type ", Frame(frame).eth_type(0x7777), PORT, VLAN},
    };
    if (const uint32_t ip = frame.l2_payload(), l4 = frame.l4(); l4 != 0) {
        all.push_back({" src-ip ", other(ip + (frame.data()[ip] >> 4 == 6 ? 23 : 15)), PORT, VLAN});
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
}

}  // namespace
