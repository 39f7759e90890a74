// SPDX-License-Identifier: Apache-2.0
// Reports that do not fit, and without memory; their tables and the dumps stand in the scenarios.
#include "fixture.h"
#include "frames.h"

namespace {

using ReportsTest = ModuleTest;

TEST_F(ReportsTest, ALongKeyIsCutAndALargeCountIsPrintedSigned) {
    set(ATC_ICMPV6_REDIRECT, 1, {atc_api_set_protocol_fp_limit}, 1);
    rx_n(2, icmpv6(137).src_ip("2001:db8:1111:2222:3333:4444:5555:6666"), 4000000000u, 4000);
    entry(4000000000u, 4000, ATC_ICMPV6_REDIRECT)->stat.count = 0x80000000u;
    const std::string text = text_of(atc_api_get_stat_brief);
    for (const char *line : {"-294967296/4000/icmpv6-redirect/NULL        -2147483648",
                             "-294967296/4000/icmpv6-redirect/ipv6 2001:db8:1111:2222:3333:442          "}) {
        EXPECT_NE(text.find(line), std::string::npos) << text;
    }
    EXPECT_EQ(text_of(atc_api_get_alarm_info), "");
    EXPECT_EQ(fake().calls(Call::port_map), 0u) << "the card is asked for the slots of those in alarm only";
}

// It ends at the last whole line, also between a flow and its source: nothing shorter comes behind what did not fit.
TEST_F(ReportsTest, AReportLongerThanItsBufferEndsAtItsLastWholeLine) {
    set(ATC_ICMPV6_NS, 1, {atc_api_set_protocol_fp_limit}, 1);
    for (uint32_t port = 1; port <= 7100; port++) {
        rx(icmpv6(135).src_ip("2001:db8:1111:2222:3333:4444:5555:6666"), port, 1);
    }
    for (uint32_t more = 0; more < 13; more++) {  // lines in front: with 12 there is room for a flow, not for a source
        rx(arp(), 0, more);
        if (more < 10) {
            continue;
        }
        const std::string text = text_of(atc_api_get_stat_brief);
        EXPECT_LT(text.size(), 2097152u);
        EXPECT_GT(text.size(), 2097152u - 162);
        EXPECT_EQ(text.substr(text.size() - 2), "\r\n");
        size_t flows = 0, sources = 0;
        for (size_t at = 0; (at = text.find("/icmpv6-ns/", at)) != std::string::npos; at++) {
            text[at + 11] == 'N' ? ++flows : ++sources;
        }
        EXPECT_TRUE(flows == sources || flows == sources + 1) << flows << " " << sources;
    }
}

TEST_F(ReportsTest, EmptyIndexesGiveTheHeaderAndNoMemoryGivesNull) {
    EXPECT_EQ(text_of(atc_api_get_stat_brief).size(), 137U);
    EXPECT_EQ(text_of(atc_api_get_alarm_info), "");
    for (const auto report :
         {atc_api_get_rx_protocol_stat_brief, atc_api_get_tx_protocol_stat_brief, atc_api_get_rx_port_stat_brief,
          atc_api_get_rx_vlan_stat_brief, atc_api_get_stat_brief, atc_api_get_alarm_info, atc_api_get_hw_deny_info}) {
        EXPECT_EQ(report(nullptr), -1);
        char unused;
        char *text = &unused;
        fake().fail(Call::alloc, 1);
        EXPECT_EQ(report(&text), -1);
        EXPECT_EQ(text, nullptr);
        fake().fail_none();
    }
}

// What a dump says stands in scenarios, whose host makes its line ends its own; here they are to the byte.
TEST_F(ReportsTest, DumpsEndTheirLinesWithLineFeedAndReturn) {
    atc_filter_rule_t rule = {};
    rule.action = ATC_ACTION_DENY;
    ASSERT_EQ(atc_api_cfg_filter_rule_add(&rule, 1), 0);
    ASSERT_EQ(atc_api_cfg_hw_filter_rule_add(&rule), 0);
    ASSERT_EQ(atc_api_trunk_member_pro(0, 40, 3, 1), 0);
    run_messages();
    const struct {
        std::function<int()> dump;
        int lines;
    } rows[] = {{atc_filter_show, 12},
                {atc_limit_show, 16 * int{ATC_PROTOCOL_COUNT}},
                {atc_config_show, 13},
                {atc_trunk_show, 2},
                {[] { return atc_log_port_show(1); }, 4}};
    for (const auto &row : rows) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(row.dump(), 0);
        std::string text = testing::internal::GetCapturedStdout();
        int lines = 0;
        for (size_t at; (at = text.find("\n\r")) != std::string::npos; lines++) {
            text.erase(at, 2);
        }
        EXPECT_EQ(lines, row.lines) << text;
        EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos) << text;
    }
}

}  // namespace
