// SPDX-License-Identifier: Apache-2.0
// No hold of the mutex does more than a bounded piece of work, however much there is, and what the pieces do together
// is what one would.
#include "atc/evaluation.h"

#include "fixture.h"
#include "frames.h"

namespace {

constexpr uint32_t FLOWS = 1000;  // of two sources each
constexpr uint32_t RULES = 100;

class WaitsTest : public ModuleTest {
public:
    void make_flows() {
        set(ATC_ARP, 1, {atc_api_set_protocol_fp_limit, atc_api_set_protocol_src_fp_limit});
        for (uint32_t i = 0; i < FLOWS; i++) {
            rx_n(12, arp().from(1), i % 50, i / 50 + 1);
            rx_n(12, arp().from(2), i % 50, i / 50 + 1);
        }
        for (uint32_t source = 3; source <= ATC_SOURCES_PER_FLOW; source++) {
            rx(arp().from(source), 1, 1);
        }
    }
    // One hold does no more than the limit and the last piece of work, which began below it.
    void expect_bounded(const char *what, const std::function<void()> &action) {
        state()->hold.most = 0;
        const uint32_t pauses = state()->hold.pauses;
        action();
        EXPECT_LT(state()->hold.most, ATC_HOLD_LIMIT + ATC_WORK_BUFFER) << what;
        EXPECT_GT(state()->hold.pauses, pauses) << what << " holds the mutex from its beginning to its end";
    }
};

using Report = int (*)(char **text);

TEST_F(WaitsTest, EveryHoldIsBounded) {
    make_flows();
    expect_bounded("fast pass", [this] { pass_seconds(10); });
    EXPECT_GT(alarms().size(), FLOWS) << "few have anything to say";
    atc_api_set_long_period_time(10);
    for (const Report report : {atc_api_get_rx_port_stat_brief, atc_api_get_rx_vlan_stat_brief, atc_api_get_stat_brief,
                                atc_api_get_alarm_info}) {
        expect_bounded("report", [report] { EXPECT_NE(text_of(report), ""); });
    }
    expect_bounded("sources", [] {
        std::vector<uint32_t> types(ATC_SOURCES_PER_FLOW);
        std::vector<atc_src_stat_t> records(ATC_SOURCES_PER_FLOW);
        uint32_t count = 0;
        EXPECT_EQ(atc_api_get_src_statistic(ATC_DIRECTION_RX, 1, 1, ATC_ARP, types.data(), &count, records.data()), 0);
        EXPECT_EQ(count, ATC_SOURCES_PER_FLOW);
    });
    expect_bounded("period", [] { atc_api_set_fast_period_time(20); });
    expect_bounded("limit", [] { atc_api_set_protocol_src_lp_limit(ATC_ARP, 3); });
    expect_bounded("end of deny", [] { atc_api_set_protocol_deny_enable(ATC_ARP, 0); });
    expect_bounded("captures", [] { atc_api_set_auto_cap_clear(); });
    expect_bounded("two passes", [this] { pass_seconds(20); });
    fake().fail(Call::alloc, 1, true);
    expect_bounded("pass without memory", [this] { pass_seconds(20); });
    fake().fail_none();
    atc_api_clear_statistic(ATC_DIRECTION_RX, 1, 1, ATC_ARP, ATC_SRC_NONE, nullptr);
    rx_n(100, arp(), 1, 2);
    for (uint32_t source = 1; source <= ATC_SOURCES_PER_FLOW; source++) {
        rx(arp().from(source), 1, 2);
    }
    atc_api_clear_statistic(ATC_DIRECTION_RX, 2, 1, ATC_ARP, ATC_SRC_NONE, nullptr);
    expect_bounded("day, a flow with all its sources among what goes", [this] { pass_seconds(86400); });
    EXPECT_EQ(entry(1, 2, ATC_ARP), nullptr);
    expect_bounded("clear all", [this] {
        set(ATC_ARP, 1, {atc_api_set_protocol_hw_deny_enable}, 1);
        for (uint32_t vlan = 1; vlan <= RULES; vlan++) {
            rx_n(100, arp(), 7, vlan);
        }
        EXPECT_EQ(fake().chip().size(), RULES);
        atc_api_clear_statistic_all();
    });
}

TEST_F(WaitsTest, RulesMoveAndGoInPieces) {
    set(ATC_ARP, 1, {atc_api_set_protocol_hw_deny_enable, atc_api_set_protocol_fp_limit}, 1);
    for (uint32_t vlan = 1; vlan <= RULES; vlan++) {
        rx_n(2, arp(), 7, vlan);
    }
    expect_bounded("trunk", [this] {
        fake().trunk_handler(0, 7, 3, 1);
        run_messages();
    });
    EXPECT_EQ(fake().chip().size(), RULES);
    EXPECT_TRUE(chip_texts().front().ends_with("| 3")) << chip_texts().front();
    expect_bounded("listing", [] { EXPECT_NE(text_of(atc_api_get_hw_deny_info), "(none)"); });
    for (uint32_t id = 1; id <= RULES; id++) {
        atc_filter_rule_t rule = {};
        rule.id = id;
        rule.action = ATC_ACTION_DENY;
        rule.direction = ATC_DIRECTION_TX;
        ASSERT_EQ(atc_api_cfg_filter_rule_add(&rule, 1), 0);
    }
    // Rules that go while they are listed: the one that has been shown, the next, the one behind that, and the last.
    int pauses = 0;
    fake().on_delay = [&pauses] {
        if (pauses++ == 0) {
            for (const uint32_t id : {RULES, RULES - 1, RULES - 2, 1U}) {
                EXPECT_EQ(atc_api_cfg_filter_rule_del(id, 1), 0);
            }
        }
    };
    expect_bounded("dump of rules", [] {
        const std::string text = printed([] { atc_filter_show(); });
        EXPECT_NE(text.find("filter id 100 "), std::string::npos);
        EXPECT_EQ(text.find("filter id 99 "), std::string::npos);
        EXPECT_EQ(text.find("filter id 98 "), std::string::npos);
        EXPECT_NE(text.find("filter id 97 "), std::string::npos);
        EXPECT_NE(text.find("filter id 2 "), std::string::npos);
        EXPECT_EQ(text.find("filter id 1 "), std::string::npos);
    });
    fake().on_delay = nullptr;
    expect_bounded("clear of rules", [] { EXPECT_EQ(atc_api_clear_hw_deny_info(0), 0); });
    EXPECT_TRUE(fake().chip().empty());
}

// In each pause something happens; it is part of this or of the next.
TEST_F(WaitsTest, ThingsHappenInPauses) {
    set(ATC_ARP, 1, {atc_api_set_protocol_fp_limit});
    for (uint32_t port = 1; port <= 40; port++) {
        rx_n(11, arp(), port);
    }
    state()->hold.limit = 1;
    bool is_done = false;
    fake().on_delay = [&] {
        if (!std::exchange(is_done, true)) {
            rx_n(50, arp(), 99);               // made in the pass: its first period ends with the next one
            atc_api_set_fast_period_time(20);  // for what has not been judged
            EXPECT_EQ(text_of(atc_api_get_alarm_info), "");
        }
    };
    pass_seconds(10);
    EXPECT_EQ(alarms(), Lines()) << "11 packets in 20 s";
    EXPECT_EQ(entry(99, 1, ATC_ARP)->stat.fp_last, 0U);
    pass_seconds(19);
    EXPECT_EQ(entry(99, 1, ATC_ARP)->stat.fp_alarm, 0U) << "the next period began at the end of the pass";
    pass_seconds(1);
    EXPECT_EQ(alarms(), Lines{"anti-cpu rx port 99 vlan 1 protocol arp over fast period limit,receive/limit:2/1(pps)"});

    // What is being cleared is gone for everybody from the first pause on.
    fake().on_delay = nullptr;
    set(ATC_ARP, 1, {atc_api_set_protocol_hw_deny_enable}, 20);
    rx_n(50, arp(), 99);
    rx_n(50, arp(), 98);
    is_done = false;
    fake().on_delay = [&] {
        if (!std::exchange(is_done, true)) {
            EXPECT_EQ(entry(99, 1, ATC_ARP), nullptr);
            rx_n(100, arp(), 99);
            EXPECT_EQ(fake().chip().size(), 1U) << "no rule comes while others go";
        }
    };
    atc_api_clear_statistic_all();
    EXPECT_TRUE(is_done && fake().chip().empty());
    EXPECT_EQ(entry(99, 1, ATC_ARP)->stat.count, 100U);
    EXPECT_EQ(alarms(), Lines());
}

}  // namespace
