// support_test.cpp: the fake card and the fixture notice what they are there to notice.
#include <gtest/gtest-spi.h>

#include "fixture.h"
#include "frames.h"

namespace {

class Support : public ModuleTest {
protected:
    // The first failure of a piece of a test.
    static std::string failure_of(const std::function<void()> &piece) {
        ::testing::TestPartResultArray results;
        {
            ::testing::ScopedFakeTestPartResultReporter reporter(&results);
            piece();
        }
        return results.size() > 0 ? results.GetTestPartResult(0).message() : "";
    }
};

TEST_F(Support, TheCardWatchesItsCaller) {
    static uint8_t block[24];  // not from the allocator; also a message, a result area; a list of no items
    static const uint16_t installing[] = {1, 0};
    static constexpr uint32_t queue = FakePlatform::queue_handle;
    const struct {
        std::function<void()> call;
        bool mutex_held;
        const char *failure;
    } rows[] = {
        {[] { bep_freeEx(block, "", 0); }, false, "never allocated"},
        {[] { bep_semTakeEx(FakePlatform::sem_handle, -1, "", 0); }, true, "taken twice"},
        {[] { bep_semGiveEx(FakePlatform::sem_handle, "", 0); }, false, "not taken"},
        {[] { bep_taskDelayEx(1); }, true, "with the module mutex held"},
        {[] { bep_msgQReceiveEx(queue, block, sizeof(atc_msg_t), 1, "", 0); }, true, "with the module mutex held"},
        {[] { xftp_upload_base("", "", "", "", block, 0, 0, block); }, true, "with the module mutex held"},
        {[] { bep_msgQSendEx(queue, block, 4, 0, 1, "", 0); }, false, "does not fit the queue"},
        {[] { hw_driver_delete_qos_item_by_stream(0, 0, block, 2, block, 2, installing, 4, nullptr); }, false,
         "kind of the port list"},
    };
    for (const auto &row : rows) {
        std::optional<State> mutex;
        if (row.mutex_held) {
            mutex.emplace();
        }
        const std::string failure = failure_of(row.call);
        EXPECT_NE(failure.find(row.failure), std::string::npos) << row.failure << ": " << failure;
    }
}

TEST_F(Support, BrokenStateIsSeen) {
    rx(arp(), 3, 100);
    const auto expect_seen = [](auto &number, const char *name) {
        EXPECT_EQ(state_problems(), "");
        ++number;
        EXPECT_NE(state_problems(), "") << name;
        --number;
    };
    expect_seen(entry(3, 100, ATC_ARP)->stat.hw_deny_on, "deny flag without a record");
    expect_seen(g_atc_global.rule_hw_count, "deny count");
    expect_seen(g_atc_global.protocol_cap_cnt, "capture count");
    expect_seen(g_atc_global.vlan_tree.numnodes, "nodes of an index");
    expect_seen(g_atc_global.port_tree.root->balance, "balance");
}

// Both blocks or nothing, but one of them is forgotten when there is no other.
TEST_F(Support, SweepFindsALeak) {
    std::vector<void *> kept;
    auto leaky = [&kept] {
        void *blocks[] = {bep_mallocEx(1, "", 0), bep_mallocEx(1, "", 0)};
        const bool both = blocks[0] != nullptr && blocks[1] != nullptr;
        for (void *block : blocks) {
            both ? bep_freeEx(block, "", 0) : kept.push_back(block);
        }
        return both;
    };
    EXPECT_NE(failure_of([&] { sweep(Call::alloc, leaky); }).find("leaked"), std::string::npos);
    for (void *block : kept) {
        bep_freeEx(block, "", 0);
    }
}

}  // namespace
