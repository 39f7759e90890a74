// SPDX-License-Identifier: Apache-2.0
// avltree.h: the ordered index, an AVL tree with parent pointers whose link lives inside the caller's record.
//
// Used by: everything that keeps statistics entries. Uses: nothing. Operations take and return record pointers and know
// a record only through the compare function and the offset of its link; nothing is allocated or freed here.
// Invariants: (1) in-order traversal is ascending by compare, without equal neighbours. (2) balance is height(right) -
// height(left), in -1..+1. (3) child[i]->parent is the link itself and child[i]->child_index is i; the root's parent is
// null. (4) numnodes is the number of linked records.
// Lock: none of its own; every index of the module is reached under the module mutex.
#pragma once

#include <cstdint>

struct atc_avl_node_t {
    atc_avl_node_t *child[2];  // 0 = smaller, 1 = greater records
    atc_avl_node_t *parent;    // null at the root
    uint16_t child_index;      // which child of its parent this link is
    int16_t balance;           // height(child[1]) - height(child[0])
};

// Orders two records: exactly -1, 0 or +1. 'a' is the value searched for, 'b' the record in the tree; both have the
// record's layout, a value with the key members filled at least.
using atc_avl_compare_t = int (*)(const void *a, const void *b);

struct atc_avl_tree_t {
    atc_avl_node_t *root;
    atc_avl_compare_t compare;
    uint32_t offset;    // bytes from the start of a record to its link
    uint32_t numnodes;  // records
    uint32_t size;      // bytes of one record; kept for the owner, not used here
};

// Where a record that was not found belongs: the address of the link above, bitwise-or the side (0 or 1). 0 or 1 alone
// is the root of an empty tree. Good until the tree changes.
using atc_avl_where_t = uintptr_t;

void atc_avl_create(atc_avl_tree_t *tree, atc_avl_compare_t compare, uint32_t size, uint32_t offset);
void atc_avl_destroy(atc_avl_tree_t *tree);  // does nothing: the caller empties the tree first

// What finds and adds is hot although those who call it are out of the way of known keys: a flood of new ones is not.
// Returns the record that compares equal to 'value', or null with '*where' (when given) set for atc_avl_insert.
[[gnu::hot]] void *atc_avl_find(const atc_avl_tree_t *tree, const void *value, atc_avl_where_t *where);

[[gnu::hot]] void atc_avl_insert(atc_avl_tree_t *tree, void *record, atc_avl_where_t where);
// Inserts right before (direction 0) or right after (1) the record 'here', without calling compare.
void atc_avl_insert_here(atc_avl_tree_t *tree, void *record, void *here, int direction);
// Find and insert; a record equal to one in the tree is not linked.
[[gnu::hot]] void atc_avl_add(atc_avl_tree_t *tree, void *record);
// As atc_avl_add of each in turn, at most ATC_AVL_ADD_MAX of them, with their places looked for side by side: a walk
// through a tree that no longer fits into the caches waits for memory at each level, and these wait at the same time.
constexpr uint32_t ATC_AVL_ADD_MAX = 16;
[[gnu::hot]] void atc_avl_add_all(atc_avl_tree_t *tree, void *const *records, uint32_t count);
void atc_avl_remove(atc_avl_tree_t *tree, void *record);

void *atc_avl_first(const atc_avl_tree_t *tree);
void *atc_avl_last(const atc_avl_tree_t *tree);
void *atc_avl_next(const atc_avl_tree_t *tree, const void *record);
void *atc_avl_prev(const atc_avl_tree_t *tree, const void *record);
// The record just before (direction 0) or just after (1) a value that was not found, or null.
void *atc_avl_nearest(const atc_avl_tree_t *tree, atc_avl_where_t where, int direction);

// The first record that is greater than a value, whether the tree holds the value or not; null when there is none.
void *atc_avl_after(const atc_avl_tree_t *tree, const void *value);

// Move a record whose key the caller changed to its new place: towards smaller, towards greater, either.
// Return 1 if it moved, else 0.
int atc_avl_update_lt(atc_avl_tree_t *tree, void *record);
int atc_avl_update_gt(atc_avl_tree_t *tree, void *record);
int atc_avl_update(atc_avl_tree_t *tree, void *record);

uint32_t atc_avl_numnodes(const atc_avl_tree_t *tree);
int atc_avl_is_empty(const atc_avl_tree_t *tree);

// Hands out every record once, children before parents, so that the caller can free it; null when the tree is empty.
// '*cookie' is 0 before the first call. Between the calls nothing else may be done to the tree.
void *atc_avl_destroy_nodes(atc_avl_tree_t *tree, uintptr_t *cookie);
