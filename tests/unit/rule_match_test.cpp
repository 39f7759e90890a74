// SPDX-License-Identifier: Apache-2.0
// rule_match_test.cpp: one rule against one packet, held against a twin that walks the members bit by bit.
#include "atc/rule_match.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "fixture.h"
#include "frames.h"

namespace {

bool twin_prefix(const Bytes &rule, const Bytes &pkt, uint32_t masklen) {
    const auto width = static_cast<uint32_t>(rule.size() * 8);
    bool matches = masklen <= width;
    for (uint32_t n = 0; n < (masklen == 0 ? width : std::min(masklen, width)); ++n) {
        matches &= ((rule[n / 8] ^ pkt[n / 8]) >> (7 - n % 8) & 1) == 0;
    }
    return matches || rule == Bytes(rule.size(), 0);
}

// Addresses in network byte order, or numbers.
template <typename member_t>
bool twin_prefix(const member_t &rule, const member_t &pkt, uint32_t masklen) {
    const auto bytes = [](const auto &member) {
        if constexpr (sizeof(member_t) == 4) {
            return Bytes{uint8_t(member >> 24), uint8_t(member >> 16), uint8_t(member >> 8), uint8_t(member)};
        } else {
            return Bytes(std::begin(member), std::end(member));
        }
    };
    return twin_prefix(bytes(rule), bytes(pkt), masklen);
}

bool twin(const atc_filter_rule_t &r, const atc_pkt_info_t &p, bool with_length) {
    const auto same = [](uint32_t rule, uint32_t pkt) { return rule == 0 || rule == pkt; };
    return same(r.direction, p.direction) && same(r.vlan, p.vlan) && same(r.port, p.port) &&
           same(r.protocol, p.protocol) && same(r.eth_type, p.eth_type) && same(r.aux_match, p.aux_match) &&
           same(r.src_port, p.src_port) && same(r.dst_port, p.dst_port) &&
           twin_prefix(r.src_mac, p.src_mac, r.src_mac_masklen) &&
           twin_prefix(r.dst_mac, p.dst_mac, r.dst_mac_masklen) &&
           twin_prefix(r.src_ipv4, p.src_ipv4, r.src_ipv4_masklen) &&
           twin_prefix(r.dst_ipv4, p.dst_ipv4, r.dst_ipv4_masklen) &&
           twin_prefix(r.src_ipv6, p.src_ipv6, r.src_ipv6_masklen) &&
           twin_prefix(r.dst_ipv6, p.dst_ipv6, r.dst_ipv6_masklen) &&
           (!with_length || r.pkt_len == 0 || p.pkt_len > r.pkt_len);
}

// A rule made of a packet: most members are the packet's or 0, so that many rules match; some differ in one bit.
class RuleMaker {
public:
    explicit RuleMaker(uint32_t seed) : engine_(seed) {}
    uint32_t up_to(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n)(engine_); }

    atc_filter_rule_t rule_like(const atc_pkt_info_t &pkt) {
        atc_filter_rule_t rule = pkt;
        rule.id = up_to(9);  // members that take no part hold anything
        rule.action = up_to(9);
        blur(&rule.direction, &rule.vlan, &rule.port, &rule.protocol, &rule.eth_type, &rule.aux_match, &rule.src_mac,
             &rule.dst_mac, &rule.src_ipv4, &rule.dst_ipv4, &rule.src_ipv6, &rule.dst_ipv6, &rule.src_port,
             &rule.dst_port);
        masklens(48, &rule.src_mac_masklen, &rule.dst_mac_masklen);
        masklens(32, &rule.src_ipv4_masklen, &rule.dst_ipv4_masklen);
        masklens(128, &rule.src_ipv6_masklen, &rule.dst_ipv6_masklen);
        rule.pkt_len = up_to(1) == 0 ? 0 : pkt.pkt_len - 2 + up_to(2);  // two shorter ... as long
        return rule;
    }

private:
    template <typename... member_t>
    void blur(member_t *...members) {
        (blur_bytes(reinterpret_cast<uint8_t *>(members), sizeof(*members)), ...);
    }
    void blur_bytes(uint8_t *bytes, uint32_t size) {
        const uint32_t n = up_to(size * 8 - 1);
        if (const uint32_t dice = up_to(11); dice < 4) {
            std::fill_n(bytes, size, uint8_t{0});
        } else if (dice == 4) {
            bytes[n / 8] = static_cast<uint8_t>(bytes[n / 8] ^ 1U << n % 8);
        }
    }
    template <typename value_t>
    void masklens(uint32_t width, value_t *src, value_t *dst) {
        for (value_t *masklen : {src, dst}) {
            *masklen = static_cast<value_t>(up_to(19) == 0 ? width + 1 + up_to(7) : up_to(width));
        }
    }

    std::mt19937 engine_;
};

TEST(RuleMatch, AgreesWithItsTwin) {
    RuleMaker maker(test_seed());
    int matched = 0;
    constexpr int rounds = 30000;
    for (int round = 0; round < rounds; ++round) {
        atc_pkt_info_t pkt;
        auto *bytes = reinterpret_cast<uint8_t *>(&pkt);
        std::generate_n(bytes, sizeof(pkt), [&] { return static_cast<uint8_t>(maker.up_to(255)); });
        pkt.pkt_len = 60 + maker.up_to(1500);
        const atc_filter_rule_t rule = maker.rule_like(pkt);
        ASSERT_EQ(atc_rule_match(&rule, &pkt), twin(rule, pkt, false)) << "round " << round;
        ASSERT_EQ(atc_filter_rule_check_ex(&rule, &pkt), twin(rule, pkt, true) ? 1 : 0) << "round " << round;
        ASSERT_EQ(atc_rule_masks_fit(&rule), std::max(rule.src_mac_masklen, rule.dst_mac_masklen) <= 48 &&
                                                 std::max(rule.src_ipv4_masklen, rule.dst_ipv4_masklen) <= 32 &&
                                                 std::max(rule.src_ipv6_masklen, rule.dst_ipv6_masklen) <= 128);
        matched += twin(rule, pkt, true);
    }
    EXPECT_GT(matched, rounds / 50) << "both answers are asked for, often";
    EXPECT_LT(matched, rounds / 2);
}

