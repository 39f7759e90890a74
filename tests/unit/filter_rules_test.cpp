// SPDX-License-Identifier: Apache-2.0
// The operator's permit and deny rules: what is stored, which ids are given out.
#include "atc_api/rule_id.h"
#include "fixture.h"

namespace {

class FilterRules : public ModuleTest {
protected:
    static atc_filter_rule_t rule(uint32_t id) {
        atc_filter_rule_t made = {};
        made.id = id;
        made.action = ATC_ACTION_DENY;
        return made;
    }

    static int add(const atc_filter_rule_t &added, uint32_t list_type = 0) {
        return atc_api_cfg_filter_rule_add(&added, list_type);
    }

    // Lets the module choose an id: the id, or 0 when it refuses. No two rules are alike.
    uint32_t add_chosen() {
        atc_filter_rule_t added = rule(0);
        added.dst_ipv4 = ++rules_;
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

private:
    uint32_t rules_ = 0;
};

using IdList = std::vector<uint32_t>;

TEST_F(FilterRules, ListsRunFromNewestToOldest) {
    for (const uint32_t id : {7U, 0U, 4000000000U}) {
        EXPECT_EQ(add(rule(id), 0), 0);
    }
    EXPECT_EQ(add(rule(7), 1), 0) << "the same id in the other list";
    EXPECT_EQ(add(rule(8), 2), 0) << "any type but 1 is list 0";
    EXPECT_EQ(add(rule(7), 0), -1) << "id in use";
    atc_filter_rule_t long_mask = rule(6);
    long_mask.src_ipv4_masklen = 33;
    EXPECT_EQ(add(long_mask), -1);
    EXPECT_EQ(ids(0), (IdList{8, 4000000000U, 0, 7}));
    EXPECT_EQ(ids(1), (IdList{7}));
    EXPECT_EQ(atc_api_cfg_filter_rule_del(0, 77), 0);
    EXPECT_EQ(atc_api_cfg_filter_rule_del(7, 1), 0);
    EXPECT_EQ(atc_api_cfg_filter_rule_del(7, 1), -1) << "it is still in list 0 only";
    EXPECT_EQ(ids(0), (IdList{8, 4000000000U, 7}));
    sweep({Call::alloc}, [] {
        bool all = true;
        for (const uint32_t list_type : {0U, 1U}) {
            const int result = add(rule(9), list_type);
            all = told(result, !ids(list_type).empty()) && all;
        }
        return all;
    });
}

TEST_F(FilterRules, ChoosesTheLowestFreeId) {
    ASSERT_EQ(add(rule(1)), 0);
    ASSERT_EQ(add(rule(2), 1), 0);
    atc_filter_rule_t chosen = rule(5);
    EXPECT_EQ(atc_api_filter_rule_add(&chosen), -1) << "an id of the host's own";
    EXPECT_EQ(add_chosen(), 0U) << "1 is the host's in list 0";
    fake().fail(Call::alloc, 1);
    EXPECT_EQ(add_chosen(), 0U);
    for (uint32_t id = 2; id <= ATC_RULE_ID_MAX; ++id) {  // 1 stays taken; list 1 does not matter
        ASSERT_EQ(add_chosen(), id);
    }
    EXPECT_EQ(add_chosen(), 0U) << "all are taken";
    for (const uint32_t id : {2048U, 5U, 1U}) {
        EXPECT_EQ(atc_api_filter_rule_del(id), 0);
    }
    for (const uint32_t id : {0U, 5U, 2049U, 0xFFFFFFFFU}) {
        EXPECT_EQ(atc_api_filter_rule_del(id), -1) << id;
    }
    for (const int no_id : {0, int{ATC_RULE_ID_MAX} + 1}) {
        EXPECT_EQ(atc_free_rule_id(no_id), -1) << no_id;
    }
    for (const uint32_t expected : {1U, 5U, 2048U, 0U}) {
        EXPECT_EQ(add_chosen(), expected);
    }
}

}  // namespace
