// SPDX-License-Identifier: Apache-2.0
// kernel_test.cpp: the kernel's parser and rule search, held against the module and the software chip.
//
// Frames of every class, changed at random: bytes, tags, labels, lengths. ATC_TEST_STEPS says how many (50,000 unless
// set), ATC_TEST_SEED repeats a run. Skipped where no program may be loaded.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>

#include "anti_cpu/protocols.h"
#include "atc/parser.h"
#include "atc/rule_match.h"
#include "chip/chip.h"
#include "chip/kernel/guard.h"
#include "live/class_tables.h"
#include "live/filter_rules.h"
#include "packet_flow.h"
#include "sample_frames.h"

namespace {

constexpr uint32_t PORT = 3;
constexpr uint32_t VLAN = 100;
constexpr host::MacAddress OWN_MAC = {2, 0, 0, 0, 0, 1};

uint64_t number_from(const char *variable, uint64_t otherwise) {
    const char *text = std::getenv(variable);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

class KernelTest : public ::testing::Test {
protected:
    void SetUp() override {
        options_.classes = host::class_tables();
        options_.device_mac = OWN_MAC;
        options_.with_probe = true;
        std::string error;
        guard_ = card::Guard::load(options_, error);
        if (guard_ == nullptr) {
            ASSERT_EQ(error.find("verifier"), std::string::npos) << error;
            GTEST_SKIP() << "skipped: the kernel takes no program: " << error;
        }
        for (std::vector<host::SampleFrame> frames : {host::sample_frames(), host::derived_frames()}) {
            for (host::SampleFrame &frame : frames) {
                frame.bytes.resize(std::max<size_t>(frame.bytes.size(), 60));  // IEEE 802.3 clause 4A.4.2
                samples_.push_back(std::move(frame.bytes));
            }
        }
        seed_ = number_from("ATC_TEST_SEED", std::random_device()());
        random_.seed(seed_);
    }

    uint64_t below(uint64_t end) { return random_() % end; }

    std::vector<uint8_t> changed_frame() {
        std::vector<uint8_t> frame = samples_[below(samples_.size())];
        for (uint64_t tags = below(4) == 0 ? below(7) : 0; tags > 0; tags--) {
            static constexpr uint8_t types[][2] = {{0x81, 0}, {0x88, 0xa8}, {0x91, 0}, {0x88, 0x47}};
            const uint8_t *type = types[below(4)];
            const uint8_t tag[] = {type[0], type[1], static_cast<uint8_t>(below(256)),
                                   static_cast<uint8_t>(below(256))};
            frame.insert(frame.begin() + 12, tag, tag + sizeof(tag));
        }
        for (uint64_t bytes = below(4); bytes > 0; bytes--) {
            frame[12 + below(std::min<size_t>(frame.size(), 90) - 12)] = static_cast<uint8_t>(random_());
        }
        if (below(16) == 0) {
            std::copy(OWN_MAC.begin(), OWN_MAC.end(), frame.begin() + 6);
        }
        if (below(3) == 0) {
            frame.resize(14 + below(frame.size() - 13));
        }
        return frame;
    }

    // A rule that names some of the fields that the frame has, as the frame or nearly as the frame has them.
    card::Description rule_about(const std::vector<uint8_t> &frame) {
        const card::KeyBits key = card::frame_key(frame.data(), static_cast<uint32_t>(frame.size()), VLAN);
        card::Description rule;
        for (size_t i = 0; i < card::kFieldCount; i++) {
            const auto field = static_cast<card::Field>(i);
            if (!card::is_present(key, field) || below(3) == 0) {
                continue;
            }
            const card::FieldPlace place = card::field_place(field);
            std::memcpy(rule.pattern.value.bytes + place.offset, key.bytes + place.offset, place.length);
            std::memset(rule.pattern.mask.bytes + place.offset, below(8) == 0 ? 0xf0 : 0xff, place.length);
            card::set_presence(rule.pattern.value, field);
            card::set_presence(rule.pattern.mask, field);
        }
        if (below(8) == 0) {
            card::set_link_layer_mark(rule.pattern.value);
            card::set_link_layer_mark(rule.pattern.mask);
        }
        rule.action = below(3) == 0 ? card::Action::kCount : card::Action::kDeny;
        rule.ports = {PORT, static_cast<uint16_t>(PORT + below(2))};
        rule.identity = std::to_string(random_());
        return rule;
    }

    // An operator's rule that names some of what the packet has, addresses often by a prefix.
    atc_filter_rule_t filter_about(const atc_pkt_info_t &packet) {
        atc_filter_rule_t rule{};
        const auto name = [&](auto &member, const auto &value) {
            if (below(4) == 0) {
                std::memcpy(&member, &value, sizeof(member));
            }
        };
        name(rule.port, packet.port);
        name(rule.vlan, packet.vlan);
        name(rule.protocol, packet.protocol);
        name(rule.eth_type, packet.eth_type);
        name(rule.src_mac, packet.src_mac);
        name(rule.dst_mac, packet.dst_mac);
        name(rule.src_ipv4, packet.src_ipv4);
        name(rule.dst_ipv4, packet.dst_ipv4);
        name(rule.src_ipv6, packet.src_ipv6);
        name(rule.dst_ipv6, packet.dst_ipv6);
        name(rule.src_port, packet.src_port);
        name(rule.dst_port, packet.dst_port);
        rule.src_mac_masklen = static_cast<uint8_t>(8 * below(7));
        rule.dst_mac_masklen = static_cast<uint8_t>(8 * below(3));
        rule.src_ipv4_masklen = static_cast<uint8_t>(11 * below(3));
        rule.dst_ipv4_masklen = static_cast<uint8_t>(16 * below(3));
        rule.src_ipv6_masklen = static_cast<uint16_t>(61 * below(3));
        rule.dst_ipv6_masklen = static_cast<uint16_t>(64 * below(3));
        rule.direction = static_cast<uint8_t>(below(8) == 0 ? uint64_t{ATC_DIRECTION_TX} : below(2));
        rule.pkt_len = below(4) == 0 ? static_cast<uint32_t>(packet.pkt_len + below(2) - below(2)) : 0;
        rule.aux_match = static_cast<uint8_t>(below(16) == 0);
        rule.action = below(3) == 0 ? ATC_ACTION_PERMIT : ATC_ACTION_DENY;
        return rule;
    }

    card::GuardOptions options_;
    std::unique_ptr<card::Guard> guard_;
    std::vector<std::vector<uint8_t>> samples_;
    std::mt19937_64 random_;
    uint64_t seed_ = 0;
};

// Empty where kernel, module and chip make the same of a frame, else what they differ in.
std::string difference(card::Guard &guard, const std::vector<uint8_t> &frame) {
    const host::PacketFlow module(VLAN, OWN_MAC);
    const auto len = static_cast<uint32_t>(frame.size());
    const kernel_parsed parsed = guard.probe(frame, PORT, VLAN).parsed;
    host::Packet packet{};
    packet.data = frame.data();
    packet.len = len;
    const host::SeenPacket seen = module.look(packet, PORT);
    const card::KeyBits key = card::frame_key(frame.data(), len, VLAN);
    return parsed.flow.protocol != seen.flow.protocol         ? "class"
           : parsed.flow.vlan != seen.flow.vlan               ? "VLAN"
           : parsed.flow.src_type != seen.address.type        ? "type of source"
           : std::memcmp(&parsed.key, &key, sizeof(key)) != 0 ? "key"
                                                              : "";
}

TEST_F(KernelTest, ParsesAsTheModuleAndTheChipDo) {
    for (uint64_t steps = number_from("ATC_TEST_STEPS", 50'000); steps > 0; steps--) {
        const std::vector<uint8_t> frame = changed_frame();
        ASSERT_EQ(difference(*guard_, frame), "") << "seed " << seed_ << ::testing::PrintToString(frame);
    }
}

// The comparison is worth something: with one entry of one table wrong, it says so.
TEST_F(KernelTest, NoticesAWrongClass) {
    options_.classes.icmpv6[135]++;
    std::string error;
    guard_ = card::Guard::load(options_, error);
    ASSERT_NE(guard_, nullptr) << error;
    uint64_t steps = 0;
    while (steps < 50'000 && difference(*guard_, changed_frame()) != "class") {
        steps++;
    }
    EXPECT_LT(steps, 50'000U) << "seed " << seed_;
}

TEST_F(KernelTest, SearchesRulesAsTheSoftwareChipDoes) {
    card::Chip software;
    card::Chip kernel;
    kernel.set_plane(&guard_->rules());
    std::vector<card::Description> installed;
    for (uint64_t steps = number_from("ATC_TEST_STEPS", 50'000) / 4; steps > 0; steps--) {
        const std::vector<uint8_t> frame = changed_frame();
        if (below(8) == 0 && installed.size() < 40) {
            installed.push_back(rule_about(frame));
            ASSERT_EQ(software.install(installed.back()), 0);
            ASSERT_EQ(kernel.install(installed.back()), 0) << "seed " << seed_;
        } else if (below(16) == 0 && !installed.empty()) {
            std::swap(installed[below(installed.size())], installed.back());
            ASSERT_EQ(software.remove(installed.back()), kernel.remove(installed.back()));
            installed.pop_back();
        }
        const bool stopped = software.denies(frame.data(), static_cast<uint32_t>(frame.size()), PORT, VLAN);
        ASSERT_EQ(guard_->probe(frame, PORT, VLAN).stopped, stopped) << "seed " << seed_;
    }
    const std::vector<card::ChipRule> expected = software.rules();
    const std::vector<card::ChipRule> found = kernel.rules();
    ASSERT_EQ(found.size(), expected.size());
    for (size_t i = 0; i < expected.size(); i++) {
        EXPECT_EQ(found[i].packets, expected[i].packets) << "rule " << i << ", seed " << seed_;
    }
    // More masks than there are slots: refused, and nothing of it stays.
    std::vector<card::Description> many;
    for (int i = 0; i < 2 * KERNEL_MASKS && (many.empty() || kernel.install(many.back()) == 0); i++) {
        many.push_back({std::to_string(i), card::Action::kDeny, {}, {PORT}, ""});
        many.back().pattern.mask.bytes[static_cast<size_t>(i) / 8] = static_cast<uint8_t>(1 + i % 8);
    }
    EXPECT_EQ(kernel.install(many.back()), card::kFull);
    EXPECT_LT(many.size(), size_t{KERNEL_MASKS} + 1);
}

TEST_F(KernelTest, ObeysTheOperatorsRulesAsTheModuleDoes) {
    std::vector<atc_filter_rule_t> rules;
    uint64_t decided[] = {0, 0, 0};
    for (uint64_t steps = number_from("ATC_TEST_STEPS", 50'000) / 4; steps > 0; steps--) {
        const std::vector<uint8_t> frame = changed_frame();
        const auto len = static_cast<uint32_t>(frame.size());
        atc_pkt_info_t packet;
        atc_packet_begin(&packet, ATC_DIRECTION_RX, PORT, VLAN);
        if (std::equal(OWN_MAC.begin(), OWN_MAC.end(), frame.begin() + 6)) {
            packet.protocol = ATC_SELF;
        } else {
            atc_packet_parser(frame.data(), len, &packet);
        }
        if (below(8) == 0) {
            rules.resize(std::min<size_t>(rules.size() + 1, 12));
            std::swap(rules[below(rules.size())], rules.back());
            rules.back() = filter_about(packet);
            std::vector<card::KernelFilter> filters;
            for (const atc_filter_rule_t &rule : rules) {
                if (const auto filter = host::kernel_filter(rule)) {
                    filters.push_back(*filter);
                }
            }
            ASSERT_EQ(guard_->set_filters(filters), 0U);
        }
        const auto matches = [&](uint32_t action) {
            return std::ranges::any_of(rules, [&](const atc_filter_rule_t &rule) {
                return rule.action == action && atc_filter_rule_check_ex(&rule, &packet) == 1;
            });
        };
        const uint32_t expected = matches(ATC_ACTION_PERMIT) ? KERNEL_RULED
                                  : matches(ATC_ACTION_DENY) ? KERNEL_RULED | KERNEL_DENIED
                                                             : 0;
        decided[expected / KERNEL_RULED + expected / 2 % 2]++;
        ASSERT_EQ(guard_->probe(frame, PORT, VLAN).flags, expected)
            << "seed " << seed_ << ::testing::PrintToString(frame);
    }
    for (const uint64_t count : decided) {
        EXPECT_GT(count, 100U) << "none, permitted or denied: one of them was hardly tried";
    }
}

TEST_F(KernelTest, RefusesWhatFindsNoRoom) {
    kernel_flow flow{};
    for (flow.port = 0; flow.port < KERNEL_DENIES; flow.port++) {
        ASSERT_TRUE(guard_->deny(flow)) << flow.port;
    }
    EXPECT_FALSE(guard_->deny(flow));
    EXPECT_EQ(guard_->denies(), size_t{KERNEL_DENIES});
    kernel_flow first{};
    EXPECT_TRUE(guard_->allow(first));
    EXPECT_TRUE(guard_->deny(flow));
    // One kind of filters more than there are slots; one that goes makes room for it.
    std::vector<card::KernelFilter> filters(KERNEL_MASKS + 1);
    for (size_t i = 0; i < filters.size(); i++) {
        filters[i].mask.bytes[i / 8] = static_cast<uint8_t>(1U << i % 8);
    }
    EXPECT_EQ(guard_->set_filters(filters), 1U);
    filters.erase(filters.begin());
    EXPECT_EQ(guard_->set_filters(filters), 0U);
}

}  // namespace
