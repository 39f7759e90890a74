// What atc_init asks of the card, and the state that it leaves.
#include <gtest/gtest.h>

#include "atc/monitor.h"
#include "fixture.h"
#include "frames.h"

namespace {

class StartupTest : public ModuleTest {};

TEST_F(StartupTest, TheCardIsAskedAsAgreed) {
    ASSERT_EQ(fake().spawned.size(), 1u);
    const Spawned &task = fake().spawned[0];
    EXPECT_EQ(task.name, "atc-mon");
    EXPECT_EQ(task.priority, 30);
    EXPECT_EQ(task.options, 8);
    EXPECT_EQ(task.stack_size, 65536u);
    EXPECT_EQ(task.entry, atc_task);
    EXPECT_EQ(task.args, (std::array<uintptr_t, 11>{}));

    EXPECT_EQ(fake().sem_options, std::vector<uint32_t>{1});
    ASSERT_EQ(fake().queues.size(), 1u);
    EXPECT_EQ(fake().queues[0], (std::array<uint32_t, 3>{256, sizeof(atc_msg_t), 0}));
    EXPECT_EQ(fake().trunk_handler, atc_api_trunk_member_pro);

    ASSERT_EQ(fake().registered.size(), 1u);
    EXPECT_EQ(fake().registered[0].name, "atc-mon");
    EXPECT_EQ(fake().registered[0].args, (std::array<uint32_t, 4>{}));
    ASSERT_EQ(fake().versions.size(), 1u);
    EXPECT_EQ(fake().versions[0].mod_id, FakePlatform::mod_handle);
    EXPECT_EQ(fake().versions[0].kind, 1u);
    EXPECT_EQ(fake().versions[0].text, "Sep  2 2021 03:46:20");
}

TEST_F(StartupTest, EverythingStartsAtItsDefault) {
    const State state;
    EXPECT_EQ(state->global_enable, 1u);
    EXPECT_EQ(state->fast_period_time, 300u);
    EXPECT_EQ(state->long_period_time, 3600u);
    EXPECT_EQ(std::vector<uint8_t>(state->device_mac, state->device_mac + 6), (std::vector<uint8_t>{2, 0, 0, 0, 0, 1}));
    for (int32_t id = 0; id <= ATC_PROTOCOL_COUNT; id++) {
        SCOPED_TRACE(id);
        uint32_t fast = 0;
        uint32_t slow = 0;
        EXPECT_EQ(atc_protocol_lmt_init(id, &fast, &slow), id == 0 ? -1 : 0);
        EXPECT_EQ(state->fp_limit[id], fast);
        EXPECT_EQ(state->lp_limit[id], slow);
        EXPECT_EQ(state->src_fp_limit[id], fast);
        EXPECT_EQ(state->src_lp_limit[id], slow);
        EXPECT_EQ(state->fp_limit_cfg[id], 0u);
        EXPECT_EQ(state->deny[id] + state->hw_deny[id] + state->src_deny[id] + state->src_hw_deny[id], 0u);
    }
    EXPECT_EQ(tree_problems(state->entry_tree), "");
}

TEST_F(StartupTest, APacketBeforeTheEndOfStartUpIsIgnored) {
    g_atc_init = 0;
    EXPECT_EQ(rx(arp()), 0);
    EXPECT_EQ(state()->rx_stat.count, 0u);
    g_atc_init = 1;
    EXPECT_EQ(rx(arp()), 0);
    EXPECT_EQ(state()->rx_stat.count, 1u);
}

}  // namespace
