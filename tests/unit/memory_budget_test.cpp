// memory_budget_test.cpp: the card's budget for the module's memory, by itself and under a flood at the module.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "anti_cpu/anti_cpu.h"
#include "atc/entries.h"
#include "card_verbs.h"
#include "frames.h"
#include "os/os.h"
#include "services/services.h"

namespace {

using namespace card_verbs;

// The budget's messages while it lives; no budget afterwards.
class Budget {
public:
    // 'room' bytes beyond what is used now.
    explicit Budget(uint64_t room) : bytes(card::memory_use().bytes + room) {
        card::set_log_sink([this](const card::LogMessage &message) {
            if (message.text.starts_with("card: ")) {
                lines.push_back(std::to_string(message.level) + " " + std::string(message.text));
                times.push_back(message.realtime_ns);
            }
        });
        card::set_memory_budget(bytes);
    }
    ~Budget() {
        card::set_memory_budget(0);
        card::set_log_sink(nullptr);
    }

    const uint64_t bytes;
    std::vector<std::string> lines;
    std::vector<int64_t> times;
};

void *allocate(uint32_t size) {
    return bep_mallocEx(size, __FILE__, __LINE__);
}

void release(void *block) {
    bep_freeEx(block, __FILE__, __LINE__);
}

TEST(MemoryBudget, EndsWhereItSays) {
    constexpr uint32_t kSize = 1000;
    const card::MemoryUse before = card::memory_use();
    void *measure = allocate(kSize);
    const uint64_t cost = card::memory_use().bytes - before.bytes;
    release(measure);
    ASSERT_GE(cost, kSize);

    for (const auto &[room, fitting] : {std::pair<uint64_t, size_t>{0, 0},
                                        {cost - 1, 0},
                                        {cost, 1},
                                        {2 * cost - 1, 1},
                                        {2 * cost, 2},
                                        {3 * cost - 1, 2}}) {
        SCOPED_TRACE(room);
        const Budget budget(room + (before.bytes == 0 && room == 0 ? 1 : 0));  // 0 bytes would be no budget
        std::vector<void *> blocks;
        while (void *block = blocks.size() % 2 == 0 ? allocate(kSize) : bep_callocEx(10, kSize / 10, "", 0)) {
            blocks.push_back(block);
            ASSERT_LE(blocks.size(), fitting);
        }
        EXPECT_EQ(blocks.size(), fitting);
        EXPECT_EQ(card::live_blocks(), before.blocks + static_cast<int64_t>(fitting));
        EXPECT_EQ(bep_callocEx(UINT32_MAX, UINT32_MAX, "", 0), nullptr);
        if (!blocks.empty()) {
            release(blocks.back());
            blocks.back() = allocate(kSize);
            EXPECT_NE(blocks.back(), nullptr) << "what is freed may be used again";
        }
        card::set_memory_budget(0);
        void *beyond = allocate(kSize);
        EXPECT_NE(beyond, nullptr) << "no budget";
        release(beyond);
        for (void *block : blocks) {
            release(block);
        }
        EXPECT_EQ(card::memory_use().bytes, before.bytes);
    }
}

TEST(MemoryBudget, TellsOncePerMinuteAndBudget) {
    the_clock().simulate(kStart);
    Budget budget(0);
    const uint64_t before = card::memory_use().refused;
    const auto refuse = [] { EXPECT_EQ(allocate(100'000'000), nullptr); };
    card::set_memory_budget(1);
    refuse();
    refuse();
    run(60 * card::kNanosecondsPerSecond - kMs);
    refuse();
    EXPECT_EQ(budget.lines.size(), 1u);
    run(kMs);
    refuse();
    refuse();
    EXPECT_EQ(budget.lines.size(), 2u);
    card::set_memory_budget(2);  // a new budget tells at once
    refuse();
    EXPECT_EQ(budget.lines.size(), 3u);
    the_clock().simulate(kStart);  // time starts anew: long before the last line
    refuse();
    EXPECT_EQ(budget.lines.size(), 4u);
    EXPECT_EQ(budget.lines.back(), "11 card: memory budget of 2 bytes is used up, " + std::to_string(before + 7) +
                                       " allocations refused so far");
}

TEST(MemoryBudget, SparesWhoIsInAScope) {
    const Budget budget(0);
    card::set_memory_budget(1);
    {
        const card::BudgetScope operators(false);
        void *block = allocate(1000);
        EXPECT_NE(block, nullptr);
        {
            const card::BudgetScope packets(true);
            EXPECT_EQ(allocate(1000), nullptr);
        }
        std::thread([] { EXPECT_EQ(allocate(1000), nullptr) << "another thread"; }).join();
        release(block);
        release(allocate(1000));
    }
    EXPECT_EQ(allocate(1000), nullptr);
}

constexpr uint32_t kPort = 3;

int rx(const Frame &frame, uint32_t vlan) {
    return atc_api_receive_packet(frame.data(), frame.size(), kPort, vlan);
}

// Packets counted in a flow, in a source of it; -1 when there is none.
int64_t counted(uint32_t vlan, uint32_t protocol) {
    const atc_guard_t guard;
    const atc_entry_t *flow = atc_entry_get(ATC_DIRECTION_RX, vlan, kPort, protocol);
    return flow == nullptr ? -1 : int64_t{flow->stat.count};
}

int64_t counted_of(const Frame &frame, uint32_t vlan, uint32_t protocol) {
    constexpr uint32_t kMacOffset = 6;
    const atc_guard_t guard;
    const atc_src_entry_t *src =
        atc_src_entry_get(ATC_DIRECTION_RX, vlan, kPort, protocol, ATC_SRC_MAC, frame.data() + kMacOffset);
    return src == nullptr ? -1 : int64_t{src->stat.count};
}

TEST(MemoryBudget, HoldsAFloodThatVariesVlanAndSource) {
    constexpr uint32_t kVlan = 100;
    constexpr int64_t kSeconds = 150;
    constexpr uint32_t kPerSecond = 200;
    the_clock().simulate(kStart);
    ASSERT_EQ(atc_init(), 0);
    atc_api_set_fast_period_time(1000);
    atc_api_set_protocol_fp_limit(ATC_ARP, 1);
    int64_t known = 1002;  // the flow is over its limit, and the sender of the last packets a source of it
    for (int64_t i = 0; i < known; ++i) {
        ASSERT_EQ(rx(arp(), kVlan), 0);
    }
    const int64_t of_source = counted_of(arp(), kVlan, ATC_ARP);
    ASSERT_GT(of_source, 0);

    const Budget budget(200'000);
    uint32_t dropped = 0;
    int64_t again = 0;
    for (uint32_t i = 0; i < kSeconds * kPerSecond; ++i) {
        if (i % 20 == 0) {
            again++;
            ASSERT_EQ(rx(arp(), kVlan), 0) << i;
        } else if (i % 2 == 0) {
            known++;
            dropped += rx(arp().from(i), kVlan) == -1 ? 1 : 0;
        } else {
            dropped += rx(tcp(40000, 80, SYN), 200 + i % 3800) == -1 ? 1 : 0;
        }
        ASSERT_LE(card::memory_use().bytes, budget.bytes) << i;
        run(card::kNanosecondsPerSecond / kPerSecond);
    }
    EXPECT_GT(dropped, 25'000u);
    EXPECT_GT(card::memory_use().bytes, budget.bytes - 1000) << "all of it is used";
    EXPECT_EQ(counted(kVlan, ATC_ARP), known + again);
    EXPECT_EQ(counted_of(arp(), kVlan, ATC_ARP), of_source + again);
    EXPECT_EQ(rx(lldp(), kVlan), -1);
    EXPECT_EQ(counted(kVlan, ATC_LLDP), -1);
    ASSERT_EQ(budget.times.size(), 3u) << "one a minute";
    EXPECT_EQ(budget.times[1] - budget.times[0], 60 * card::kNanosecondsPerSecond);
    EXPECT_EQ(budget.times[2] - budget.times[1], 60 * card::kNanosecondsPerSecond);

    atc_api_clear_statistic_all();
    EXPECT_EQ(rx(lldp(), kVlan), 0);
    EXPECT_EQ(counted(kVlan, ATC_LLDP), 1);
    atc_api_clear_statistic_all();
}

}  // namespace