class RuleVerdicts : public ModuleTest {
protected:
    struct Added {
        atc_filter_rule_t rule;
        uint32_t list_type;
    };

    // Under an id of its own: a new kind of rule, or one that compares the same members as one that is there already.
    void add(const atc_pkt_info_t &pkt) {
        Added added = {maker.rule_like(pkt), maker.up_to(1)};
        if (!rules.empty() && maker.up_to(2) > 0) {
            added.rule = rules[maker.up_to(static_cast<uint32_t>(rules.size()) - 1)].rule;
            added.rule.src_ipv4 ^= added.rule.src_ipv4 == 0 ? 0 : 1 + maker.up_to(0xFFFF);
            added.rule.src_port = static_cast<uint16_t>(added.rule.src_port == 0 ? 0 : 1 + maker.up_to(9));
        }
        added.rule.id = ++last_id;
        added.rule.action = maker.up_to(3);
        if (atc_api_cfg_filter_rule_add(&added.rule, added.list_type) == 0) {
            rules.push_back(added);
        }
    }

    void remove() {
        std::swap(rules[maker.up_to(static_cast<uint32_t>(rules.size()) - 1)], rules.back());
        EXPECT_EQ(atc_api_cfg_filter_rule_del(rules.back().rule.id, rules.back().list_type), 0);
        rules.pop_back();
    }

    int any(uint32_t action, const atc_pkt_info_t &pkt) const {
        return std::ranges::any_of(
            rules, [&](const Added &added) { return added.rule.action == action && twin(added.rule, pkt, true); });
    }

    RuleMaker maker{test_seed()};
    std::vector<Added> rules;
    uint32_t last_id = 0;
};

// However few allocations succeed; and with all of them, the lists are not walked.
TEST_F(RuleVerdicts, AreThoseOfAWalk) {
    uint32_t matched = 0;
    atc_pkt_info_t pkt = {};
    for (int step = 0; step < 6000; ++step) {
        if (step % 200 == 0) {
            std::generate_n(reinterpret_cast<uint8_t *>(&pkt), sizeof(pkt),
                            [&] { return static_cast<uint8_t>(maker.up_to(255)); });
        }
        const size_t before = rules.size();
        const bool fails = maker.up_to(3) == 0;
        if (fails) {
            fake().fail(Call::alloc, 1 + maker.up_to(2), maker.up_to(1) == 0);
        }
        if (rules.empty() || maker.up_to(9) > (step % 200 > 120 ? 8U : 2U)) {
            add(pkt);
        } else {
            remove();
        }
        fake().fail_none();
        pkt.src_port = static_cast<uint16_t>(1 + maker.up_to(9));
        pkt.pkt_len = 60 + maker.up_to(1500);
        const atc_guard_t guard;
        const bool is_whole =
            atc_rule_index_is_whole(&g_atc_global.deny_rules) && atc_rule_index_is_whole(&g_atc_global.permit_rules);
        EXPECT_TRUE(is_whole || fails || rules.size() == before);
        ASSERT_EQ(atc_filter_rule_check_deny(&pkt), any(ATC_ACTION_DENY, pkt)) << "step " << step;
        ASSERT_EQ(atc_filter_rule_check_permit(&pkt), any(ATC_ACTION_PERMIT, pkt)) << "step " << step;
        matched += any(ATC_ACTION_DENY, pkt) ? 1 : 0;
    }
    EXPECT_GT(matched, 300U) << "both answers are asked for, often";
    EXPECT_LT(matched, 5700U);
}

TEST(CmpByMasklen, OrdersByTheMaskedPrefix) {
    struct {
        Bytes a, b;
        uint32_t bits;
        int expected;
    } const rows[] = {
        {{9, 255}, {10, 0}, 16, -1},      // the first difference decides
        {{0x80}, {0x7F}, 8, 1},           // nothing is read behind whole bytes
        {{10, 0x1F}, {10, 0x10}, 12, 0},  // difference behind the prefix
        {{10, 0x20}, {10, 0x10}, 12, 1},  // difference in the last bit
        {Bytes(17), Bytes(17), 129, -1},
    };
    for (const auto &row : rows) {
        // In blocks of exactly their size, so that a sanitizer sees a read behind the end.
        EXPECT_EQ(atc_cmp_by_masklen(Frame(row.a).exact().get(), Frame(row.b).exact().get(), row.bits), row.expected);
    }
}

TEST(MasklenToMask, WritesOneByteBehindTheWholeOnes) {
    uint8_t mask[] = {0xA5, 0xA5, 0xA5, 0xA5};
    EXPECT_EQ(atc_masklen_to_mask(mask, 16), 0);
    EXPECT_EQ(Bytes(mask, mask + 4), (Bytes{0xFF, 0xFF, 0, 0xA5}));
    EXPECT_EQ(atc_masklen_to_mask(mask, 13), 0);
    EXPECT_EQ(Bytes(mask, mask + 2), (Bytes{0xFF, 0xF8}));
}

}  // namespace
