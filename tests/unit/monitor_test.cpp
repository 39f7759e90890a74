// The monitor task: when the passes run, and what becomes of messages.
#include "atc/monitor.h"

#include <gtest/gtest.h>

#include "atc/state/message.h"
#include "fixture.h"
#include "frames.h"

namespace {

class MonitorTest : public ModuleTest {
protected:
    // The members of a trunk, empty slots as 0.
    std::vector<uint32_t> members(uint32_t trunk) {
        const State state;
        for (atc_list_t *link = state->trunk_list.next; link != &state->trunk_list; link = link->next) {
            const auto *record = atc_list_record<atc_trunk_t>(link);
            if (record->trunk_id == trunk) {
                return {record->members, record->members + ATC_TRUNK_MEMBERS};
            }
        }
        return {};
    }
};

TEST_F(MonitorTest, ThePassesRunOncePerPeriod) {
    const auto periods = [this] {  // fast and long periods closed since the start
        const State state;
        return std::pair(state->rx_stat.fp_last, state->rx_stat.lp_last);
    };
    const struct {
        uint32_t until_s;
        uint32_t fast_at, long_at;  // packets counted when the last fast and long period was closed
    } rows[] = {{299, 0, 0}, {300, 300, 0}, {599, 300, 0}, {600, 600, 0}, {3599, 3300, 0}, {3600, 3600, 3600}};
    uint32_t now = 0;
    for (const auto &row : rows) {
        for (; now < row.until_s; now++) {
            rx(arp());
            pass_seconds(1);
        }
        EXPECT_EQ(periods(), std::pair(row.fast_at, row.long_at)) << "after " << row.until_s << " s";
    }
}

// The host may set a period between atc_init and the task's first step.
TEST_F(MonitorTest, APeriodSetBeforeTheTaskStartsKeepsItsTimer) {
    atc_api_set_fast_period_time(10);
    atc_task_start();
    rx(arp());
    pass_seconds(9);
    EXPECT_EQ(state()->rx_stat.fp_last, 0u);
    pass_seconds(1);
    EXPECT_EQ(state()->rx_stat.fp_last, 1u);
}

TEST_F(MonitorTest, TrunkChangesAreAppliedInOrder) {
    for (const auto &[member, op] : {std::pair(3u, 1u), {4u, 1u}, {5u, 1u}, {4u, 0u}, {6u, 1u}, {9u, 2u}}) {
        EXPECT_EQ(atc_api_trunk_member_pro(0, 40, member, op), 0);
    }
    EXPECT_TRUE(members(40).empty()) << "nothing before the task comes to it";
    run_messages();
    EXPECT_EQ(members(40), (std::vector<uint32_t>{3, 6, 5, 0, 0, 0, 0, 0}));
}

TEST_F(MonitorTest, WithoutMemoryForTimersTheTaskGoesOn) {
    atc_timer_list_t *list = std::exchange(g_atc_global.timer_list, nullptr);
    EXPECT_EQ(atc_api_trunk_member_pro(0, 40, 3, 1), 0);
    run_messages();
    EXPECT_EQ(members(40)[0], 3u);
    g_atc_global.timer_list = list;
}

TEST_F(MonitorTest, AnUnknownMessageIsPassedOver) {
    atc_msg_t message = {};
    message.type = 4;
    EXPECT_TRUE(atc_msg_post(&message));
    run_messages();
    EXPECT_TRUE(logs().empty());
}

// The whole loop, ended by taking its queue away.
TEST_F(MonitorTest, TheTaskRunsUntilThereIsNoQueue) {
    int turns = 0;
    fake().on_receive = [&turns] {
        fake().advance(1);
        if (++turns == 700) {
            g_atc_global.msgq = 0;
        }
    };
    const uint32_t queue = g_atc_global.msgq;
    rx(arp());
    EXPECT_EQ(atc_task(), 0);
    g_atc_global.msgq = queue;
    fake().on_receive = nullptr;
    EXPECT_EQ(turns, 700);
    EXPECT_EQ(fake().receive_timeout, static_cast<int>(fake().ticks_per_second));
    EXPECT_EQ(state()->rx_stat.fp_last, 1u) << "the fast period was closed on the way";
}

}  // namespace
