// rule_match_test.cpp: one rule against one packet, held against a twin that walks the members bit by bit.
#include "atc/rule_match.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "fixture.h"

namespace {

// The bytes in a block of exactly their size, so that a sanitizer sees a read behind the end.
std::unique_ptr<uint8_t[]> exact(const Bytes &bytes) {
    auto block = std::make_unique<uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), block.get());
    return block;
}

bool bit(const Bytes &bytes, uint32_t n) {
    return (bytes[n / 8] >> (7 - n % 8) & 1) != 0;
}

// ---- The twin

bool twin_prefix(const Bytes &rule, const Bytes &pkt, uint32_t masklen) {
    const auto width = static_cast<uint32_t>(rule.size() * 8);
    bool matches = masklen <= width;
    for (uint32_t n = 0; n < width; ++n) {
        matches &= (masklen != 0 && n >= masklen) || bit(rule, n) == bit(pkt, n);
    }
    return matches || rule == Bytes(rule.size(), 0);
}

template <size_t size>
bool twin_prefix(const uint8_t (&rule)[size], const uint8_t (&pkt)[size], uint32_t masklen) {
    return twin_prefix(Bytes(rule, rule + size), Bytes(pkt, pkt + size), masklen);
}

bool twin_prefix(uint32_t rule, uint32_t pkt, uint32_t masklen) {
    const auto bytes = [](uint32_t value) {
        return Bytes{static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                     static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    };
    return twin_prefix(bytes(rule), bytes(pkt), masklen);
}

bool twin_value(uint32_t rule, uint32_t pkt) {
    return rule == 0 || rule == pkt;
}

bool twin(const atc_filter_rule_t &r, const atc_pkt_info_t &p, bool with_length) {
    const bool parts[] = {
        twin_value(r.direction, p.direction),
        twin_value(r.vlan, p.vlan),
        twin_value(r.port, p.port),
        twin_value(r.protocol, p.protocol),
        twin_value(r.eth_type, p.eth_type),
        twin_value(r.aux_match, p.aux_match),
        twin_prefix(r.src_mac, p.src_mac, r.src_mac_masklen),
        twin_prefix(r.dst_mac, p.dst_mac, r.dst_mac_masklen),
        twin_prefix(r.src_ipv4, p.src_ipv4, r.src_ipv4_masklen),
        twin_prefix(r.dst_ipv4, p.dst_ipv4, r.dst_ipv4_masklen),
        twin_prefix(r.src_ipv6, p.src_ipv6, r.src_ipv6_masklen),
        twin_prefix(r.dst_ipv6, p.dst_ipv6, r.dst_ipv6_masklen),
        twin_value(r.dst_port, p.dst_port),
        twin_value(r.src_port, p.src_port),
        !with_length || r.pkt_len == 0 || p.pkt_len > r.pkt_len,
    };
    return std::all_of(std::begin(parts), std::end(parts), [](bool part) { return part; });
}

// ---- Random rules and packets

class Dice {
public:
    explicit Dice(uint32_t seed) : engine_(seed) {}
    uint32_t up_to(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n)(engine_); }
    bool one_in(uint32_t n) { return up_to(n - 1) == 0; }

    template <typename record_t>
    void fill(record_t *record) {
        auto *bytes = reinterpret_cast<uint8_t *>(record);
        std::generate(bytes, bytes + sizeof(*record), [this] { return static_cast<uint8_t>(up_to(255)); });
    }

private:
    std::mt19937 engine_;
};

// Most members of a rule are the packet's or 0, so that many rules match; some differ in one bit.
template <typename value_t>
void blur(Dice &dice, value_t *member) {
    auto *bytes = reinterpret_cast<uint8_t *>(member);
    if (dice.one_in(3)) {
        std::fill_n(bytes, sizeof(*member), uint8_t{0});
    } else if (dice.one_in(8)) {
        const uint32_t n = dice.up_to(sizeof(*member) * 8 - 1);
        bytes[n / 8] = static_cast<uint8_t>(bytes[n / 8] ^ 1U << n % 8);
    }
}

template <typename value_t>
value_t random_masklen(Dice &dice, uint32_t width) {
    return static_cast<value_t>(dice.one_in(20) ? width + 1 + dice.up_to(7) : dice.up_to(width));
}

atc_filter_rule_t rule_like(const atc_pkt_info_t &pkt, Dice &dice) {
    atc_filter_rule_t rule = pkt;
    dice.fill(&rule.id);  // members that take no part hold anything
    dice.fill(&rule.action);
    const auto blur_all = [&dice](auto *...members) { (blur(dice, members), ...); };
    blur_all(&rule.direction, &rule.vlan, &rule.port, &rule.protocol, &rule.eth_type, &rule.aux_match, &rule.src_mac,
             &rule.dst_mac, &rule.src_ipv4, &rule.dst_ipv4, &rule.src_ipv6, &rule.dst_ipv6, &rule.src_port,
             &rule.dst_port);
    rule.src_mac_masklen = random_masklen<uint8_t>(dice, 48);
    rule.dst_mac_masklen = random_masklen<uint8_t>(dice, 48);
    rule.src_ipv4_masklen = random_masklen<uint8_t>(dice, 32);
    rule.dst_ipv4_masklen = random_masklen<uint8_t>(dice, 32);
    rule.src_ipv6_masklen = random_masklen<uint16_t>(dice, 128);
    rule.dst_ipv6_masklen = random_masklen<uint16_t>(dice, 128);
    rule.pkt_len = dice.one_in(2) ? 0 : pkt.pkt_len - 2 + dice.up_to(2);  // two shorter ... as long
    return rule;
}

