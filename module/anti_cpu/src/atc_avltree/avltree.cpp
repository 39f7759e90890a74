// SPDX-License-Identifier: Apache-2.0
#include "atc_avltree/avltree.h"

namespace {

// By how much a subtree that grows on side 0 or 1 changes its parent's balance.
const int avl_child2balance[2] = {-1, +1};

// The side to descend to, by a compare result or a balance plus 1.
const uint32_t avl_balance2child[3] = {0, 0, 1};

atc_avl_node_t *link_of(const atc_avl_tree_t *tree, void *record);
const atc_avl_node_t *link_of(const atc_avl_tree_t *tree, const void *record);
void *record_of(const atc_avl_tree_t *tree, const atc_avl_node_t *node);
atc_avl_where_t where_of(const atc_avl_node_t *node, uint32_t side);
atc_avl_node_t *where_link(atc_avl_where_t where);
uint32_t where_side(atc_avl_where_t where);
void find_places(const atc_avl_tree_t *tree, void *const *records, uint32_t count, atc_avl_where_t *places);
bool is_still_place(const atc_avl_tree_t *tree, const void *record, atc_avl_where_t where);
atc_avl_node_t *extreme(atc_avl_node_t *node, uint32_t side);
atc_avl_node_t *first_in_post_order(atc_avl_node_t *top);
const atc_avl_node_t *neighbour(const atc_avl_node_t *node, uint32_t side);
void *end_record(const atc_avl_tree_t *tree, uint32_t side);
void *neighbour_record(const atc_avl_tree_t *tree, const void *record, uint32_t side);
int move_if_past(atc_avl_tree_t *tree, void *record, uint32_t side);
void hang(atc_avl_tree_t *tree, atc_avl_node_t *parent, uint32_t side, atc_avl_node_t *node);
void lift(atc_avl_tree_t *tree, atc_avl_node_t *node);
bool rotate(atc_avl_tree_t *tree, atc_avl_node_t *top, uint32_t side);
void exchange_with_neighbour(atc_avl_tree_t *tree, atc_avl_node_t *node);

}  // namespace

void atc_avl_create(atc_avl_tree_t *tree, atc_avl_compare_t compare, uint32_t size, uint32_t offset) {
    tree->root = nullptr;
    tree->compare = compare;
    tree->offset = offset;
    tree->numnodes = 0;
    tree->size = size;
}

void atc_avl_destroy(atc_avl_tree_t *) {}

void *atc_avl_find(const atc_avl_tree_t *tree, const void *value, atc_avl_where_t *where) {
    const atc_avl_node_t *above = nullptr;
    uint32_t side = 0;
    for (const atc_avl_node_t *node = tree->root; node != nullptr; node = node->child[side]) {
        void *record = record_of(tree, node);
        int result = tree->compare(value, record);
        if (result == 0) {
            return record;
        }
        above = node;
        side = avl_balance2child[result + 1];
    }
    if (where != nullptr) {
        *where = where_of(above, side);
    }
    return nullptr;
}

void atc_avl_insert(atc_avl_tree_t *tree, void *record, atc_avl_where_t where) {
    atc_avl_node_t *node = link_of(tree, record);
    atc_avl_node_t *above = where_link(where);
    uint32_t side = where_side(where);
    node->child[0] = nullptr;
    node->child[1] = nullptr;
    node->balance = 0;
    hang(tree, above, side, node);
    ++tree->numnodes;

    // The subtree on 'side' of 'above' has grown by one level.
    while (above != nullptr) {
        int old_balance = above->balance;
        int balance = old_balance + avl_child2balance[side];
        if (balance != 0 && old_balance != 0) {
            rotate(tree, above, side);
            return;
        }
        above->balance = static_cast<int16_t>(balance);
        if (balance == 0) {
            return;
        }
        side = above->child_index;
        above = above->parent;
    }
}

void atc_avl_insert_here(atc_avl_tree_t *tree, void *record, void *here, int direction) {
    uint32_t side = direction == 0 ? 0 : 1;
    const atc_avl_node_t *above = link_of(tree, here);
    if (above->child[side] != nullptr) {
        above = extreme(above->child[side], 1 - side);
        side = 1 - side;
    }
    atc_avl_insert(tree, record, where_of(above, side));
}

