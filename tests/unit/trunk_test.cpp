// Trunks, their members, and hardware rules that move with them.
#include "atc/trunk.h"

#include <algorithm>
#include <sstream>

#include "chip_text.h"
#include "fixture.h"
#include "frames.h"

namespace {

using Lines = std::vector<std::string>;

class Trunk : public ModuleTest {
protected:
    // "+3 +4 -3": joins and leaves of trunk 40 by way of the card and the monitor task.
    void change(const std::string &moves) {
        std::istringstream stream(moves);
        for (std::string move; stream >> move;) {
            const auto member = static_cast<uint32_t>(std::stoul(move.substr(1)));
            EXPECT_EQ(fake().trunk_handler(99, 40, member, move[0] == '+' ? 1 : 0), 0);
            run_messages();
        }
    }

    // "3 0 5 of 2": the slots of trunk 40 up to its last member, and how many there are.
    std::string slots() {
        State state;
        if (!atc_port_is_trunk(40)) {
            return "no trunk";
        }
        const auto *trunk = atc_list_record<atc_trunk_t>(state->trunk_list.next);
        std::string text;
        for (uint32_t member : trunk->members) {
            text += std::to_string(member) + " ";
        }
        while (text.ends_with("0 ")) {
            text.resize(text.size() - 2);
        }
        return text + "of " + std::to_string(trunk->member_count);
    }

    // An ARP flow and one of its sources denied on port 40, and a configured filter there.
    bool install_rules() {
        atc_api_set_fast_period_time(1);
        atc_api_set_protocol_fp_limit(ATC_ARP, 1);
        atc_api_set_protocol_src_fp_limit(ATC_ARP, 1);
        atc_api_set_protocol_hw_deny_enable(ATC_ARP, 1);
        atc_api_set_protocol_src_hw_deny_enable(ATC_ARP, 1);
        rx_n(5, arp(), 40, 1);
        atc_filter_rule_t filter = {};
        filter.id = 5;
        filter.port = 40;
        filter.action = ATC_HW_ACTION_2;
        return atc_api_cfg_hw_filter_rule_add(&filter) == 0 && fake().chip().size() == 3;
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

TEST_F(Trunk, SlotsFollowTheMembers) {
    const struct {
        const char *moves;
        const char *slots;
    } rows[] = {
        {"-3", "no trunk"},
        {"+0", "no trunk"},
        {"+3", "3 of 1"},
        {"+3 +3", "3 of 1"},
        {"+3 -9 -0", "3 of 1"},
        {"+3 +4 +5 -4", "3 0 5 of 2"},
        {"+3 +4 +5 -4 +6", "3 6 5 of 3"},
        {"+3 -3 -3 +4", "4 of 1"},
        {"+1 +2 +3 +4 +5 +6 +7 +8 +9", "1 2 3 4 5 6 7 8 of 8"},
        {"+1 +2 +3 +4 +5 +6 +7 +8 +9 -1", "0 2 3 4 5 6 7 8 of 7"},
    };
    for (const auto &row : rows) {
        change(row.moves);
        EXPECT_EQ(slots(), row.slots) << row.moves;
        clear();
    }
}

TEST_F(Trunk, RulesCoverTheMembers) {
    fake().backup_slot = 9;
    fake().map_port(7, 9, 1);
    ASSERT_TRUE(install_rules());
    const struct {
        const char *move;
        Lines ports;  // of both denies and the filter
    } rows[] = {
        {"", {"40", "40", "40"}},
        {"+3", {"3", "3", "3"}},
        {"+7", {"3", "3", "3"}},  // on the backup core card
        {"+4", {"3 4", "3 4", "3 4"}},
        {"-3", {"4", "4", "4"}},
        {"-4", {}},  // nothing left but the backup card's
        {"+5", {"5"}},
    };
    for (const auto &row : rows) {
        change(row.move);
        EXPECT_EQ(ports(), row.ports) << row.move;
    }
    EXPECT_EQ(state()->rule_hw_count, 0U);
    EXPECT_EQ(entry(40, 1, ATC_ARP)->stat.hw_deny_on, 0U);
    EXPECT_EQ(mac_source(40, 1, ATC_ARP, {0, 0x11, 0x22, 0x33, 0x44, 0x55})->stat.hw_deny_on, 0U);
    EXPECT_TRUE(alarms().empty());
}

TEST_F(Trunk, MovedRulesKeepTheirCountAndGetNewIds) {
    install_rules();
    rx_n(5, arp(), 41, 1);
    auto *record = atc_list_record<atc_hw_deny_t>(state()->hw_deny_list.prev);
    record->last_packets = 77;
    change("+3");
    EXPECT_EQ(record->last_packets, 77U);
    EXPECT_TRUE(std::ranges::any_of(fake().chip(), [record](const ChipRule &rule) {
        return rule.entry_id == record->rule.sdk_id && rule.stat_id == record->rule.stat_id;
    }));
    EXPECT_EQ(state()->rule_hw_count, 4U);
    EXPECT_EQ(ports(), (Lines{"41", "41", "3", "3", "3"}));  // another port's rules stay
}

TEST_F(Trunk, ARefusedMoveGivesTheDenyUp) {
    for (int result : {-1, -2}) {
        install_rules();
        fake().chip_set_result = result;
        change("+3");
        fake().chip_set_result = 0;
        EXPECT_EQ(state()->rule_hw_count, 0U);
        EXPECT_EQ(entry(40, 1, ATC_ARP)->stat.hw_deny_on, 0U);
        EXPECT_EQ(alarms(), Lines(3, "drv set stream deny tocpu faild!"));
        change("+4");
        EXPECT_EQ(ports(), Lines{"3 4"}) << "the filter is tried again";
        // The first removal of the second change finds no rule.
        EXPECT_EQ(alarms(), Lines(1, "drv set stream deny tocpu faild!"));
        clear();
    }
}

TEST_F(Trunk, CallbackOnlyPosts) {
    change("+3");
    EXPECT_EQ(atc_api_trunk_member_pro(99, 40, 3, 2), 0);  // neither join nor leave: a leave
    EXPECT_EQ(slots(), "3 of 1");
    run_messages();
    EXPECT_EQ(slots(), "of 0");
    fake().fail(Call::send, 1);
    EXPECT_EQ(atc_api_trunk_member_pro(0, 40, 3, 1), 0);
    EXPECT_EQ(alarms(), Lines{"anti-cpu trunk 40 member 3 change lost"});
}

TEST_F(Trunk, FailuresLeaveNothingBehind) {
    for (Call kind :
         {Call::alloc, Call::chip_set, Call::chip_delete, Call::chip_entry_id, Call::chip_stat_id, Call::send}) {
        sweep(kind, [this] {
            const bool installed = install_rules();
            change("+3 +4 -3");
            const bool moved = ports() == Lines{"4", "4", "4"};
            return (atc_api_cfg_hw_filter_rule_del(5) == 0) && installed && moved;
        });
    }
}

}  // namespace
