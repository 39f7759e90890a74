// SPDX-License-Identifier: Apache-2.0
// Start-up, the way of one packet, and the monitor task.
#include "atc/monitor.h"
#include "atc/rule_match.h"
#include "atc/state/message.h"
#include "atc/trunk.h"
#include "atc_api_hw/driver_lists.h"
#include "fixture.h"
#include "frames.h"

namespace {

using CoreTest = ModuleTest;

TEST_F(CoreTest, TheCardIsAskedAsAgreed) {
    EXPECT_EQ(fake().created,
              (Lines{"bep_semMCreateEx 1", "bep_msgQCreateEx 256 0", "norv_task_spawn atc-mon 30 8 65536",
                     "modInitRegister atc-mon", "setModVersion 1 Sep  2 2021 03:46:20"}));
    EXPECT_EQ(fake().task, atc_task);
    EXPECT_EQ(fake().trunk_handler, atc_api_trunk_member_pro);
}

TEST_F(CoreTest, NothingHappensUnlessTheModuleRuns) {
    for (const auto &[initialised, enable] : {std::pair(1U, 0U), {1, 2}, {0, 1}}) {
        atc_word_store(&g_atc_init, initialised);
        atc_api_set_global_enable(enable);
        EXPECT_EQ(rx(arp()), 0);
        EXPECT_EQ(tx(arp()), 0);
    }
    atc_word_store(&g_atc_init, 1);
    EXPECT_EQ(atc_api_receive_packet(nullptr, 60, 1, 1), 0);
    EXPECT_EQ(atc_api_global_send_packet(nullptr, 60), 0);
    EXPECT_EQ(state()->rx_stat.count + state()->tx_stat.count, 0U);
}

// Whichever argument it is: the same calls with all of them are taken.
TEST_F(CoreTest, AMissingArgumentIsRefused) {
    set(ATC_ARP, 1,
        {atc_api_set_protocol_fp_limit, atc_api_set_protocol_src_fp_limit, atc_api_set_protocol_src_cap_enable});
    rx_n(30, arp(), 7, 9);
    pass_seconds(10);
    rx(arp(), 7, 9);
    uint8_t buf[ATC_HW_OP_SIZE];
    const uint8_t mac[ATC_HW_VALUE_SIZE] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    std::vector<atc_src_stat_t> sources(ATC_SOURCES_PER_FLOW);
    uint32_t number = 0;
    const uint16_t size = 4;
    for (const int answer :
         {atc_api_set_cap_start(nullptr, 1), atc_api_set_debug_start(nullptr, 1), atc_api_filter_rule_add(nullptr),
          atc_api_cfg_filter_rule_add(nullptr, 0), atc_api_set_upload_server_user(nullptr)}) {
        EXPECT_EQ(answer, -1);
    }
    for (int missing = 5; missing >= 0; --missing) {
        SCOPED_TRACE(missing);
        // The nth argument that may be missing.
        const auto at = [missing](int n, auto *argument) { return missing == n ? nullptr : argument; };
        const auto expect = [missing](int of, int answer) { EXPECT_EQ(answer, missing < of ? -1 : 0) << of; };
        void *data = nullptr;
        expect(4, atc_api_capture_upload(ATC_DIRECTION_RX, 9, 7, ATC_ARP, ATC_SRC_MAC, at(0, mac), at(1, "server"),
                                         at(2, "user"), at(3, "secret"), 0));
        expect(3, atc_api_get_port_capture(ATC_DIRECTION_RX, 9, 7, ATC_ARP, ATC_SRC_MAC, at(0, mac), at(1, &data),
                                           at(2, &number)));
        atc_api_free_buffer(data);
        expect(3, atc_api_get_src_statistic(ATC_DIRECTION_RX, 9, 7, ATC_ARP, at(0, &number), at(1, &number),
                                            at(2, sources.data())));
        expect(4, atc_hw_fill_rule(at(0, buf), at(1, &number), ATC_HW_VLAN, at(2, mac), 2, at(3, mac), 32, 0));
        const void *const values[] = {at(2, mac)};
        expect(5, atc_hw_fill_op(at(0, buf), at(1, &number), 113, 1, at(3, values), at(4, &size)));
        const atc_guard_t guard;
        expect(2, atc_hw_fill_port(at(0, buf), at(1, &number), 3, 1));
        expect(1, atc_masklen_to_mask(at(0, buf), 8));
        uint32_t id = 0;
        atc_protocol_name_to_id(at(0, &id), at(1, "arp"), 3);
        EXPECT_EQ(id, missing < 2 ? 0 : uint32_t{ATC_ARP});
    }
    atc_protocol_id_to_name(ATC_ARP, nullptr, 8);
    const struct {
        uint16_t value, mask, op;  // bytes, of which only so many have room
    } too_long[] = {{33, 32, 16}, {32, 33, 16}, {32, 32, 17}};
    for (const auto &row : too_long) {
        const void *const values[] = {mac};
        const int answers[] = {atc_hw_fill_rule(buf, &number, ATC_HW_VLAN, mac, row.value, mac, row.mask, 0),
                               atc_hw_fill_op(buf, &number, 113, 1, values, &row.op)};
        EXPECT_EQ(std::ranges::count(answers, -1), 1) << &row - too_long;
    }
}

TEST_F(CoreTest, OwnPacketsAreKnownByTheirSourceAlone) {
    const struct {
        const char *name;
        Frame frame;
        bool received;
        uint16_t protocol;
    } rows[] = {
        {"ARP from the device", arp().from(OWN_MAC), true, ATC_SELF},
        {"SYN from the device, tagged", tcp(1, 2, SYN).from(OWN_MAC).tag(9), true, ATC_SELF},
        {"cut behind the addresses", arp().from(OWN_MAC).cut(12), true, ATC_SELF},
        {"cut inside them", arp().from(OWN_MAC).cut(11), true, ATC_UNKNOWN_PACKET},
        {"to the device", arp().to(OWN_MAC), true, ATC_ARP},
        {"sent by the device", arp().from(OWN_MAC), false, ATC_ARP},
    };
    for (const auto &row : rows) {
        clear();
        row.received ? rx(row.frame, 2, 0x1003) : tx(row.frame);  // VLANs have 12 bits
        auto *index = row.received ? &state()->rx_protocol_tree : &state()->tx_protocol_tree;
        ASSERT_EQ(atc_avl_numnodes(index), 1U) << row.name;
        EXPECT_EQ(static_cast<atc_entry_t *>(atc_avl_first(index))->protocol, row.protocol) << row.name;
        EXPECT_EQ(row.protocol == ATC_SELF, entry(2, 3, ATC_SELF) != nullptr) << row.name << ": its tag is not read";
    }
}

TEST_F(CoreTest, PermitBeatsDenyBeatsTheLimiter) {
    set(ATC_LLDP, 1, {atc_api_set_protocol_deny_enable});
    rx_n(121, lldp(), 1, 1);
    pass_seconds(10);
    atc_filter_rule_t rule = {};
    rule.protocol = ATC_LLDP;
    for (const auto &[action, over_limit, within_limit] :
         {std::array{0, -1, 0}, {ATC_ACTION_DENY, -1, -1}, {ATC_ACTION_PERMIT, 0, 0}}) {
        rule.action = static_cast<uint32_t>(action);
        ASSERT_EQ(atc_api_cfg_filter_rule_add(&rule, rule.id % 2), 0);
        rule.id++;
        EXPECT_EQ(rx(lldp(), 1, 1), over_limit) << action;
        EXPECT_EQ(rx(lldp(), 2, 1), within_limit) << action;
    }
    EXPECT_EQ(entry(1, 1, ATC_LLDP)->stat.count, 124u) << "dropped packets count";
    rule = {};
    rule.action = ATC_ACTION_DENY;
    ASSERT_EQ(atc_api_filter_rule_add(&rule), 0);
    EXPECT_EQ(rx(arp()), -1) << "a rule that compares nothing";
}

TEST_F(CoreTest, AKnownFlowAllocatesNothing) {
    rx(arp());
    tx(arp());
    const uint32_t before = fake().calls(Call::alloc);
    rx_n(100, arp());
    tx_n(100, arp());
    EXPECT_EQ(fake().calls(Call::alloc), before);
}

// The host may set a period between atc_init and the task's first step.
TEST_F(CoreTest, APeriodSetBeforeTheTaskStartsKeepsItsTimer) {
    atc_api_set_fast_period_time(10);
    atc_task_start();
    rx(arp());
    pass_seconds(9);
    EXPECT_EQ(state()->rx_stat.fp_last, 0u);
    pass_seconds(1);
    EXPECT_EQ(state()->rx_stat.fp_last, 1u);
}

TEST_F(CoreTest, WithoutMemoryForTimersTheTaskGoesOn) {
    atc_timer_list_t *list = std::exchange(g_atc_global.timer_list, nullptr);
    EXPECT_EQ(atc_api_trunk_member_pro(0, 40, 3, 1), 0);
    run_messages();
    g_atc_global.timer_list = list;
    EXPECT_EQ(atc_port_is_trunk(40), 1);
}

// The whole loop, ended by taking its queue away.
TEST_F(CoreTest, TheTaskRunsUntilThereIsNoQueue) {
    atc_msg_t unknown = {};
    unknown.type = 4;
    EXPECT_TRUE(atc_msg_post(&unknown));
    int turns = 0;
    fake().on_receive = [&turns] {
        fake().advance(1);
        g_atc_global.msgq = ++turns == 700 ? 0 : FakePlatform::queue_handle;
    };
    rx(arp());
    EXPECT_EQ(atc_task(), 0);
    g_atc_global.msgq = FakePlatform::queue_handle;
    EXPECT_EQ(turns, 700);
    EXPECT_EQ(state()->rx_stat.fp_last, 1u) << "the fast period was closed on the way";
    EXPECT_EQ(alarms(), Lines{});
}

}  // namespace
