// What remembers entries, against a set: whatever is added, removed, refused for want of memory, moved or shrunk.
#include "atc/state/recall.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "fixture.h"
#include "frames.h"

namespace {

struct Record {
    uint64_t tag;
};

// Every record that the twin holds is found, and nothing else is there.
void expect_same(const atc_recall_table_t &table, const std::map<Record *, bool> &twin) {
    ASSERT_EQ(table.used, twin.size());
    const uint32_t slots = table.slots == nullptr ? 0 : table.mask + 1;
    uint32_t taken = 0;
    for (uint32_t slot = 0; slot < slots; slot++) {
        taken += table.slots[slot].tag != 0 ? 1 : 0;
    }
    ASSERT_EQ(taken, twin.size());
    for (const auto &[record, unused] : twin) {
        ASSERT_EQ(atc_recall_find<Record>(&table, record->tag, [r = record](const Record *seen) { return seen == r; }),
                  record);
    }
}

TEST(Recall, AgainstASet) {
    const uint32_t seed = test_seed();
    SCOPED_TRACE("ATC_TEST_SEED=" + std::to_string(seed));
    std::mt19937 generator(seed);
    const auto random = [&generator] { return static_cast<uint32_t>(generator()); };
    fake().reset();
    std::vector<Record> records(1500);
    for (Record &record : records) {
        // Half of the tags share their top bits with many others, some are equal; the last slots wrap to the first.
        const uint64_t top = random() % 2 == 0 ? random() : 0xfffffc00u | (random() % 1024);
        record.tag = (top << 32) | 1;
    }
    atc_recall_table_t table = {};
    std::map<Record *, bool> twin;
    for (int step = 0; step < 40000; step++) {
        Record *record = &records[random() % records.size()];
        const bool growing = step % 8000 < 5000;
        if (step % 1000 == 0) {
            step % 3000 == 0 ? fake().fail(Call::alloc, 1, true) : fake().fail_none();
        }
        if (twin.contains(record)) {
            if (!growing || random() % 4 == 0) {
                atc_recall_remove(&table, record->tag, record);
                twin.erase(record);
            }
        } else if (growing) {
            const uint32_t before = table.used;
            atc_recall_add(&table, record->tag, record);
            if (table.used != before) {
                twin.emplace(record, true);
            }
        } else {
            atc_recall_remove(&table, record->tag, record);  // was never there
        }
        if (step % 97 == 0) {
            expect_same(table, twin);
        }
    }
    fake().fail_none();
    for (const auto &[record, unused] : std::map(twin)) {
        atc_recall_remove(&table, record->tag, record);
    }
    EXPECT_EQ(table.slots, nullptr);
    EXPECT_EQ(fake().live_blocks(), 0u);
}

class RecallTest : public ModuleTest {};

// Entries that are discarded and made again are counted in their new records, however they were discarded.
TEST_F(RecallTest, NothingThatWasDiscardedIsReachedAgain) {
    atc_api_set_fast_period_time(10);
    const struct {
        const char *name;
        std::function<void()> discard;
    } rows[] = {
        {"clearing everything", [] { atc_api_clear_statistic_all(); }},
        {"the daily sweep",
         [this] {
             atc_api_clear_statistic(ATC_DIRECTION_RX, 100, 3, ATC_LLDP, ATC_SRC_NONE, nullptr);
             atc_api_clear_statistic_port(ATC_DIRECTION_RX, 3);
             atc_api_clear_statistic_vlan(ATC_DIRECTION_RX, 100);
             atc_api_clear_statistic_protocol(ATC_DIRECTION_RX, ATC_LLDP);
             atc_api_clear_statistic_protocol(ATC_DIRECTION_TX, ATC_LLDP);
             pass_seconds(86400);
         }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        rx_n(200, lldp(), 3, 100);
        tx(lldp());
        row.discard();
        ASSERT_EQ(entry(3, 100, ATC_LLDP), nullptr);
        rx_n(150, lldp(), 3, 100);
        tx(lldp());
        const auto first_count = [this](atc_avl_tree_t atc_global_t::*tree) {
            return static_cast<atc_entry_t *>(atc_avl_first(&((*state()).*tree)))->stat.count;
        };
        EXPECT_EQ(first_count(&atc_global_t::port_tree), 150u);
        EXPECT_EQ(first_count(&atc_global_t::vlan_tree), 150u);
        EXPECT_EQ(first_count(&atc_global_t::rx_protocol_tree), 150u);
        EXPECT_EQ(first_count(&atc_global_t::tx_protocol_tree), 1u);
        EXPECT_EQ(entry(3, 100, ATC_LLDP)->stat.count, 150u);
        EXPECT_EQ(mac_source(3, 100, ATC_LLDP, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55})->stat.count, 31u);
    }
}

// A source that has aged is made anew, also the one that sent last.
TEST_F(RecallTest, AnAgedSourceIsNotReachedAgain) {
    const auto sender = [this] { return mac_source(3, 100, ATC_LLDP, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}); };
    atc_api_set_fast_period_time(10);
    atc_api_set_long_period_time(20);
    for (int flood = 0; flood < 2; flood++) {
        rx_n(200, lldp(), 3, 100);
        ASSERT_NE(sender(), nullptr);
        EXPECT_EQ(sender()->stat.count, 81u);
        pass_seconds(60);
        ASSERT_EQ(sender(), nullptr);
    }
}

// Without memory for sources a flood is remembered that has none: nothing but its own entries takes it away.
TEST_F(RecallTest, AFloodWithoutSourcesIsForgottenWithItsEntries) {
    const struct {
        std::function<void()> discard;
        uint32_t of_vlan;  // packets counted, with one more behind the discard
        uint32_t of_flow;
    } rows[] = {
        {[] { atc_api_clear_statistic_all(); }, 1, 1},
        {[this] {
             atc_api_clear_statistic_vlan(ATC_DIRECTION_RX, 100);
             pass_seconds(86400);
         },
         1, 10101},
        {[this] {
             atc_api_clear_statistic(ATC_DIRECTION_RX, 100, 3, ATC_LLDP, ATC_SRC_NONE, nullptr);
             pass_seconds(86400);
         },
         10101, 1},
    };
    for (const auto &row : rows) {
        atc_api_clear_statistic_all();
        rx_n(100, lldp(), 3, 100);
        fake().fail(Call::alloc, 1, true);
        rx_n(10000, lldp(), 3, 100);
        fake().fail_none();
        ASSERT_NE(state()->recall.flood.flow, nullptr);
        row.discard();
        rx(lldp(), 3, 100);
        EXPECT_EQ(static_cast<atc_entry_t *>(atc_avl_first(&state()->vlan_tree))->stat.count, row.of_vlan);
        EXPECT_EQ(entry(3, 100, ATC_LLDP)->stat.count, row.of_flow);
    }
}

}  // namespace