void atc_avl_add(atc_avl_tree_t *tree, void *record) {
    atc_avl_where_t where = 0;
    if (atc_avl_find(tree, record, &where) == nullptr) {
        atc_avl_insert(tree, record, where);
    }
}

void atc_avl_add_all(atc_avl_tree_t *tree, void *const *records, uint32_t count) {
    atc_avl_where_t places[ATC_AVL_ADD_MAX] = {};
    find_places(tree, records, count, places);
    for (uint32_t i = 0; i < count; i++) {
        if (is_still_place(tree, records[i], places[i])) {
            atc_avl_insert(tree, records[i], places[i]);
        } else {
            atc_avl_add(tree, records[i]);
        }
    }
}

void atc_avl_remove(atc_avl_tree_t *tree, void *record) {
    atc_avl_node_t *node = link_of(tree, record);
    if (node->child[0] != nullptr && node->child[1] != nullptr) {
        exchange_with_neighbour(tree, node);
    }
    atc_avl_node_t *above = node->parent;
    uint32_t side = node->child_index;
    hang(tree, above, side, node->child[0] != nullptr ? node->child[0] : node->child[1]);
    --tree->numnodes;

    // The subtree on 'side' of 'above' has shrunk by one level.
    while (above != nullptr) {
        atc_avl_node_t *next_above = above->parent;
        uint32_t next_side = above->child_index;
        int old_balance = above->balance;
        int balance = old_balance - avl_child2balance[side];
        if (old_balance == 0 || balance == 0) {
            above->balance = static_cast<int16_t>(balance);
            if (old_balance == 0) {
                return;
            }
        } else if (!rotate(tree, above, 1 - side)) {
            return;
        }
        above = next_above;
        side = next_side;
    }
}

void *atc_avl_first(const atc_avl_tree_t *tree) {
    return end_record(tree, 0);
}

void *atc_avl_last(const atc_avl_tree_t *tree) {
    return end_record(tree, 1);
}

void *atc_avl_next(const atc_avl_tree_t *tree, const void *record) {
    return neighbour_record(tree, record, 1);
}

void *atc_avl_prev(const atc_avl_tree_t *tree, const void *record) {
    return neighbour_record(tree, record, 0);
}

void *atc_avl_nearest(const atc_avl_tree_t *tree, atc_avl_where_t where, int direction) {
    const atc_avl_node_t *above = where_link(where);
    if (above == nullptr) {
        return nullptr;
    }
    uint32_t side = direction == 0 ? 0 : 1;
    const atc_avl_node_t *nearest = where_side(where) == side ? neighbour(above, side) : above;
    return nearest != nullptr ? record_of(tree, nearest) : nullptr;
}

void *atc_avl_after(const atc_avl_tree_t *tree, const void *value) {
    atc_avl_where_t where = 0;
    const void *found = atc_avl_find(tree, value, &where);
    return found != nullptr ? atc_avl_next(tree, found) : atc_avl_nearest(tree, where, 1);
}

int atc_avl_update_lt(atc_avl_tree_t *tree, void *record) {
    return move_if_past(tree, record, 0);
}

int atc_avl_update_gt(atc_avl_tree_t *tree, void *record) {
    return move_if_past(tree, record, 1);
}

int atc_avl_update(atc_avl_tree_t *tree, void *record) {
    return atc_avl_update_lt(tree, record) == 1 ? 1 : atc_avl_update_gt(tree, record);
}

uint32_t atc_avl_numnodes(const atc_avl_tree_t *tree) {
    return tree->numnodes;
}

int atc_avl_is_empty(const atc_avl_tree_t *tree) {
    return tree->numnodes == 0 ? 1 : 0;
}

