// support_test.cpp: the fake card and the fixture notice what they are there to notice.
#include <gtest/gtest-spi.h>

#include "fixture.h"
#include "frames.h"

namespace {

class Support : public ModuleTest {};

// Functions: a statement in EXPECT_NONFATAL_FAILURE cannot use the locals of its test.
void free_twice() {
    void *block = bep_mallocEx(4, "", 0);
    bep_freeEx(block, "", 0);
    bep_freeEx(block, "", 0);
}
void free_foreign() {
    static int local;
    bep_freeEx(&local, "", 0);
}
void take_twice() {
    atc_guard_t guard;
    bep_semTakeEx(FakePlatform::sem_handle, -1, "", 0);
}
void give_untaken() {
    bep_semGiveEx(FakePlatform::sem_handle, "", 0);
}
void delay_under_mutex() {
    atc_guard_t guard;
    bep_taskDelayEx(1);
}
void receive_under_mutex() {
    atc_guard_t guard;
    atc_msg_t message;
    bep_msgQReceiveEx(FakePlatform::queue_handle, &message, sizeof(message), 1, "", 0);
}
void upload_under_mutex() {
    atc_guard_t guard;
    uint8_t result[24] = {};
    xftp_upload_base("", "", "", "", result, 0, 0, result);
}
void send_short_message() {
    uint32_t type = 0;
    bep_msgQSendEx(FakePlatform::queue_handle, &type, sizeof(type), 0, 1, "", 0);
}
void delete_as_install() {
    const uint16_t none = 0;
    const uint16_t ports[] = {1, 0};
    hw_driver_delete_qos_item_by_stream(0, 0, &none, 2, &none, 2, ports, 4, nullptr);
}

TEST_F(Support, TheCardWatchesItsCaller) {
    EXPECT_NONFATAL_FAILURE(free_twice(), "freed twice");
    EXPECT_NONFATAL_FAILURE(free_foreign(), "never allocated");
    EXPECT_NONFATAL_FAILURE(take_twice(), "taken twice");
    EXPECT_NONFATAL_FAILURE(give_untaken(), "not taken");
    EXPECT_NONFATAL_FAILURE(delay_under_mutex(), "with the module mutex held");
    EXPECT_NONFATAL_FAILURE(receive_under_mutex(), "with the module mutex held");
    EXPECT_NONFATAL_FAILURE(upload_under_mutex(), "with the module mutex held");
    EXPECT_NONFATAL_FAILURE(send_short_message(), "does not fit the queue");
    EXPECT_NONFATAL_FAILURE(delete_as_install(), "kind of the port list");
}

TEST_F(Support, BrokenStateIsSeen) {
    rx(arp(), 3, 100);
    ASSERT_EQ(state_problems(), "");
    atc_stat_t &stat = entry(3, 100, ATC_ARP)->stat;
    struct Row {
        const char *name;
        std::function<void(int)> change;  // +1 breaks, -1 repairs
    };
    const Row rows[] = {
        {"deny flag without a record", [&](int by) { stat.hw_deny_on += static_cast<uint32_t>(by); }},
        {"deny count", [](int by) { g_atc_global.rule_hw_count += static_cast<uint32_t>(by); }},
        {"capture count", [](int by) { g_atc_global.protocol_cap_cnt += static_cast<uint32_t>(by); }},
        {"nodes of an index", [](int by) { g_atc_global.vlan_tree.numnodes += static_cast<uint32_t>(by); }},
        {"balance", [](int by) { g_atc_global.port_tree.root->balance += static_cast<int16_t>(by); }},
        {"timer that is not armed",
         [](int by) {
             atc_guard_t guard;
             by > 0 ? timer_stop(g_atc_global.timer_list, &g_atc_timer_lp)
                    : timer_start(g_atc_global.timer_list, &g_atc_timer_lp, 3600, nullptr, 0, 0, 0);
         }},
    };
    for (const Row &row : rows) {
        row.change(+1);
        EXPECT_NE(state_problems(), "") << row.name;
        row.change(-1);
        EXPECT_EQ(state_problems(), "") << row.name;
    }
}

TEST_F(Support, CallsFailAsPlanned) {
    auto pattern = [](uint32_t nth, bool from_then_on) {
        fake().fail(Call::alloc, nth, from_then_on);
        std::string outcome;
        for (int i = 0; i < 4; ++i) {
            void *block = bep_callocEx(1, 1, "", 0);
            outcome += block != nullptr ? '+' : '-';
            bep_freeEx(block, "", 0);
        }
        return outcome;
    };
    EXPECT_EQ(pattern(1, false), "-+++");
    EXPECT_EQ(pattern(3, false), "++-+");
    EXPECT_EQ(pattern(3, true), "++--");
    EXPECT_EQ(fake().hits(Call::alloc), 2U);
    EXPECT_EQ(fake().failed(Call::alloc), 4U);
    EXPECT_EQ(pattern(5, true), "++++");
}

TEST_F(Support, SweepFindsALeak) {
    std::vector<void *> kept;
    // Both blocks or nothing, but one of them is forgotten when there is no other.
    auto leaky = [&] {
        void *first = bep_mallocEx(1, "", 0);
        void *second = bep_mallocEx(1, "", 0);
        if (first == nullptr || second == nullptr) {
            kept.insert(kept.end(), {first, second});
            return false;
        }
        bep_freeEx(first, "", 0);
        bep_freeEx(second, "", 0);
        return true;
    };
    ::testing::TestPartResultArray results;
    {
        ::testing::ScopedFakeTestPartResultReporter reporter(&results);
        sweep(Call::alloc, leaky);
    }
    ASSERT_GT(results.size(), 0);
    EXPECT_NE(std::string(results.GetTestPartResult(0).message()).find("leaked"), std::string::npos);
    for (void *block : kept) {
        bep_freeEx(block, "", 0);
    }
}

}  // namespace
