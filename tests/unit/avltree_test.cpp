// avltree_test.cpp: the ordered index against a std::map.
#include "atc_avltree/avltree.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <sstream>

#include "fixture.h"

namespace {

struct Record {
    int key;
    atc_avl_node_t link;  // not first: the tree has an offset to respect
};

uint32_t g_compares = 0;

int compare_keys(const void *a, const void *b) {
    ++g_compares;
    int left = static_cast<const Record *>(a)->key;
    int right = static_cast<const Record *>(b)->key;
    return left < right ? -1 : left > right;
}

// A tree, its records and its twin.
class Index {
public:
    Index() { atc_avl_create(&tree, compare_keys, sizeof(Record), offsetof(Record, link)); }

    Record *make(int key) {
        records.push_back(std::make_unique<Record>());
        records.back()->key = key;
        return records.back().get();
    }
    void add(int key) {
        Record *record = make(key);
        atc_avl_add(&tree, record);
        twin.emplace(key, record);
    }
    void add_all(const std::vector<int> &keys) {
        for (int key : keys) {
            add(key);
        }
    }
    void remove(int key) {
        atc_avl_remove(&tree, twin.at(key));
        twin.erase(key);
    }
    Record *find(int key, atc_avl_where_t *where = nullptr) const {
        Record value{key, {}};
        return static_cast<Record *>(atc_avl_find(&tree, &value, where));
    }
    // The twin's record next to a key that it need not have, on one side.
    Record *beside(int key, int side) const {
        auto next = side == 0 ? twin.lower_bound(key) : twin.upper_bound(key);
        if (side == 0) {
            return next == twin.begin() ? nullptr : std::prev(next)->second;
        }
        return next == twin.end() ? nullptr : next->second;
    }

    // Shape, and the order of the records in both directions.
    ::testing::AssertionResult consistent() const {
        std::string problems = tree_problems(tree);
        if (!problems.empty()) {
            return ::testing::AssertionFailure() << problems << shape();
        }
        void *forward = atc_avl_first(&tree);
        void *backward = atc_avl_last(&tree);
        for (auto up = twin.begin(); up != twin.end(); ++up) {
            if (forward != up->second) {
                return ::testing::AssertionFailure() << "forwards: key " << up->first << " expected";
            }
            forward = atc_avl_next(&tree, forward);
        }
        for (auto down = twin.rbegin(); down != twin.rend(); ++down) {
            if (backward != down->second) {
                return ::testing::AssertionFailure() << "backwards: key " << down->first << " expected";
            }
            backward = atc_avl_prev(&tree, backward);
        }
        bool counted = atc_avl_numnodes(&tree) == twin.size() && (atc_avl_is_empty(&tree) == 1) == twin.empty();
        if (forward != nullptr || backward != nullptr || !counted) {
            return ::testing::AssertionFailure() << "more records than were put in";
        }
        return ::testing::AssertionSuccess();
    }

    // "(1)2(3)": every subtree in brackets around its root.
    std::string shape() const { return shape(tree.root); }

