// Trunks, their members, and hardware rules that move with them.
#include "atc/trunk.h"

#include <cstring>
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

    // "3 0 5, 2 members": the slots of trunk 40 up to its last member.
    std::string slots() {
        State state;
        if (!atc_port_is_trunk(40)) {
            return "no trunk";
        }
        const auto *trunk = atc_list_record<atc_trunk_t>(state->trunk_list.next);
        std::string text;
        std::string gap;
        for (uint32_t member : trunk->members) {
            gap += std::to_string(member) + " ";
            if (member != 0) {
                text += gap;
                gap.clear();
            }
        }
        return text + "of " + std::to_string(trunk->member_count);
    }

    // An ARP flow and one of its sources denied on port 40, and a configured filter there.
    void install_rules() {
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
        EXPECT_EQ(atc_api_cfg_hw_filter_rule_add(&filter), 0);
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
        {"+3 -3", "of 0"},
        {"+3 -3 -3 +4", "4 of 1"},
        {"+1 +2 +3 +4 +5 +6 +7 +8", "1 2 3 4 5 6 7 8 of 8"},
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
    install_rules();
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
    bool in_chip = false;
    for (const ChipRule &rule : fake().chip()) {
        in_chip |= rule.entry_id == record->rule.sdk_id && rule.stat_id == record->rule.stat_id;
    }
    EXPECT_TRUE(in_chip);
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
    const struct {
        uint32_t op;
        uint32_t type;
    } rows[] = {{1, ATC_MSG_TRUNK_JOIN}, {0, ATC_MSG_TRUNK_LEAVE}, {2, ATC_MSG_TRUNK_LEAVE}};
    for (const auto &row : rows) {
        EXPECT_EQ(atc_api_trunk_member_pro(99, 40, 3, row.op), 0);
        atc_msg_t expected = {};
        expected.type = row.type;
        expected.trunk_id = 40;
        expected.member_port = 3;
        const std::optional<Bytes> message = fake().take_message();
        ASSERT_TRUE(message && message->size() == sizeof(expected));
        EXPECT_EQ(std::memcmp(message->data(), &expected, sizeof(expected)), 0);
    }
    EXPECT_EQ(slots(), "no trunk");
    fake().fail(Call::send, 1);
    EXPECT_EQ(atc_api_trunk_member_pro(0, 40, 3, 1), 0);
    EXPECT_EQ(alarms(), Lines{"anti-cpu trunk 40 member 3 change lost"});
}

TEST_F(Trunk, FailuresLeaveNothingBehind) {
    for (Call kind :
         {Call::alloc, Call::chip_set, Call::chip_delete, Call::chip_entry_id, Call::chip_stat_id, Call::send}) {
        sweep(kind, [this] {
            atc_filter_rule_t filter = {};
            filter.id = 5;
            filter.port = 40;
            filter.action = ATC_HW_ACTION_2;
            atc_api_set_fast_period_time(1);
            atc_api_set_protocol_fp_limit(ATC_ARP, 1);
            atc_api_set_protocol_hw_deny_enable(ATC_ARP, 1);
            rx_n(2, arp(), 40, 1);
            int failed = atc_api_cfg_hw_filter_rule_add(&filter);
            change("+3 +4 -3");
            failed += ports() != Lines{"4", "4"};
            failed += atc_api_cfg_hw_filter_rule_del(5);
            return failed == 0;
        });
    }
}

}  // namespace
