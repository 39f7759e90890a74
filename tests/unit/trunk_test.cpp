// SPDX-License-Identifier: Apache-2.0
// Trunks, their members, and hardware rules that move with them.
#include "atc/trunk.h"

#include <sstream>

#include "fixture.h"
#include "frames.h"

namespace {

class Trunk : public ModuleTest {
protected:
    // "+3 +4 -3": joins and leaves of trunk 40 by way of the card and the monitor task.
    void change(const std::string &moves) {
        std::istringstream stream(moves);
        for (std::string move; stream >> move;) {
            const auto member = static_cast<uint32_t>(std::stoul(move.substr(1)));
            EXPECT_EQ(fake().trunk_handler(99, 40, member, move[0] == '+' ? 1 : 2), 0);
            run_messages();
        }
    }

    // An ARP flow and one of its sources denied on port 40, and a configured filter there.
    bool install_rules() {
        set(ATC_ARP, 1,
            {atc_api_set_protocol_fp_limit, atc_api_set_protocol_src_fp_limit, atc_api_set_protocol_hw_deny_enable,
             atc_api_set_protocol_src_hw_deny_enable},
            1);
        rx_n(5, arp(), 40, 1);
        atc_filter_rule_t filter = {};
        filter.id = 5;
        filter.port = 40;
        filter.action = ATC_HW_ACTION_2;
        return atc_api_cfg_hw_filter_rule_add(&filter) == 0 && fake().rules.size() == 3;
    }

    // Ports of the rules in the chip.
    Lines ports() {
        Lines ports;
        for (const std::string &text : chip_texts()) {
            ports.push_back(text.substr(text.rfind("| ") + 2));
        }
        return ports;
    }
};

TEST_F(Trunk, RulesCoverTheMembers) {
    fake().backup_slot = 9;
    fake().ports = {{7, {{9, 1}}}, {41, {{9, 2}}}, {8, std::nullopt}};
    ASSERT_TRUE(install_rules());
    auto *flow_deny = atc_list_record<atc_hw_deny_t>(state()->hw_deny_list.prev);
    flow_deny->last_packets = 77;
    rx_n(5, arp(), 41, 1);  // a plain port is taken wherever it is, and its rules stay
    const std::pair<const char *, Lines> rows[] = {
        {"-3 +0", {"40", "40", "40", "41", "41"}},  // no trunk by that
        {"+3 +3 -9 -0", {"41", "41", "3", "3", "3"}},
        {"+7", {"41", "41", "3", "3", "3"}},        // on the backup core card
        {"+8", {"41", "41", "3 8", "3 8", "3 8"}},  // nobody knows where
        {"-3", {"41", "41", "8", "8", "8"}},
        {"+4", {"41", "41", "4 8", "4 8", "4 8"}},  // in the free slot
        {"-4 -8", {"41", "41"}},                    // nothing left but the backup card's
        {"+1 +2 +5 +6 +9 +10 +11 +12", {"41", "41", "1 2 5 6 9 10 11"}},
    };
    for (const auto &[moves, expected] : rows) {
        change(moves);
        EXPECT_EQ(ports(), expected) << moves;
        EXPECT_EQ(atc_port_is_trunk(40), &expected == &rows[0].second ? 0 : 1);
        if (state()->rule_hw_count == 4) {
            EXPECT_EQ(flow_deny->last_packets, 77U);
        }
    }
    EXPECT_EQ(state()->rule_hw_count, 2U);
    EXPECT_EQ(entry(40, 1, ATC_ARP)->stat.hw_deny_on, 0U);
    EXPECT_TRUE(alarms().empty());
}

// A filter on port 3 and one of the same match on a trunk that shrinks to port 3: the chip takes that rule once only.
TEST_F(Trunk, AFilterThatIsNotInTheChipTakesNoOthersRuleOut) {
    const auto add = [](uint32_t id, uint32_t port) {
        atc_filter_rule_t filter = {};
        filter.id = id;
        filter.port = port;
        filter.action = ATC_HW_ACTION_DENY;
        return atc_api_cfg_hw_filter_rule_add(&filter);
    };
    change("+3 +4");
    EXPECT_EQ(add(1, 3) + add(2, 40), 0);
    for (const auto &[moves, expected] :
         {std::pair<const char *, Lines>{"-4", {"3"}}, {"+4", {"3", "3 4"}}, {"-4", {"3"}}}) {
        change(moves);
        EXPECT_EQ(ports(), expected) << moves;
    }
    EXPECT_EQ(alarms(), Lines(2, "drv set stream deny tocpu faild!")) << "two installations, no removal";
    EXPECT_EQ(atc_api_cfg_hw_filter_rule_del(2), 0) << "without the driver";
    EXPECT_EQ(ports(), Lines{"3"});
    EXPECT_EQ(add(2, 40), -1);
    change("-3 +4");
    EXPECT_EQ(add(2, 40), 0);
    change("-4");
    EXPECT_EQ(atc_api_cfg_hw_filter_rule_del(2), -1) << "a trunk without members";
    EXPECT_EQ(atc_api_cfg_hw_filter_rule_del(1), 0);
}

TEST_F(Trunk, FailuresLeaveNothingBehind) {
    sweep({Call::alloc, Call::chip_set, Call::chip_delete, Call::chip_entry_id, Call::chip_stat_id, Call::send},
          [this] {
              const bool installed = install_rules();
              change("+3 +4 -3");
              const bool moved = ports() == Lines{"4", "4", "4"};
              return (atc_api_cfg_hw_filter_rule_del(5) == 0) && installed && moved;
          });
}

}  // namespace