    atc_avl_tree_t tree;
    std::map<int, Record *> twin;
    std::vector<std::unique_ptr<Record>> records;

private:
    static std::string shape(const atc_avl_node_t *node) {
        if (node == nullptr) {
            return "";
        }
        const auto *record =
            reinterpret_cast<const Record *>(reinterpret_cast<const char *>(node) - offsetof(Record, link));
        auto side = [](const atc_avl_node_t *child) { return child == nullptr ? "" : "(" + shape(child) + ")"; };
        return side(node->child[0]) + std::to_string(record->key) + side(node->child[1]);
    }
};

std::vector<int> ascending(int n) {
    std::vector<int> keys(static_cast<size_t>(n));
    std::iota(keys.begin(), keys.end(), 1);
    return keys;
}

TEST(AvlTree, EveryOrderOfInsertion) {
    for (int n = 0; n <= 7; ++n) {
        std::vector<int> keys = ascending(n);
        do {
            Index index;
            for (int key : keys) {
                index.add(key);
                ASSERT_TRUE(index.consistent()) << ::testing::PrintToString(keys);
            }
        } while (std::next_permutation(keys.begin(), keys.end()));
    }
}

TEST(AvlTree, EveryOrderOfRemovalFromEveryShape) {
    for (int n = 1; n <= 7; ++n) {
        std::map<std::string, std::vector<int>> shapes;  // and an order of insertion that leads there
        std::vector<int> keys = ascending(n);
        do {
            Index index;
            index.add_all(keys);
            shapes.emplace(index.shape(), keys);
        } while (std::next_permutation(keys.begin(), keys.end()));

        for (const auto &[shape, insertion] : shapes) {
            std::vector<int> removal = ascending(n);
            do {
                Index index;
                index.add_all(insertion);
                for (int key : removal) {
                    index.remove(key);
                    ASSERT_TRUE(index.consistent()) << shape << " without " << ::testing::PrintToString(removal);
                }
            } while (std::next_permutation(removal.begin(), removal.end()));
        }
    }
}

TEST(AvlTree, ShapesAfterRotationAndRemoval) {
    struct Row {
        const char *name;
        std::vector<int> insert;
        std::vector<int> remove;
        const char *shape;
    };
    const Row rows[] = {
        {"single rotation to the left", {1, 2, 3}, {}, "(1)2(3)"},
        {"single rotation to the right", {3, 2, 1}, {}, "(1)2(3)"},
        {"double rotation, right then left", {1, 3, 2}, {}, "(1)2(3)"},
        {"double rotation, left then right", {3, 1, 2}, {}, "(1)2(3)"},
        {"balanced: the predecessor takes the place", {4, 2, 6, 1, 3, 5, 7}, {4}, "((1)2)3((5)6(7))"},
        {"left-heavy: the predecessor", {3, 2, 4, 1}, {3}, "(1)2(4)"},
        {"right-heavy: the successor", {2, 1, 3, 4}, {2}, "(1)3(4)"},
        {"right-heavy: the successor deeper down", {2, 1, 5, 3, 6}, {2}, "(1)3(5(6))"},
        {"single rotation around a balanced child", {2, 1, 4, 3, 5}, {1}, "(2(3))4(5)"},
        {"double rotation on removal", {2, 1, 4, 3}, {1}, "(2)3(4)"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Index index;
        index.add_all(row.insert);
        for (int key : row.remove) {
            index.remove(key);
        }
        EXPECT_EQ(index.shape(), row.shape);
        EXPECT_TRUE(index.consistent());
    }
}

// One random step on tree and twin.
class RandomSteps {
public:
    RandomSteps(uint32_t seed, int keys) : random_(seed), keys_(keys) {}

    void step() {
        int key = below(keys_);
        Record *present = index.twin.contains(key) ? index.twin.at(key) : nullptr;
        atc_avl_where_t where = 0;
        ASSERT_EQ(index.find(key, &where), present);
        if (present == nullptr) {
            ASSERT_EQ(atc_avl_nearest(&index.tree, where, 0), index.beside(key, 0));
            ASSERT_EQ(atc_avl_nearest(&index.tree, where, 1), index.beside(key, 1));
        }
        switch (below(6)) {
            case 0:
            case 1:
                index.add(key);
                break;
            case 2:
                insert_beside(present, below(2));
                break;
            case 3:
                change_key(present, below(keys_));
                break;
            default:
                if (present != nullptr) {
                    index.remove(key);
                }
        }
    }

    Index index;

private:
    int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }

    void insert_beside(Record *here, int direction) {
        if (here == nullptr) {
            return;
        }
        int key = here->key + (direction == 0 ? -1 : 1);
        if (index.twin.contains(key)) {
            return;
        }
        Record *record = index.make(key);
        uint32_t compares = g_compares;
        atc_avl_insert_here(&index.tree, record, here, direction);
        EXPECT_EQ(g_compares, compares);
        index.twin.emplace(key, record);
    }

    void change_key(Record *record, int key) {
        if (record == nullptr || index.twin.contains(key)) {
            return;
        }
        int old_key = record->key;
        bool past = key < old_key ? index.beside(old_key, 0) != index.beside(key, 0)
                                  : index.beside(old_key, 1) != index.beside(key, 1);
        index.twin.erase(old_key);
        index.twin.emplace(key, record);
        record->key = key;
        auto update = below(2) == 0 ? atc_avl_update : key < old_key ? atc_avl_update_lt : atc_avl_update_gt;
        EXPECT_EQ(update(&index.tree, record), past ? 1 : 0) << old_key << " to " << key;
    }

    std::mt19937 random_;
    int keys_;
};

TEST(AvlTree, RandomStepsAgainstAMap) {
    const uint32_t seed = test_seed();
    for (int keys : {4, 32, 300}) {
        RandomSteps steps(seed, keys);
        for (int i = 0; i < 4000; ++i) {
            steps.step();
            ASSERT_TRUE(steps.index.consistent()) << "ATC_TEST_SEED=" << seed << ", keys " << keys << ", step " << i;
            ASSERT_FALSE(::testing::Test::HasFailure()) << "ATC_TEST_SEED=" << seed << ", step " << i;
        }
    }
}

TEST(AvlTree, AnEqualRecordIsNotLinked) {
    Index index;
    index.add_all({1, 2, 3});
    Record again{2, {}};
    atc_avl_add(&index.tree, &again);
    EXPECT_NE(index.find(2), &again);
    EXPECT_TRUE(index.consistent());
}

TEST(AvlTree, EmptyTree) {
    Index index;
    atc_avl_where_t where = 99;
    EXPECT_EQ(index.find(1, &where), nullptr);
    EXPECT_EQ(where, 0U);
    EXPECT_EQ(atc_avl_nearest(&index.tree, where, 0), nullptr);
    EXPECT_EQ(atc_avl_nearest(&index.tree, where, 1), nullptr);
    EXPECT_TRUE(index.consistent());

    Record *root = index.make(1);
    atc_avl_insert(&index.tree, root, where);
    index.twin.emplace(1, root);
    EXPECT_EQ(index.tree.root, &root->link);
    EXPECT_TRUE(index.consistent());
}

// Every record is freed as soon as it is handed out.
TEST(AvlTree, DestroyHandsOutChildrenBeforeParents) {
    std::mt19937 random(test_seed());
    for (int n = 0; n <= 40; ++n) {
        SCOPED_TRACE(n);
        std::vector<int> keys = ascending(n);
        std::shuffle(keys.begin(), keys.end(), random);
        Index index;
        index.add_all(keys);
        std::map<const atc_avl_node_t *, const atc_avl_node_t *> parents;
        for (const auto &record : index.records) {
            parents[&record->link] = record->link.parent;
        }

        uintptr_t cookie = 0;
        std::set<const atc_avl_node_t *> gone;
        while (auto *record = static_cast<Record *>(atc_avl_destroy_nodes(&index.tree, &cookie))) {
            const atc_avl_node_t *node = &record->link;
            EXPECT_FALSE(gone.contains(parents.at(node))) << "key " << record->key << " after its parent";
            EXPECT_TRUE(gone.insert(node).second) << "key " << record->key << " twice";
            std::erase_if(index.records, [&](const auto &owned) { return owned.get() == record; });
        }
        EXPECT_EQ(gone.size(), parents.size());
        EXPECT_EQ(index.tree.root, nullptr);
        EXPECT_EQ(index.tree.numnodes, 0U);
        EXPECT_EQ(cookie, 1U);
    }
}

}  // namespace
