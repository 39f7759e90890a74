// SPDX-License-Identifier: Apache-2.0
// avltree_test.cpp: the ordered index against a std::map.
#include "atc_avltree/avltree.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <random>

#include "fixture.h"

namespace {

struct Record {
    int key;
    atc_avl_node_t link;  // not first: the tree has an offset to respect
};

int compare_keys(const void *a, const void *b) {
    int left = static_cast<const Record *>(a)->key;
    int right = static_cast<const Record *>(b)->key;
    return left < right ? -1 : left > right;
}

// A tree, its records and its twin.
struct Index {
    Index() { atc_avl_create(&tree, compare_keys, sizeof(Record), offsetof(Record, link)); }
    Record *make(int key) { return records.emplace_back(std::make_unique<Record>(Record{key, {}})).get(); }
    void add(int key) {
        Record *record = make(key);
        atc_avl_add(&tree, record);
        twin.emplace(key, record);
    }
    void add_all(const std::vector<int> &keys) {
        std::vector<void *> added;
        for (int key : keys) {
            added.push_back(make(key));
            twin.emplace(key, static_cast<Record *>(added.back()));
        }
        atc_avl_add_all(&tree, added.data(), static_cast<uint32_t>(added.size()));
    }
    void remove(int key) {
        atc_avl_remove(&tree, twin.at(key));
        twin.erase(key);
    }
    // The twin's record next to a key that it need not have, on one side.
    Record *beside(int key, int side) const {
        auto next = side == 0 ? twin.lower_bound(key) : twin.upper_bound(key);
        if (side == 0) {
            return next == twin.begin() ? nullptr : std::prev(next)->second;
        }
        return next == twin.end() ? nullptr : next->second;
    }

    // What is wrong with the shape, or with the order of the records in either direction.
    std::string problems() const {
        const std::string shape_problems = tree_problems(tree);
        if (!shape_problems.empty()) {
            return shape_problems;
        }
        void *up = atc_avl_first(&tree);
        void *down = atc_avl_last(&tree);
        for (auto [low, high] = std::pair{twin.begin(), twin.rbegin()}; low != twin.end(); ++low, ++high) {
            if (up != low->second || down != high->second) {
                return "order";
            }
            up = atc_avl_next(&tree, up);
            down = atc_avl_prev(&tree, down);
        }
        const bool counted = atc_avl_numnodes(&tree) == twin.size() && (atc_avl_is_empty(&tree) == 1) == twin.empty();
        return up == nullptr && down == nullptr && counted ? "" : "count";
    }

    // "(1)2(3)": every subtree in brackets around its root.
    static std::string shape(const atc_avl_node_t *node) {
        const auto *record =
            reinterpret_cast<const Record *>(reinterpret_cast<const char *>(node) - offsetof(Record, link));
        auto side = [](const atc_avl_node_t *child) { return child == nullptr ? "" : "(" + shape(child) + ")"; };
        return side(node->child[0]) + std::to_string(record->key) + side(node->child[1]);
    }

    atc_avl_tree_t tree;
    std::map<int, Record *> twin;
    std::vector<std::unique_ptr<Record>> records;
};

TEST(AvlTree, WhoTakesThePlaceOfARemovedRecord) {
    const struct {
        const char *name;
        std::vector<int> insert;
        int remove;
        const char *shape;
    } rows[] = {
        {"balanced: the predecessor", {4, 2, 6, 1, 3, 5, 7}, 4, "((1)2)3((5)6(7))"},
        {"left-heavy: the predecessor", {3, 2, 4, 1}, 3, "(1)2(4)"},
        {"right-heavy: the successor", {2, 1, 5, 3, 6}, 2, "(1)3(5(6))"},
        {"rotation around a balanced child", {2, 1, 4, 3, 5}, 1, "(2(3))4(5)"},
    };
    for (const auto &row : rows) {
        Index index;
        std::ranges::for_each(row.insert, [&](int key) { index.add(key); });
        index.remove(row.remove);
        EXPECT_EQ(Index::shape(index.tree.root), row.shape) << row.name;
    }
}

// One random step on tree and twin; adds of keys that are there already among them.
class RandomSteps {
public:
    RandomSteps(uint32_t seed, int keys) : random_(seed), keys_(keys) {}

    void step() {
        int key = below(keys_);
        Record *present = index.twin.contains(key) ? index.twin.at(key) : nullptr;
        Record value{key, {}};
        atc_avl_where_t where = 0;
        ASSERT_EQ(atc_avl_find(&index.tree, &value, &where), present);
        for (int side = 0; side < 2 && present == nullptr; ++side) {
            ASSERT_EQ(atc_avl_nearest(&index.tree, where, side), index.beside(key, side));
        }
        int action = below(7);
        if (action == 6) {
            std::vector<int> together(static_cast<size_t>(below(ATC_AVL_ADD_MAX + 1)));
            std::ranges::generate(together, [&] { return below(keys_); });
            index.add_all(together);
        } else if (action < 2) {
            index.add(key);
        } else if (present != nullptr) {
            action == 2   ? insert_beside(present, below(2))
            : action == 3 ? change_key(present, below(keys_))
                          : index.remove(key);
        }
    }

    Index index;

private:
    int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }

    void insert_beside(Record *here, int direction) {
        int key = here->key + (direction == 0 ? -1 : 1);
        if (!index.twin.contains(key)) {
            atc_avl_insert_here(&index.tree, index.twin[key] = index.make(key), here, direction);
        }
    }

    void change_key(Record *record, int key) {
        int old_key = record->key;
        if (!index.twin.contains(key)) {
            int side = key < old_key ? 0 : 1;
            int past = index.beside(old_key, side) != index.beside(key, side) ? 1 : 0;
            index.twin.erase(old_key);
            index.twin.emplace(key, record);
            record->key = key;
            auto update = below(2) == 0 ? atc_avl_update : side == 0 ? atc_avl_update_lt : atc_avl_update_gt;
            EXPECT_EQ(update(&index.tree, record), past) << old_key << " to " << key;
        }
    }

    std::mt19937 random_;
    int keys_;
};

TEST(AvlTree, RandomStepsAgainstAMap) {
    const uint32_t seed = test_seed();
    for (int keys : {4, 32, 300}) {
        RandomSteps steps(seed, keys);
        for (int i = 0; i < 4000 && !HasFailure(); ++i) {
            steps.step();
            ASSERT_EQ(steps.index.problems(), "") << "ATC_TEST_SEED=" << seed << ", keys " << keys << ", step " << i;
        }
    }
}

// Every record is freed as soon as it is handed out, so a sanitizer sees a parent that comes before its children.
TEST(AvlTree, DestroyHandsOutEveryRecordOnce) {
    for (int n = 0; n <= 40; ++n) {
        Index index;
        for (int i = 1; i <= n; ++i) {
            index.add(i * 7 % 41);
        }
        uintptr_t cookie = 0;
        while (void *record = atc_avl_destroy_nodes(&index.tree, &cookie)) {
            ASSERT_EQ(std::erase_if(index.records, [&](auto &owned) { return owned.get() == record; }), 1U) << n;
        }
        EXPECT_TRUE(index.records.empty()) << n;
        EXPECT_EQ(index.tree.root, nullptr);
        EXPECT_EQ(index.tree.numnodes, 0U);
    }
}

}  // namespace
