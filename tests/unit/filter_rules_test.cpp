// filter_rules_test.cpp: the operator's permit and deny rules: what is stored, which ids are given out, what packets
// get.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "fixture.h"
#include "frames.h"

namespace {

class FilterRules : public ModuleTest {
protected:
    static atc_filter_rule_t rule(uint32_t id, uint32_t action = ATC_ACTION_DENY) {
        atc_filter_rule_t made = {};
        made.id = id;
        made.action = action;
        return made;
    }

    static int add(const atc_filter_rule_t &added, uint32_t list_type = 0) {
        return atc_api_cfg_filter_rule_add(&added, list_type);
    }

    // Lets the module choose an id: the id, or 0 when it refuses.
    static uint32_t add_chosen(atc_filter_rule_t added = rule(0)) {
        const int result = atc_api_filter_rule_add(&added);
        EXPECT_EQ(result == 0, added.id != 0) << "an id goes with success only";
        return added.id;
    }

    // The ids of a list as the host walks it.
    static std::vector<uint32_t> ids(uint32_t list_type) {
        std::vector<uint32_t> found;
        const atc_filter_node_t *first = atc_api_cfg_filter_rule_get_first(list_type);
        for (const atc_filter_node_t *node = first; node != first->prev; node = node->next) {
            found.push_back(node->rule.id);
        }
        return found;
    }
};

using IdList = std::vector<uint32_t>;

TEST_F(FilterRules, ListsRunFromNewestToOldest) {
    for (const uint32_t id : {7U, 0U, 4000000000U}) {
        EXPECT_EQ(add(rule(id), 0), 0);
    }
    EXPECT_EQ(add(rule(7), 1), 0) << "the same id in the other list";
    EXPECT_EQ(add(rule(8), 2), 0) << "any type but 1 is list 0";
    EXPECT_EQ(ids(0), (IdList{8, 4000000000U, 0, 7}));
    EXPECT_EQ(ids(1), (IdList{7}));

    EXPECT_EQ(atc_api_cfg_filter_rule_del(0, 77), 0);
    EXPECT_EQ(atc_api_cfg_filter_rule_del(7, 1), 0);
    EXPECT_EQ(atc_api_cfg_filter_rule_del(7, 1), -1) << "it is still in list 0 only";
    EXPECT_EQ(ids(0), (IdList{8, 4000000000U, 7}));
    EXPECT_EQ(ids(1), IdList{});
}

TEST_F(FilterRules, RefusedRulesChangeNothing) {
    ASSERT_EQ(add(rule(5)), 0);
    atc_filter_rule_t long_mask = rule(6);
    long_mask.src_ipv4_masklen = 33;
    EXPECT_EQ(atc_api_cfg_filter_rule_add(nullptr, 0), -1);
    EXPECT_EQ(atc_api_filter_rule_add(nullptr), -1);
    EXPECT_EQ(add(rule(5)), -1) << "id in use";
    EXPECT_EQ(add(long_mask), -1);
    long_mask.id = 0;
    EXPECT_EQ(add_chosen(long_mask), 0U);
    atc_filter_rule_t has_id = rule(5);
    EXPECT_EQ(atc_api_filter_rule_add(&has_id), -1) << "the id is the module's to choose";
    for (const uint32_t id : {0U, 6U, 2048U, 2049U, 0xFFFFFFFFU}) {
        EXPECT_EQ(atc_api_filter_rule_del(id), -1) << id;
    }
    EXPECT_EQ(ids(0), (IdList{5}));
    fake().fail(Call::alloc, 1);
    EXPECT_EQ(add_chosen(), 0U);
    EXPECT_EQ(add_chosen(), 1U) << "no id was used up";
    sweep(Call::alloc, [] { return add(rule(9), 1) == 0 && add(rule(9), 0) == 0 && add_chosen() == 1; });
}

TEST_F(FilterRules, ChoosesTheLowestFreeId) {
    ASSERT_EQ(add(rule(1)), 0);
    ASSERT_EQ(add(rule(2), 1), 0);
    EXPECT_EQ(add_chosen(), 0U) << "1 is the host's in list 0";
    for (uint32_t id = 2; id <= ATC_RULE_ID_MAX; ++id) {  // 1 stays taken; list 1 does not matter
        ASSERT_EQ(add_chosen(), id);
    }
    EXPECT_EQ(add_chosen(), 0U) << "all are taken";
    for (const uint32_t id : {2048U, 5U, 1U}) {
        EXPECT_EQ(atc_api_filter_rule_del(id), 0);
    }
    for (const uint32_t expected : {1U, 5U, 2048U, 0U}) {
        EXPECT_EQ(add_chosen(), expected);
    }
}

TEST_F(FilterRules, DecideOverTheLimiter) {
    struct {
        const char *name;
        std::vector<uint32_t> list0;  // actions of rules that match
        std::vector<uint32_t> list1;
        int within_limit;
        int denied_in_software;
    } const rows[] = {
        {"no rules", {}, {}, 0, -1},
        {"deny", {ATC_ACTION_DENY}, {}, -1, -1},
        {"deny in list 1", {}, {ATC_ACTION_DENY}, -1, -1},
        {"permit", {ATC_ACTION_PERMIT}, {}, 0, 0},
        {"permit in list 1 beats deny", {ATC_ACTION_DENY}, {ATC_ACTION_PERMIT}, 0, 0},
        {"newer deny does not beat permit", {ATC_ACTION_PERMIT, ATC_ACTION_DENY}, {ATC_ACTION_DENY}, 0, 0},
        {"other actions do nothing", {0, 3}, {4000000000U}, 0, -1},
    };
    atc_api_set_fast_period_time(10);
    atc_api_set_protocol_fp_limit(ATC_ARP, 1);
    atc_api_set_protocol_deny_enable(ATC_ARP, 1);
    rx_n(11, arp());
    pass_seconds(10);  // denied in software on port 1
    for (const auto &row : rows) {
        uint32_t id = 1;
        for (const uint32_t action : row.list0) {
            add(rule(id++, action), 0);
        }
        for (const uint32_t action : row.list1) {
            add(rule(id++, action), 1);
        }
        const uint32_t counted = entry(1, 1, ATC_ARP)->stat.count;
        EXPECT_EQ(rx(arp(), 2), row.within_limit) << row.name;
        EXPECT_EQ(rx(arp(), 1), row.denied_in_software) << row.name;
        EXPECT_EQ(entry(1, 1, ATC_ARP)->stat.count, counted + 1) << row.name << ": counted in any case";
        while (id-- > 1) {
            EXPECT_TRUE(atc_api_cfg_filter_rule_del(id, 0) == 0 || atc_api_cfg_filter_rule_del(id, 1) == 0);
        }
    }
}

TEST_F(FilterRules, LookAtThePacketsLength) {
    atc_filter_rule_t longer = rule(1);
    longer.pkt_len = 100;
    add(longer);
    EXPECT_EQ(rx(udp().resize(100)), 0);
    EXPECT_EQ(rx(udp().resize(101)), -1);
}

// Rules come and go while packets stream. The counter orders nothing between the threads: only the module's mutex does,
// so that a sanitizer sees a rule that goes without it.
TEST_F(FilterRules, ChangeBesidePackets) {
    std::atomic<bool> done{false};
    std::atomic<uint32_t> streamed{0};
    std::thread stream([&] {
        do {
            const int verdict = rx(lldp(), 2);
            EXPECT_TRUE(verdict == 0 || verdict == -1);
            streamed.fetch_add(1, std::memory_order_relaxed);
        } while (!done.load(std::memory_order_relaxed));
    });
    const auto wait_for_a_packet = [&] {
        // The first may have come before this call, the second has not.
        const uint32_t before = streamed.load(std::memory_order_relaxed);
        while (streamed.load(std::memory_order_relaxed) - before < 2) {
            std::this_thread::yield();
        }
    };
    constexpr uint32_t rounds = 100;
    for (uint32_t round = 0; round < rounds; ++round) {
        wait_for_a_packet();
        EXPECT_EQ(add(rule(round), round % 2), 0);
        EXPECT_EQ(rx(arp(), 1), -1) << "in force when the add returns";
        wait_for_a_packet();
        EXPECT_EQ(atc_api_cfg_filter_rule_del(round, round % 2), 0);
        EXPECT_EQ(rx(arp(), 1), 0) << "gone when the delete returns";
    }
    done = true;
    stream.join();
    EXPECT_EQ(entry(2, 1, ATC_LLDP)->stat.count, streamed);
    EXPECT_EQ(state()->rx_stat.count, streamed + 2 * rounds);
}

}  // namespace