// The cookie is the place, as in atc_avl_where_t, of the record handed out last; the root's place is the value 1.
void *atc_avl_destroy_nodes(atc_avl_tree_t *tree, uintptr_t *cookie) {
    constexpr uintptr_t root_done = 1;
    atc_avl_node_t *node;
    if (*cookie == 0) {
        node = tree->root != nullptr ? first_in_post_order(tree->root) : nullptr;
    } else if (*cookie == root_done) {
        tree->root = nullptr;
        tree->numnodes = 0;
        node = nullptr;
    } else {
        atc_avl_node_t *above = where_link(*cookie);
        uint32_t side = where_side(*cookie);
        above->child[side] = nullptr;
        --tree->numnodes;
        node = side == 0 && above->child[1] != nullptr ? first_in_post_order(above->child[1]) : above;
    }
    bool is_inner = node != nullptr && node->parent != nullptr;
    *cookie = is_inner ? where_of(node->parent, node->child_index) : root_done;
    return node != nullptr ? record_of(tree, node) : nullptr;
}

namespace {

atc_avl_node_t *link_of(const atc_avl_tree_t *tree, void *record) {
    return reinterpret_cast<atc_avl_node_t *>(static_cast<char *>(record) + tree->offset);
}

const atc_avl_node_t *link_of(const atc_avl_tree_t *tree, const void *record) {
    return reinterpret_cast<const atc_avl_node_t *>(static_cast<const char *>(record) + tree->offset);
}

void *record_of(const atc_avl_tree_t *tree, const atc_avl_node_t *node) {
    return reinterpret_cast<char *>(const_cast<atc_avl_node_t *>(node)) - tree->offset;
}

atc_avl_where_t where_of(const atc_avl_node_t *node, uint32_t side) {
    static_assert(alignof(atc_avl_node_t) > 1, "the lowest bit of a link's address holds the side");
    return reinterpret_cast<uintptr_t>(node) | side;
}

atc_avl_node_t *where_link(atc_avl_where_t where) {
    return reinterpret_cast<atc_avl_node_t *>(where & ~uintptr_t{1});
}

uint32_t where_side(atc_avl_where_t where) {
    return static_cast<uint32_t>(where & 1);
}

// Walks down for all records at once, a level of each in turn, with the next one on its way meanwhile. The place of a
// record that the tree holds already is left at 0.
void find_places(const atc_avl_tree_t *tree, void *const *records, uint32_t count, atc_avl_where_t *places) {
    const atc_avl_node_t *nodes[ATC_AVL_ADD_MAX];
    for (uint32_t i = 0; i < count; i++) {
        nodes[i] = tree->root;
    }
    bool is_deeper = tree->root != nullptr;
    while (is_deeper) {
        is_deeper = false;
        for (uint32_t i = 0; i < count; i++) {
            const atc_avl_node_t *node = nodes[i];
            if (node == nullptr) {
                continue;
            }
            const int result = tree->compare(records[i], record_of(tree, node));
            const uint32_t side = avl_balance2child[result + 1];
            nodes[i] = result == 0 ? nullptr : node->child[side];
            places[i] = result == 0 ? 0 : where_of(node, side);
            __builtin_prefetch(nodes[i]);
            is_deeper = is_deeper || nodes[i] != nullptr;
        }
    }
}

// Whether a place that was found before others were added is still the one for this record: nothing has come between
// the link above it and the next one on its side.
bool is_still_place(const atc_avl_tree_t *tree, const void *record, atc_avl_where_t where) {
    const atc_avl_node_t *above = where_link(where);
    const uint32_t side = where_side(where);
    if (above == nullptr) {
        return tree->root == nullptr;
    }
    if (above->child[side] != nullptr) {
        return false;
    }
    const atc_avl_node_t *beyond = neighbour(above, side);
    return beyond == nullptr || tree->compare(record, record_of(tree, beyond)) == avl_child2balance[1 - side];
}

// The last link of a subtree towards one side.
atc_avl_node_t *extreme(atc_avl_node_t *node, uint32_t side) {
    while (node->child[side] != nullptr) {
        node = node->child[side];
    }
    return node;
}

// The link of a subtree that comes before all others of it, children before parents. The smallest one can have a right
// child only, and that has none.
atc_avl_node_t *first_in_post_order(atc_avl_node_t *top) {
    atc_avl_node_t *node = extreme(top, 0);
    return node->child[1] != nullptr ? node->child[1] : node;
}

// The link just before (side 0) or just after (1) a link, or null.
const atc_avl_node_t *neighbour(const atc_avl_node_t *node, uint32_t side) {
    if (node->child[side] != nullptr) {
        return extreme(node->child[side], 1 - side);
    }
    while (node->parent != nullptr && node->child_index == side) {
        node = node->parent;
    }
    return node->parent;
}

void *end_record(const atc_avl_tree_t *tree, uint32_t side) {
    return tree->root != nullptr ? record_of(tree, extreme(tree->root, side)) : nullptr;
}

void *neighbour_record(const atc_avl_tree_t *tree, const void *record, uint32_t side) {
    const atc_avl_node_t *node = neighbour(link_of(tree, record), side);
    return node != nullptr ? record_of(tree, node) : nullptr;
}

// Moves a record whose key has gone past that of its neighbour on one side. Returns 1 if it moved, else 0.
int move_if_past(atc_avl_tree_t *tree, void *record, uint32_t side) {
    void *beside = neighbour_record(tree, record, side);
    if (beside == nullptr || tree->compare(record, beside) != avl_child2balance[side]) {
        return 0;
    }
    atc_avl_remove(tree, record);
    atc_avl_add(tree, record);
    return 1;
}

// Makes 'node' (or nothing, for null) the child of 'parent' on one side, or the root for a null parent.
void hang(atc_avl_tree_t *tree, atc_avl_node_t *parent, uint32_t side, atc_avl_node_t *node) {
    if (parent != nullptr) {
        parent->child[side] = node;
    } else {
        tree->root = node;
    }
    if (node != nullptr) {
        node->parent = parent;
        node->child_index = static_cast<uint16_t>(side);
    }
}

// Puts a link above its parent, the order kept. Balances are the caller's.
void lift(atc_avl_tree_t *tree, atc_avl_node_t *node) {
    atc_avl_node_t *parent = node->parent;
    uint32_t side = node->child_index;
    hang(tree, parent->parent, parent->child_index, node);
    hang(tree, parent, side, node->child[1 - side]);
    hang(tree, node, 1 - side, parent);
}

// Restores the balance of 'top', which is two levels deeper on 'side' than on the other. Returns whether the whole is
// now one level lower than it was with that overweight.
bool rotate(atc_avl_tree_t *tree, atc_avl_node_t *top, uint32_t side) {
    const auto lean = static_cast<int16_t>(avl_child2balance[side]);
    const auto other_lean = static_cast<int16_t>(-lean);
    atc_avl_node_t *child = top->child[side];

    if (child->balance == other_lean) {
        atc_avl_node_t *inner = child->child[1 - side];
        lift(tree, inner);
        lift(tree, inner);
        top->balance = inner->balance == lean ? other_lean : int16_t{0};
        child->balance = inner->balance == other_lean ? lean : int16_t{0};
        inner->balance = 0;
        return true;
    }

    lift(tree, child);
    if (child->balance == lean) {
        top->balance = 0;
        child->balance = 0;
        return true;
    }
    top->balance = lean;
    child->balance = other_lean;
    return false;
}

// Lets a link with two children change places with its neighbour in order on the deeper side, the smaller one when both
// are equally deep. It has at most one child afterwards.
void exchange_with_neighbour(atc_avl_tree_t *tree, atc_avl_node_t *node) {
    const uint32_t side = avl_balance2child[node->balance + 1];
    atc_avl_node_t *other = extreme(node->child[side], 1 - side);
    const atc_avl_node_t other_place = *other;

    hang(tree, node->parent, node->child_index, other);
    hang(tree, other, 1 - side, node->child[1 - side]);
    if (other_place.parent == node) {
        hang(tree, other, side, node);
    } else {
        hang(tree, other, side, node->child[side]);
        hang(tree, other_place.parent, other_place.child_index, node);
    }
    hang(tree, node, side, other_place.child[side]);
    node->child[1 - side] = nullptr;
    other->balance = node->balance;
    node->balance = other_place.balance;
}

}  // namespace