TEST(RuleMatch, AgreesWithItsTwin) {
    Dice dice(test_seed());
    int matched = 0;
    constexpr int rounds = 30000;
    for (int round = 0; round < rounds; ++round) {
        atc_pkt_info_t pkt;
        dice.fill(&pkt);
        pkt.pkt_len = 60 + dice.up_to(1500);
        const atc_filter_rule_t rule = rule_like(pkt, dice);
        ASSERT_EQ(atc_rule_match(&rule, &pkt), twin(rule, pkt, false)) << "round " << round;
        ASSERT_EQ(atc_filter_rule_check_ex(&rule, &pkt), twin(rule, pkt, true) ? 1 : 0) << "round " << round;
        matched += atc_filter_rule_check_ex(&rule, &pkt);
    }
    EXPECT_GT(matched, rounds / 50) << "both answers are asked for, often";
    EXPECT_LT(matched, rounds / 2);
}

// One bit of one address differs, or none; every prefix length, beyond the address too.
template <typename member_t, typename masklen_t>
void expect_prefixes(member_t atc_filter_rule_t::*address, masklen_t atc_filter_rule_t::*masklen) {
    constexpr uint32_t width = sizeof(member_t) * 8;
    for (uint32_t differs = 0; differs <= width; ++differs) {
        atc_filter_rule_t rule = {};
        std::memset(&(rule.*address), 0x5A, sizeof(member_t));
        atc_pkt_info_t pkt = rule;
        if (differs < width) {
            auto *bytes = reinterpret_cast<uint8_t *>(&(pkt.*address));
            bytes[differs / 8] = static_cast<uint8_t>(bytes[differs / 8] ^ 0x80U >> differs % 8);
        }
        for (uint32_t bits = 0; bits <= width + 9; ++bits) {
            rule.*masklen = static_cast<masklen_t>(bits);
            ASSERT_EQ(atc_rule_match(&rule, &pkt), twin(rule, pkt, false)) << "bit " << differs << " of " << bits;
            ASSERT_EQ(atc_rule_masks_fit(&rule), bits <= width) << bits << " bits of " << width;
        }
    }
}

TEST(RuleMatch, ComparesAddressesByPrefix) {
    using rule_t = atc_filter_rule_t;
    expect_prefixes(&rule_t::src_mac, &rule_t::src_mac_masklen);
    expect_prefixes(&rule_t::dst_mac, &rule_t::dst_mac_masklen);
    expect_prefixes(&rule_t::src_ipv4, &rule_t::src_ipv4_masklen);
    expect_prefixes(&rule_t::dst_ipv4, &rule_t::dst_ipv4_masklen);
    expect_prefixes(&rule_t::src_ipv6, &rule_t::src_ipv6_masklen);
    expect_prefixes(&rule_t::dst_ipv6, &rule_t::dst_ipv6_masklen);
}

TEST(CmpByMasklen, OrdersByTheMaskedPrefix) {
    struct {
        const char *name;
        Bytes a;
        Bytes b;
        uint32_t bits;
        int expected;
    } const rows[] = {
        {"nothing to compare", {}, {}, 0, 0},
        {"whole bytes, greater", {10, 2}, {10, 1}, 16, 1},
        {"the first difference decides", {9, 255}, {10, 0}, 16, -1},
        {"unsigned", {0x80}, {0x7F}, 8, 1},
        {"difference behind the prefix", {10, 0x1F}, {10, 0x10}, 12, 0},
        {"difference in the last bit", {10, 0x20}, {10, 0x10}, 12, 1},
        {"nothing is read behind whole bytes", {1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6}, 48, 0},
        {"longest", Bytes(16, 7), Bytes(16, 7), 128, 0},
        {"too long", Bytes(17, 7), Bytes(17, 7), 129, -1},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(atc_cmp_by_masklen(exact(row.a).get(), exact(row.b).get(), row.bits), row.expected) << row.name;
    }
}

TEST(MasklenToMask, WritesOneByteBehindTheWholeOnes) {
    for (uint32_t bits = 0; bits <= 128; ++bits) {
        Bytes expected(bits / 8 + 1, 0);
        for (uint32_t n = 0; n < bits; ++n) {
            expected[n / 8] = static_cast<uint8_t>(expected[n / 8] | 0x80U >> n % 8);
        }
        const auto mask = exact(Bytes(expected.size(), 0xA5));
        EXPECT_EQ(atc_masklen_to_mask(mask.get(), bits), 0);
        EXPECT_EQ(Bytes(mask.get(), mask.get() + expected.size()), expected) << bits;
    }
    EXPECT_EQ(atc_masklen_to_mask(nullptr, 8), -1);
}

}  // namespace
