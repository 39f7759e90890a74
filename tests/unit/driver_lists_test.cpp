// SPDX-License-Identifier: Apache-2.0
// The bytes that go to the switching chip's driver, and what of a packet goes into an automatic rule.
#include "atc_api_hw/driver_lists.h"

#include <cstring>

#include "atc_api_hw/auto_rule.h"
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
            atc_filter_rule_t rule = full_packet(protocol);
            rule.src_rule = per_source;
            // What the record keeps is enough to install the same again, as a trunk change does.
            for (int time = 0; time < 2; ++time) {
                ASSERT_EQ(atc_hw_filter_add(&rule), 0);
                EXPECT_EQ(chip_texts(), std::vector<std::string>{expected_match(protocol, per_source) + AUTOMATIC});
                EXPECT_EQ(rule.sdk_id, fake().chip().at(0).entry_id);
                EXPECT_EQ(rule.stat_id, fake().chip().at(0).stat_id);
                fake().fail(Call::chip_delete, 1);
                EXPECT_EQ(atc_hw_filter_del(&rule), -1);
                EXPECT_EQ(atc_hw_filter_del(&rule), 0);
                EXPECT_EQ(rule.sdk_id, 0U);
                EXPECT_TRUE(fake().chip().empty());
            }
        }
    }
}

}  // namespace
