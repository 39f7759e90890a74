// What happens at the end of a period: alarms, software deny, ageing, the daily sweep; and a week of it all.
#include "atc/evaluation.h"

#include <gtest/gtest.h>

#include <map>
#include <numeric>
#include <random>

#include "atc/accounting.h"
#include "atc/text.h"
#include "fixture.h"
#include "frames.h"

namespace {

using Lines = std::vector<std::string>;

constexpr uint32_t DAY_S = 86400;

class EvaluationTest : public ModuleTest {
protected:
    // 'pps' packets of each frame, every second.
    void flood(std::initializer_list<Frame> frames, uint32_t pps, uint32_t seconds, uint32_t port = 3,
               uint32_t vlan = 100) {
        for (uint32_t second = 0; second < seconds; second++) {
            for (const Frame &frame : frames) {
                rx_n(pps, frame, port, vlan);
            }
            pass_seconds(1);
        }
    }
};

TEST_F(EvaluationTest, AnAlarmIsRaisedStrictlyAboveTheLimitAndClearedAtIt) {
    flood({arp()}, 100, 300);
    EXPECT_EQ(alarms(), Lines{}) << "30000 packets in 300 s are the limit";
    flood({arp()}, 101, 300);
    EXPECT_EQ(alarms(),
              Lines{"anti-cpu rx port 3 vlan 100 protocol arp over fast period limit,receive/limit:101/100(pps)"});
    flood({arp()}, 100, 300);
    EXPECT_EQ(alarms(),
              Lines{"anti-cpu rx port 3 vlan 100 protocol arp restore fast period limit,receive/limit:100/100(pps)"});
    rx(arp(), 3, 100);
    flood({arp()}, 100, 300);
    EXPECT_EQ(alarms(),
              Lines{"anti-cpu rx port 3 vlan 100 protocol arp over fast period limit,receive/limit:100/100(pps)"})
        << "one packet too many";
}

TEST_F(EvaluationTest, AFloodIsReportedOnceHoweverLongItLasts) {
    atc_api_set_fast_period_time(10);
    flood({lldp()}, 20, 100);
    flood({lldp()}, 1, 10);
    EXPECT_EQ(alarms(),
              (Lines{"anti-cpu rx port 3 vlan 100 protocol lldp over fast period limit,receive/limit:20/12(pps)",
                     "anti-cpu rx port 3 vlan 100 protocol lldp src mac 00:11:22:33:44:55 over fast period "
                     "limit,receive/limit:20/12(pps)",
                     "anti-cpu rx port 3 vlan 100 protocol lldp restore fast period limit,receive/limit:1/12(pps)",
                     "anti-cpu rx port 3 vlan 100 protocol lldp src mac 00:11:22:33:44:55 restore fast period "
                     "limit,receive/limit:1/12(pps)"}));
}

// However many have something to say, they say it once and in the order of the indexes; and each block is closed once a
// pass. Two fast and two long periods end together.
TEST_F(EvaluationTest, AlarmsComeInOrderFromFewAndFromMany) {
    atc_api_set_fast_period_time(10);
    atc_api_set_long_period_time(10);
    for (const auto set : {atc_api_set_protocol_fp_limit, atc_api_set_protocol_src_fp_limit,
                           atc_api_set_protocol_lp_limit, atc_api_set_protocol_src_lp_limit}) {
        set(ATC_LLDP, 1);
        set(ATC_SELF, 1);
    }
    for (const uint32_t noisy : {3u, 1200u}) {
        atc_api_clear_statistic_all();
        Lines flooding;
        for (const int round : {0, 1, 2}) {
            for (const uint32_t port : {5u, 4u}) {
                rx_n(10, lldp().from(1), port, 100);
                for (uint32_t source = round < 2 ? noisy : 0; source > 0; source--) {
                    rx_n(11, lldp().from(source), port, 100);
                    rx(lldp().from(2000 + source % 400), port, 100);
                    rx_n(12, arp().from(1), 7000 - source, port);  // no flood of ARP
                    rx_n(11, lldp().from(OWN_MAC), 7000 - source, port);
                }
            }
            pass_seconds(10);
            uint32_t blocks = 0;
            const auto see = [&](const atc_stat_t &stat, const std::string &who) {
                EXPECT_EQ(std::pair(+stat.fp_cur, +stat.lp_cur), std::pair(round, round)) << "not closed once: " << who;
                blocks++;
                if (round == 0 && stat.count > 10 && who.find("arp") == std::string::npos) {
                    flooding.push_back(who);
                }
            };
            atc_tree_each<atc_entry_t>(&state()->entry_tree, [&](atc_entry_t *flow) {
                char name[ATC_NAME_SIZE];
                atc_protocol_id_to_name(flow->protocol, name, sizeof(name));
                const std::string who = "anti-cpu rx port " + std::to_string(flow->port) + " vlan " +
                                        std::to_string(flow->vlan) + " protocol " + name + " ";
                see(flow->stat, who);
                atc_tree_each<atc_src_entry_t>(&flow->src_tree, [&](atc_src_entry_t *src) {
                    atc_src_text(src->src_type, src->src_addr, name, sizeof(name));
                    see(src->stat, who + "src " + name + " ");
                });
            });
            EXPECT_EQ(flooding.size(), 2 + 4 * noisy);
            EXPECT_EQ(blocks, round < 2 ? 2 + 6 * noisy + 2 * std::min(noisy, 400u) : 2 + 4 * noisy + 2);
            Lines expected;
            for (const char *period : {"fast", "long"}) {
                for (const std::string &who : round == 1 ? Lines() : flooding) {
                    expected.push_back(who + (round == 0 ? "over " : "restore ") + period);
                }
            }
            Lines told = alarms();
            for (std::string &line : told) {
                line.resize(std::min(line.size(), line.find(" period limit")));
            }
            EXPECT_EQ(told, expected) << "round " << round;
        }
    }
}

TEST_F(EvaluationTest, SourcesAreNamedByTheirKind) {
    atc_api_set_fast_period_time(10);
    atc_api_set_long_period_time(20);
    // A source counts from the 120th packet of its flow's first period on.
    flood({tcp(50000, 80, SYN).src_ip("192.168.0.1"), icmpv6(135).src_ip("2001:db8::7")}, 50, 20);
    const Lines log = alarms();
    const std::string text = std::accumulate(log.begin(), log.end(), std::string(),
                                             [](std::string sum, const auto &line) { return sum + line + "\n"; });
    for (const char *expected :
         {"protocol tcp-syn src ip 192.168.0.1 over fast period limit,receive/limit:38/12(pps)",
          "protocol icmpv6-ns src ipv6 2001:db8::7 over fast period limit,receive/limit:38/12(pps)",
          "protocol tcp-syn over long period limit,receive/limit:50/10(pps)",
          "protocol tcp-syn src ip 192.168.0.1 over long period limit,receive/limit:44/10(pps)"}) {
        EXPECT_NE(text.find(expected), std::string::npos) << expected << " in\n" << text;
    }
}

TEST_F(EvaluationTest, SoftwareDenyFollowsTheAlarmAndItsEnable) {
    atc_api_set_fast_period_time(10);
    flood({lldp()}, 20, 10);
    EXPECT_EQ(rx(lldp(), 3, 100), 0) << "deny is off";
    atc_api_set_protocol_deny_enable(ATC_LLDP, 1);
    flood({lldp()}, 20, 9);
    EXPECT_EQ(rx(lldp(), 3, 100), 0) << "takes effect at the period end";
    pass_seconds(1);
    EXPECT_EQ(rx(lldp(), 3, 100), -1);
    EXPECT_EQ(rx(lldp(), 4, 100), 0) << "another port is another flow";
    atc_api_set_protocol_deny_enable(ATC_LLDP, 0);
    EXPECT_EQ(rx(lldp(), 3, 100), 0) << "lifted at once";
    atc_api_set_protocol_deny_enable(ATC_LLDP, 1);
    flood({lldp()}, 20, 10);
    EXPECT_EQ(rx(lldp(), 3, 100), -1);
    flood({lldp()}, 1, 10);
    EXPECT_EQ(rx(lldp(), 3, 100), 0) << "restored";
}

TEST_F(EvaluationTest, ASourceIsDeniedOnItsOwn) {
    atc_api_set_fast_period_time(10);
    atc_api_set_protocol_src_deny_enable(ATC_LLDP, 1);
    for (int second = 0; second < 20; second++) {
        rx_n(20, lldp().from(1), 3, 100);
        rx_n(2, lldp().from(2), 3, 100);
        pass_seconds(1);
    }
    EXPECT_EQ(rx(lldp().from(1), 3, 100), -1);
    EXPECT_EQ(rx(lldp().from(2), 3, 100), 0);
}

TEST_F(EvaluationTest, ASilentSourceGoesWithTheLongPeriodUnlessTheChipSilencesIt) {
    atc_api_set_fast_period_time(10);
    atc_api_set_long_period_time(50);
    atc_api_set_protocol_src_cap_enable(ATC_LLDP, 1);
    atc_api_set_protocol_src_hw_deny_enable(ATC_LLDP, 1);
    flood({lldp()}, 20, 20);
    const uint8_t mac[] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    ASSERT_NE(source(3, 100, ATC_LLDP, ATC_SRC_MAC, mac), nullptr);
    ASSERT_EQ(state()->protocol_cap_cnt, 1u);
    // The flood goes on in the chip, for two long periods and one fast one.
    for (uint32_t round = 1; round <= 90; round++) {
        for (const ChipRule &rule : fake().chip()) {
            fake().set_packets(rule.stat_id, round * 1000000);
        }
        pass_seconds(1);
        ASSERT_NE(source(3, 100, ATC_LLDP, ATC_SRC_MAC, mac), nullptr) << "second " << round;
    }
    EXPECT_EQ(state()->rule_hw_count, 1u);
    pass_seconds(40);
    EXPECT_EQ(state()->rule_hw_count, 0u);
    EXPECT_EQ(source(3, 100, ATC_LLDP, ATC_SRC_MAC, mac), nullptr);
    EXPECT_EQ(state()->protocol_cap_cnt, 0u);
}

TEST_F(EvaluationTest, TheDailySweepDiscardsWhatIsIdleWithAllThatItHolds) {
    atc_api_set_fast_period_time(10);
    atc_api_set_long_period_time(2 * DAY_S);  // ages nothing
    atc_api_set_protocol_cap_enable(ATC_LLDP, 1);
    atc_api_set_protocol_hw_deny_enable(ATC_LLDP, 1);
    rx(arp(), 5, 50);  // stays: its count is not 0
    pass_seconds(DAY_S - 20);
    flood({lldp()}, 20, 10);
    rx_n(200, tcp(50000, 80, SYN).src_ip(1), 5, 50);
    rx(tcp(50000, 80, SYN).src_ip(2), 5, 50);
    const uint32_t first = 1;
    EXPECT_EQ(atc_api_clear_statistic(ATC_DIRECTION_RX, 50, 5, ATC_TCP_SYN, ATC_SRC_IPV4, &first), 0);
    rx_n(200, lldp(), 3, 100);
    ASSERT_EQ(state()->rule_hw_count, 1u);
    ASSERT_NE(entry(3, 100, ATC_LLDP)->stat.cap_buf, nullptr);
    // Cleared entries have a count of 0; the source under the flow still counts.
    EXPECT_EQ(atc_api_clear_statistic(ATC_DIRECTION_RX, 100, 3, ATC_LLDP, ATC_SRC_NONE, nullptr), 0);
    EXPECT_EQ(atc_api_clear_statistic_port(ATC_DIRECTION_RX, 3), 0);
    EXPECT_EQ(atc_api_clear_statistic_vlan(ATC_DIRECTION_RX, 100), 0);
    EXPECT_EQ(atc_api_clear_statistic_protocol(ATC_DIRECTION_RX, ATC_LLDP), 0);
    pass_seconds(10);
    EXPECT_EQ(entry(3, 100, ATC_LLDP), nullptr);
    EXPECT_NE(entry(5, 50, ATC_ARP), nullptr);
    EXPECT_EQ(ipv4_source(5, 50, ATC_TCP_SYN, 1), nullptr) << "its count was 0";
    EXPECT_NE(ipv4_source(5, 50, ATC_TCP_SYN, 2), nullptr);
    const State state;
    EXPECT_EQ(atc_avl_numnodes(&state->port_tree), 1u);
    EXPECT_EQ(atc_avl_numnodes(&state->vlan_tree), 1u);
    EXPECT_EQ(atc_avl_numnodes(&state->rx_protocol_tree), 2u);
    EXPECT_EQ(state->rule_hw_count, 0u);
    EXPECT_EQ(state->protocol_cap_cnt, 0u);
}

// Floods of every class come and go for a week, on top of quiet traffic.
TEST_F(EvaluationTest, AWeekOfFloodsLeavesEveryAlarmClearedAndEveryCountTrue) {
    constexpr uint32_t SEED = 7;
    RecordProperty("seed", static_cast<int>(SEED));
    std::mt19937 generator(SEED);
    const auto random = [&generator] { return static_cast<uint32_t>(generator()); };
    for (uint32_t id = 1; id <= ATC_PROTOCOL_COUNT; id++) {
        atc_api_set_protocol_fp_limit(id, 1 + random() % 3);
        atc_api_set_protocol_lp_limit(id, 1);
        atc_api_set_protocol_src_fp_limit(id, 1);
        atc_api_set_protocol_deny_enable(id, random() % 2);
        atc_api_set_protocol_src_cap_enable(id, random() % 2);
        atc_api_set_protocol_hw_deny_enable(id, random() % 2);
    }
    std::vector<Frame> frames;
    for (uint32_t id = 1; id <= ATC_PROTOCOL_COUNT; id++) {
        frames.push_back(frame_of_class(static_cast<uint16_t>(id)));
    }
    uint32_t sent = 0;
    uint32_t received = 0;
    uint32_t flooding = 0;  // class index; 0 = nobody
    for (uint32_t minute = 0; minute < 7 * DAY_S / 60; minute++) {
        if (minute % 10 == 0) {
            flooding = random() % 2 == 0 ? random() % ATC_PROTOCOL_COUNT : 0;
        }
        const Frame &quiet = frames[random() % frames.size()];
        rx(quiet, 1 + random() % 2, 10);
        tx(quiet);
        received++;
        sent++;
        if (flooding != 0 && minute < 7 * DAY_S / 60 - 130) {
            rx_n(250, frames[flooding], 1, 10);
            received += 250;
        }
        pass_seconds(60);
    }
    EXPECT_EQ(state()->rx_stat.count, received);
    EXPECT_EQ(state()->tx_stat.count, sent);

    std::map<std::string, int> raised;  // by flow or source, and period
    int alarms_seen = 0;
    for (const std::string &line : alarms()) {
        const bool over = line.find(" over ") != std::string::npos;
        const size_t event = line.find(over ? " over " : " restore ");
        if (event == std::string::npos) {
            continue;  // a full capture
        }
        int &level =
            raised[line.substr(0, event) + (line.find(" long period ") != std::string::npos ? " long" : " fast")];
        level += over ? 1 : -1;
        EXPECT_TRUE(level == 0 || level == 1) << line;
        alarms_seen++;
    }
    EXPECT_GT(alarms_seen, 1000);
    for (const auto &[who, level] : raised) {
        EXPECT_EQ(level, 0) << who << " is still raised";
    }
    // A quiet day and its sweep: what is idle goes, and clearing gives every block back (checked at the end).
    EXPECT_EQ(state()->rule_hw_count, 0u);
}

TEST_F(EvaluationTest, TenCapturesAreHeldAtATime) {
    atc_api_set_fast_period_time(10);
    atc_api_set_protocol_cap_enable(ATC_LLDP, 1);
    const auto flood_eleven_ports = [this] {
        for (uint32_t port = 1; port <= 11; port++) {
            rx_n(200, lldp(), port, 100);
        }
        pass_seconds(10);
    };
    flood_eleven_ports();
    EXPECT_EQ(state()->protocol_cap_cnt, 10u);
    EXPECT_EQ(entry(11, 100, ATC_LLDP)->stat.cap_buf, nullptr);
    EXPECT_EQ(atc_api_clear_statistic(ATC_DIRECTION_RX, 100, 1, ATC_LLDP, ATC_SRC_NONE, nullptr), 0);
    EXPECT_EQ(state()->protocol_cap_cnt, 9u);
    rx_n(200, lldp(), 11, 100);
    pass_seconds(10);
    EXPECT_EQ(entry(11, 100, ATC_LLDP)->stat.cap_on, 1);
    EXPECT_EQ(state()->protocol_cap_cnt, 10u);
}

TEST_F(EvaluationTest, NoMemoryForACaptureLeavesTheAlarmAndTheNextPeriodTriesAgain) {
    atc_api_set_fast_period_time(10);
    atc_api_set_protocol_cap_enable(ATC_LLDP, 1);
    flood({lldp()}, 20, 9);
    rx_n(20, lldp(), 3, 100);
    fake().fail(Call::alloc, 1, true);
    pass_seconds(1);
    EXPECT_EQ(entry(3, 100, ATC_LLDP)->stat.fp_alarm, 1);
    EXPECT_EQ(entry(3, 100, ATC_LLDP)->stat.cap_on, 0);
    fake().fail_none();
    flood({lldp()}, 20, 10);
    EXPECT_EQ(entry(3, 100, ATC_LLDP)->stat.cap_on, 1);
}

}  // namespace
