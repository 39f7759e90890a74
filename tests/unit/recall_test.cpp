// SPDX-License-Identifier: Apache-2.0
// What remembers entries, against a set: whatever is added, removed, refused for want of memory, moved or shrunk.
#include "atc/state/recall.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "fixture.h"

namespace {

struct Record {
    uint64_t word;
};

// Every record that the twin holds is found, and nothing else is there.
void expect_same(const atc_recall_table_t &table, const std::set<Record *> &twin) {
    ASSERT_EQ(table.used, twin.size());
    ASSERT_TRUE(twin.empty() || 64 - table.shift <= 6) << "a directory that is too large";
    uint32_t seen = 0;
    atc_recall_cursor_t cursor = {};
    ASSERT_FALSE(atc_recall_walk<Record>(&table, &cursor, [&](Record *) { return ++seen > 0; }));
    ASSERT_EQ(seen, twin.size());
    for (const Record *record : twin) {
        const auto [port, vlan, protocol] = atc_flow_of(record->word);
        const atc_recall_place_t place =
            table.secret != 0 ? atc_flow_place(table.secret, port, vlan, protocol) : atc_tag_place(record->word);
        const auto is_wanted = [=](const Record *found) { return found == record; };
        ASSERT_EQ(atc_recall_find<Record>(&table, place, record->word, is_wanted), record);
    }
}

// The tag that is spread to these bits.
uint64_t tag_of(uint64_t bits) {
    constexpr uint64_t GOLDEN_INVERSE = 0xf1de83e19937733d;
    const uint64_t word = bits * GOLDEN_INVERSE;
    return word ^ (word >> 32);
}

uint32_t refused() {
    return fake().plans[static_cast<size_t>(Call::alloc)].hits;
}

// Tags, of which some share more top bits than any directory has and ask for few slots, the last ones of their piece
// among them, and some are equal; and keys of flows.
TEST(Recall, AgainstASet) {
    const uint32_t seed = test_seed();
    SCOPED_TRACE("ATC_TEST_SEED=" + std::to_string(seed));
    std::mt19937 generator(seed);
    const auto random = [&generator] { return static_cast<uint32_t>(generator()); };
    for (const uint64_t secret : {uint64_t{0}, uint64_t{0xd1342543de82ef95}}) {
        fake().reset();
        std::vector<Record> records(6000);
        for (uint32_t i = 0; i < records.size(); i++) {
            const uint64_t top = i < 900 ? 0xfffffc00u | ((1000 + random() % 100) % 1024) : random();
            records[i].word = secret == 0 ? tag_of((top << 32) | 1)
                                          : atc_flow_key(random() % 48, static_cast<uint16_t>(random() % 64),
                                                         static_cast<uint16_t>(1 + random() % ATC_PROTOCOL_COUNT));
        }
        atc_recall_table_t table = {};
        table.secret = secret;
        std::set<Record *> twin;
        uint32_t adds = 0;  // while memory is refused
        for (int step = 0; step < 80000; step++) {
            Record *record = &records[random() % records.size()];
            const bool growing = step % 20000 < 13000;
            if (step % 2500 == 500) {
                EXPECT_LE(refused(), 2 + adds / 200) << "memory is asked for again and again";
                adds = 0;
                step % 7500 == 500 ? fake().fail(Call::alloc, 1, true) : fake().fail_none();
            }
            if (twin.contains(record)) {
                if (!growing || random() % 4 == 0) {
                    atc_recall_remove(&table, record->word, record);
                    twin.erase(record);
                }
            } else if (growing) {
                const uint32_t before = table.used, patience = table.patience;
                atc_recall_add(&table, record->word, record);
                adds++;
                if (table.used != before) {
                    twin.insert(record);
                } else {
                    ASSERT_TRUE(refused() + patience > 0) << "not remembered, though there is room";
                }
            } else {
                atc_recall_remove(&table, record->word, record);  // was never there
            }
            if (step % 997 == 0) {
                expect_same(table, twin);
            }
        }
        fake().fail_none();
        while (!twin.empty()) {
            Record *record = twin.size() % 2 == 0 ? *twin.begin() : *twin.rbegin();
            atc_recall_remove(&table, record->word, record);
            twin.erase(record);
            EXPECT_LE(fake().live_blocks(), 3 + twin.size() / 20) << "pieces are not merged";
        }
        EXPECT_EQ(table.pieces, nullptr);
        EXPECT_EQ(fake().live_blocks(), 0u);
    }
    FakePlatform::release_clock();
}

// Addresses that a sender may choose, in steps that a multiplication alone would leave in order or in the top bits.
TEST(Recall, ChosenAddressesDoNotCollide) {
    constexpr uint64_t SECRETS[] = {0x243f6a8885a308d3, 0x13198a2e03707345};
    for (const uint32_t shift : {0u, 8u, 32u, 40u, 48u, 53u}) {
        for (const bool of_low_half : {false, true}) {
            std::map<uint64_t, uint32_t> slots;  // of four pieces
            uint32_t most = 0;
            for (uint64_t i = 0; i < ATC_SOURCES_PER_FLOW; i++) {
                const uint64_t half = i << shift;
                const atc_recall_place_t place =
                    atc_tag_place(atc_recall_fold(SECRETS, of_low_half ? half : 7, of_low_half ? 7 : half));
                most = std::max(most, ++slots[(place.bits >> 62 << 32) | (place.offset & ATC_RECALL_OFFSETS)]);
            }
            EXPECT_LE(most, 8u) << "half shifted by " << shift;
            EXPECT_GE(slots.size(), 1400u) << "half shifted by " << shift;  // 1613 are expected of chance
        }
    }
}

}  // namespace
