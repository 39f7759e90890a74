// The bytes that go to the switching chip's driver, and what of a packet goes into an automatic rule.
#include "atc_api_hw/driver_lists.h"

#include <algorithm>
#include <cstring>

#include "atc_api_hw/auto_rule.h"
#include "chip_text.h"
#include "fixture.h"

namespace {

using DriverLists = ModuleTest;

constexpr char AUTOMATIC[] = "| 100 121 113:80001 | 7";

// A packet of port 7 in which every member that a rule could use is set, both transport ports well known.
atc_filter_rule_t full_packet(uint16_t protocol) {
    atc_filter_rule_t packet;
    std::memset(&packet, 0xee, sizeof(packet));
    packet.port = 7;
    packet.protocol = protocol;
    packet.vlan = 100;
    packet.eth_type = 2048;
    packet.ip_protocol = 17;
    packet.src_ipv4 = 0x0a000001;
    std::memset(packet.src_mac, 0xaa, 6);
    std::memset(packet.dst_mac, 0xbb, 6);
    std::memset(packet.src_ipv6, 0xcc, 16);
    packet.src_port = 68;
    packet.dst_port = 67;
    packet.src_rule = 0;
    return packet;
}

const std::string IP_SOURCE = "2=0a000001 2=cccccccccccccccccccccccccccccccc ";

// What the chip is told for a full packet of a class.
std::string expected_match(uint32_t protocol, bool per_source) {
    const std::string mac = per_source ? "0=aaaaaaaaaaaa " : "";
    const std::string ip = "4=100 5=2048 " + (per_source ? IP_SOURCE : "") + "6=17 ";
    if (protocol >= 1 && protocol <= 5) {
        return "1=bbbbbbbbbbbb " + mac + "4=100 ";
    }
    if (protocol >= 6 && protocol <= 13) {
        return mac + "4=100 5=2048 ";
    }
    if (protocol >= 26 && protocol <= 36) {
        return ip + "9=68 ";
    }
    const bool is_plain_ip = (protocol >= 14 && protocol <= 25) || protocol == 37 || protocol == 51 || protocol == 52;
    return is_plain_ip ? ip : ip + "9=68 10=67 ";
}

TEST_F(DriverLists, EveryClassIsRemovedByWhatInstalledIt) {
    for (uint16_t protocol = 0; protocol <= ATC_PROTOCOL_COUNT + 1; ++protocol) {
        for (bool per_source : {false, true}) {
            SCOPED_TRACE(std::to_string(protocol) + (per_source ? " per source" : ""));
            atc_guard_t guard;
            atc_filter_rule_t rule = full_packet(protocol);
            rule.src_rule = per_source;
            // What the record keeps is enough to install the same again, as a trunk change does.
            for (int time = 0; time < 2; ++time) {
                ASSERT_EQ(atc_hw_filter_add(&rule), 0);
                const std::vector<ChipRule> chip = fake().chip();
                ASSERT_EQ(chip.size(), 1U);
                EXPECT_EQ(chip_text(chip[0]), expected_match(protocol, per_source) + AUTOMATIC);
                EXPECT_EQ(rule.sdk_id, chip[0].entry_id);
                EXPECT_EQ(rule.stat_id, chip[0].stat_id);
                EXPECT_EQ(atc_hw_filter_del(&rule), 0);
                EXPECT_TRUE(fake().chip().empty());
                EXPECT_EQ(rule.sdk_id, 0U);
            }
        }
    }
}

TEST_F(DriverLists, UnsetMembersAndClientPortsAreLeftOut) {
    using rule_t = atc_filter_rule_t;
    const struct {
        const char *name;
        uint16_t protocol;
        void (*change)(rule_t *);
        std::string match;
    } rows[] = {
        {"no VLAN", ATC_LLDP, [](rule_t *rule) { rule->vlan = 0; }, "1=bbbbbbbbbbbb 0=aaaaaaaaaaaa "},
        {"last MAC byte alone", ATC_ARP, [](rule_t *rule) { std::memset(rule->src_mac, 0, 5); },
         "0=0000000000aa 4=100 5=2048 "},
        {"client port", ATC_BGP, [](rule_t *rule) { rule->src_port = 51000, rule->dst_port = 179; },
         "4=100 5=2048 " + IP_SOURCE + "6=17 10=179 "},
        {"IPv4 only", ATC_UNKNOWN_UDP, [](rule_t *rule) { std::memset(rule->src_ipv6, 0, 16); },
         "4=100 5=2048 2=0a000001 6=17 "},
        {"ICMPv6 type in the port", ATC_ICMPV6_NS, [](rule_t *rule) { rule->src_port = 135 * 256, rule->src_rule = 0; },
         "4=100 5=2048 6=17 9=34560 "},
        {"source flag other than 1", ATC_ARP, [](rule_t *rule) { rule->src_rule = 2; }, "4=100 5=2048 "},
        {"nothing set", ATC_DNS, [](rule_t *rule) { *rule = {}, rule->port = 7; }, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        atc_guard_t guard;
        atc_filter_rule_t rule = full_packet(row.protocol);
        rule.src_rule = 1;
        row.change(&rule);
        ASSERT_EQ(atc_hw_filter_add(&rule), 0);
        EXPECT_EQ(chip_texts(), std::vector<std::string>{row.match + AUTOMATIC});
        EXPECT_EQ(atc_hw_filter_del(&rule), 0);
    }
}

TEST_F(DriverLists, PortListHoldsUsableMembers) {
    fake().backup_slot = 9;
    fake().map_port(9, 9, 1);
    fake().map_port(11, 9, 1);
    fake().unmap_port(12);
    atc_trunk_t trunk = {};
    trunk.trunk_id = 40;
    const struct {
        uint32_t port;
        std::vector<uint32_t> members;
        std::vector<uint16_t> list;  // empty = refused
    } rows[] = {
        {17, {}, {1, 1, 17}},
        {0x10011, {}, {1, 1, 17}},
        {9, {}, {1, 1, 9}},  // a plain port is taken wherever it is
        {40, {0, 5, 0, 9}, {1, 1, 5}},
        {40, {0x10003, 4, 12, 0, 0, 0, 0, 6}, {1, 4, 3, 4, 12, 6}},
        {40, {9, 11}, {}},
    };
    atc_guard_t guard;
    atc_list_insert_after(&g_atc_global.trunk_list, &trunk.link);
    for (const auto &row : rows) {
        std::fill(std::begin(trunk.members), std::end(trunk.members), 0U);
        std::copy(row.members.begin(), row.members.end(), trunk.members);
        uint8_t buf[ATC_HW_PORT_SIZE] = {};
        uint32_t len = 99;
        EXPECT_EQ(atc_hw_fill_port(buf, &len, row.port, ATC_HW_INSTALL), row.list.empty() ? -1 : 0);
        EXPECT_EQ(len, row.list.empty() ? 99 : row.list.size() * 2);
        uint16_t list[2 + ATC_TRUNK_MEMBERS];
        std::memcpy(list, buf, sizeof(list));
        EXPECT_TRUE(std::equal(row.list.begin(), row.list.end(), list));
    }
    atc_list_remove(&trunk.link);
}

TEST_F(DriverLists, BuildersRefuseWhatTheyCannotWrite) {
    uint8_t buf[ATC_HW_ITEM_SIZE] = {};
    uint32_t len = 10;
    const uint8_t bytes[33] = {};
    const void *const values[] = {bytes, nullptr};
    const uint16_t lengths[] = {16, 4};
    const uint16_t too_long[] = {17};
    const int refused[] = {
        atc_hw_fill_rule(nullptr, &len, 0, bytes, 1, bytes, 32, 0),
        atc_hw_fill_rule(buf, nullptr, 0, bytes, 1, bytes, 32, 0),
        atc_hw_fill_rule(buf, &len, 0, nullptr, 1, bytes, 32, 0),
        atc_hw_fill_rule(buf, &len, 0, bytes, 1, nullptr, 32, 0),
        atc_hw_fill_rule(buf, &len, 0, bytes, 33, bytes, 32, 0),
        atc_hw_fill_rule(buf, &len, 0, bytes, 32, bytes, 33, 0),
        atc_hw_fill_op(nullptr, &len, 0, 0, nullptr, nullptr),
        atc_hw_fill_op(buf, nullptr, 0, 0, nullptr, nullptr),
        atc_hw_fill_op(buf, &len, 0, 1, nullptr, lengths),
        atc_hw_fill_op(buf, &len, 0, 1, values, nullptr),
        atc_hw_fill_op(buf, &len, 0, 2, values, lengths),
        atc_hw_fill_op(buf, &len, 0, 1, values, too_long),
    };
    EXPECT_EQ(std::vector<int>(std::begin(refused), std::end(refused)), std::vector<int>(std::size(refused), -1));
    EXPECT_EQ(len, 10U);
    EXPECT_EQ(atc_hw_fill_op(buf, &len, 0, 1, values, lengths), 0);
    EXPECT_EQ(len, 32U);
}

}  // namespace
