// One rule against one packet, held against a twin that walks the members bit by bit.
#include "atc/rule_match.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// The bytes in a block of exactly their size, so that a sanitizer sees a read behind the end.
std::unique_ptr<uint8_t[]> exact(const Bytes &bytes) {
    auto block = std::make_unique<uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), block.get());
    return block;
}

bool bit(const uint8_t *bytes, uint32_t n) {
    return (bytes[n / 8] >> (7 - n % 8) & 1) != 0;
}

// ---- The twin

Bytes network_order(uint32_t value) {
    return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 8),
            static_cast<uint8_t>(value)};
}

bool twin_prefix(const Bytes &rule, const Bytes &pkt, uint32_t masklen) {
    const auto width = static_cast<uint32_t>(rule.size() * 8);
    bool matches = masklen <= width;
    bool set = false;
    for (uint32_t n = 0; n < width; ++n) {
        set |= bit(rule.data(), n);
        if (masklen == 0 || n < masklen) {
            matches &= bit(rule.data(), n) == bit(pkt.data(), n);
        }
    }
    return matches || !set;
}

template <size_t size>
bool twin_prefix(const uint8_t (&rule)[size], const uint8_t (&pkt)[size], uint32_t masklen) {
    return twin_prefix(Bytes(rule, rule + size), Bytes(pkt, pkt + size), masklen);
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
        twin_prefix(network_order(r.src_ipv4), network_order(p.src_ipv4), r.src_ipv4_masklen),
        twin_prefix(network_order(r.dst_ipv4), network_order(p.dst_ipv4), r.dst_ipv4_masklen),
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

uint32_t seed() {
    const char *text = std::getenv("ATC_TEST_SEED");
    const uint32_t value = text != nullptr ? static_cast<uint32_t>(std::strtoul(text, nullptr, 10)) : 20210902U;
    std::printf("ATC_TEST_SEED=%u\n", value);
    return value;
}

// Most members of a rule are the packet's or 0, so that many rules match; some differ in one bit.
template <typename value_t>
void blur(Dice &dice, value_t *member) {
    if (dice.one_in(3)) {
        std::memset(member, 0, sizeof(*member));
    } else if (dice.one_in(8)) {
        const uint32_t n = dice.up_to(sizeof(*member) * 8 - 1);
        auto *bytes = reinterpret_cast<uint8_t *>(member);
        bytes[n / 8] = static_cast<uint8_t>(bytes[n / 8] ^ 1U << n % 8);
    }
}

template <typename value_t>
value_t random_masklen(Dice &dice, uint32_t width) {
    return static_cast<value_t>(dice.one_in(20) ? width + 1 + dice.up_to(7) : dice.up_to(width));
}

atc_filter_rule_t rule_like(const atc_pkt_info_t &pkt, Dice &dice) {
    atc_filter_rule_t rule;
    dice.fill(&rule);  // members that take no part hold anything
    rule.direction = pkt.direction, blur(dice, &rule.direction);
    rule.vlan = pkt.vlan, blur(dice, &rule.vlan);
    rule.port = pkt.port, blur(dice, &rule.port);
    rule.protocol = pkt.protocol, blur(dice, &rule.protocol);
    rule.eth_type = pkt.eth_type, blur(dice, &rule.eth_type);
    rule.aux_match = pkt.aux_match, blur(dice, &rule.aux_match);
    std::memcpy(rule.src_mac, pkt.src_mac, 6), blur(dice, &rule.src_mac);
    std::memcpy(rule.dst_mac, pkt.dst_mac, 6), blur(dice, &rule.dst_mac);
    rule.src_ipv4 = pkt.src_ipv4, blur(dice, &rule.src_ipv4);
    rule.dst_ipv4 = pkt.dst_ipv4, blur(dice, &rule.dst_ipv4);
    std::memcpy(rule.src_ipv6, pkt.src_ipv6, 16), blur(dice, &rule.src_ipv6);
    std::memcpy(rule.dst_ipv6, pkt.dst_ipv6, 16), blur(dice, &rule.dst_ipv6);
    rule.src_mac_masklen = random_masklen<uint8_t>(dice, 48);
    rule.dst_mac_masklen = random_masklen<uint8_t>(dice, 48);
    rule.src_ipv4_masklen = random_masklen<uint8_t>(dice, 32);
    rule.dst_ipv4_masklen = random_masklen<uint8_t>(dice, 32);
    rule.src_ipv6_masklen = random_masklen<uint16_t>(dice, 128);
    rule.dst_ipv6_masklen = random_masklen<uint16_t>(dice, 128);
    rule.src_port = pkt.src_port, blur(dice, &rule.src_port);
    rule.dst_port = pkt.dst_port, blur(dice, &rule.dst_port);
    rule.pkt_len = dice.one_in(2) ? 0 : pkt.pkt_len - 2 + dice.up_to(2);  // two shorter ... as long
    return rule;
}

TEST(RuleMatch, AgreesWithItsTwin) {
    Dice dice(seed());
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
    // Both answers were asked for, often.
    EXPECT_GT(matched, rounds / 50);
    EXPECT_LT(matched, rounds / 2);
}

// One bit of one address differs; every prefix length, beyond the address too.
template <typename member_t, typename masklen_t>
void expect_prefixes(const char *name, member_t atc_filter_rule_t::*address, masklen_t atc_filter_rule_t::*masklen,
                     bool is_number) {
    constexpr uint32_t width = sizeof(member_t) * 8;
    for (uint32_t differs = 0; differs <= width; ++differs) {  // 'width': in no bit
        atc_filter_rule_t rule = {};
        std::memset(&(rule.*address), 0x5A, sizeof(member_t));
        atc_pkt_info_t pkt = rule;
        if (differs < width) {
            Bytes value(sizeof(member_t), 0x5A);
            value[differs / 8] = static_cast<uint8_t>(value[differs / 8] ^ 0x80U >> differs % 8);
            if (is_number) {
                uint32_t number = 0;
                for (const uint8_t byte : value) {
                    number = number << 8 | byte;
                }
                std::memcpy(&(pkt.*address), &number, sizeof(number));
            } else {
                std::memcpy(&(pkt.*address), value.data(), value.size());
            }
        }
        for (uint32_t bits = 0; bits <= width + 9; ++bits) {
            rule.*masklen = static_cast<masklen_t>(bits);
            const bool expected = bits == 0 ? differs == width : bits <= width && bits <= differs;
            ASSERT_EQ(atc_rule_match(&rule, &pkt), expected) << name << " differs in bit " << differs << " of " << bits;
        }
    }
}

TEST(RuleMatch, ComparesAddressesByPrefix) {
    using rule_t = atc_filter_rule_t;
    expect_prefixes("src_mac", &rule_t::src_mac, &rule_t::src_mac_masklen, false);
    expect_prefixes("dst_mac", &rule_t::dst_mac, &rule_t::dst_mac_masklen, false);
    expect_prefixes("src_ipv4", &rule_t::src_ipv4, &rule_t::src_ipv4_masklen, true);
    expect_prefixes("dst_ipv4", &rule_t::dst_ipv4, &rule_t::dst_ipv4_masklen, true);
    expect_prefixes("src_ipv6", &rule_t::src_ipv6, &rule_t::src_ipv6_masklen, false);
    expect_prefixes("dst_ipv6", &rule_t::dst_ipv6, &rule_t::dst_ipv6_masklen, false);
}

TEST(RuleMatch, MasksFit) {
    using rule_t = atc_filter_rule_t;
    struct {
        const char *name;
        uint8_t rule_t::*byte;
        uint16_t rule_t::*word;
        uint16_t width;
    } const rows[] = {
        {"src_mac", &rule_t::src_mac_masklen, nullptr, 48},    {"dst_mac", &rule_t::dst_mac_masklen, nullptr, 48},
        {"src_ipv4", &rule_t::src_ipv4_masklen, nullptr, 32},  {"dst_ipv4", &rule_t::dst_ipv4_masklen, nullptr, 32},
        {"src_ipv6", nullptr, &rule_t::src_ipv6_masklen, 128}, {"dst_ipv6", nullptr, &rule_t::dst_ipv6_masklen, 128},
    };
    for (const auto &row : rows) {
        for (const uint16_t bits : {uint16_t{0}, row.width, static_cast<uint16_t>(row.width + 1), uint16_t{255}}) {
            rule_t rule = {};
            if (row.byte != nullptr) {
                rule.*row.byte = static_cast<uint8_t>(bits);
            } else {
                rule.*row.word = bits;
            }
            EXPECT_EQ(atc_rule_masks_fit(&rule), bits <= row.width) << row.name << " with " << bits << " bits";
        }
    }
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
        {"whole bytes, smaller", {10, 1}, {10, 2}, 16, -1},
        {"the first difference decides", {9, 255}, {10, 0}, 16, -1},
        {"unsigned", {0x80}, {0x7F}, 8, 1},
        {"difference behind the prefix", {10, 0x1F}, {10, 0x10}, 12, 0},
        {"difference in the last bit", {10, 0x20}, {10, 0x10}, 12, 1},
        {"one bit", {0x7F}, {0x80}, 1, -1},
        {"nothing is read behind whole bytes", {1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6}, 48, 0},
        {"longest", Bytes(16, 7), Bytes(16, 7), 128, 0},
        {"too long", Bytes(17, 7), Bytes(17, 7), 129, -1},
        {"far too long", {7}, {7}, 0xFFFFFFFF, -1},
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
