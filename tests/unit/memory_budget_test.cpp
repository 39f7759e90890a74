// SPDX-License-Identifier: Apache-2.0
// memory_budget_test.cpp: the card's budget for the module's memory, by itself; what it does to the module under a
// flood, the scenario memory_budget shows.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "anti_cpu/platform.h"
#include "card_verbs.h"
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

}  // namespace
