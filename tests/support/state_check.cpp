// SPDX-License-Identifier: Apache-2.0
// state_check.cpp: whether trees and the module's whole state are consistent; see fixture.h.
#include <algorithm>
#include <array>
#include <set>

#include "atc/entries.h"
#include "atc/hw_deny.h"
#include "fixture.h"

namespace {

// Walks a subtree in order until the first problem; its height.
int walk(const atc_avl_tree_t &tree, const atc_avl_node_t *node, const void **last, uint32_t *nodes, std::string *out) {
    if (node == nullptr || !out->empty()) {
        return 0;
    }
    std::array<int, 2> heights{};
    for (uint32_t side : {0U, 1U}) {
        const atc_avl_node_t *child = node->child[side];
        *out += child != nullptr && (child->parent != node || child->child_index != side) ? "a node's place\n" : "";
        heights[side] = walk(tree, child, last, nodes, out);
        if (side == 0) {
            const void *record = reinterpret_cast<const uint8_t *>(node) - tree.offset;
            *out += *last != nullptr && tree.compare(*last, record) != -1 ? "not in order\n" : "";
            *last = record;
            ++*nodes;
        }
    }
    *out += node->balance != heights[1] - heights[0] || std::abs(node->balance) > 1 ? "not balanced\n" : "";
    return std::max(heights[0], heights[1]) + 1;
}

using Set = std::set<const void *>;

// What the walks have seen.
struct Seen {
    std::string out;
    Set sums, flows, sources;
    std::set<const atc_stat_t *> denied;
    uint32_t buffers = 0;

    void check(bool holds, const char *what) { out += holds ? "" : std::string(what) + "\n"; }

    void block(const atc_stat_t &stat) {
        buffers += stat.cap_buf != nullptr ? 1 : 0;
        check(stat.cap_on == 0 || stat.cap_buf != nullptr, "a capture records without a buffer");
        if (stat.hw_deny_on == 1) {
            denied.insert(&stat);
        }
    }

    void blocks(atc_global_t &global) {
        for (auto *index : {&global.port_tree, &global.vlan_tree, &global.rx_protocol_tree, &global.tx_protocol_tree}) {
            out += tree_problems(*index);
            each_record<atc_entry_t>(*index, [&](atc_entry_t *entry) { sums.insert(entry); });
        }
        out += tree_problems(global.entry_tree);
        each_record<atc_entry_t>(global.entry_tree, [&](atc_entry_t *entry) {
            flows.insert(entry);
            block(entry->stat);
            out += tree_problems(entry->src_tree);
            each_record<atc_src_entry_t>(entry->src_tree, [&](atc_src_entry_t *src) {
                sources.insert(src);
                block(src->stat);
                check(src->entry == entry, "a source of another flow");
            });
        });
        check(buffers == global.protocol_cap_cnt, "protocol_cap_cnt is not the number of capture buffers");
    }

    // Nothing is remembered that an index does not hold, wherever it is remembered.
    void remembered(const atc_recall_t &recall) {
        for (const auto &[table, linked] : {std::pair(&recall.flows, &flows), {&recall.sources, &sources}}) {
            uint32_t used = 0;
            atc_recall_cursor_t cursor = {};
            atc_recall_walk<const void>(table, &cursor, [&, linked = linked](const void *record) {
                used++;
                check(linked->contains(record), "a record is gone");
                return true;
            });
            check(used == table->used && used <= linked->size(), "the records remembered are counted wrong");
        }
        check(recall.linked_sources == sources.size(), "linked_sources is not the number of sources");
        const auto known = [&](const auto &entries) {
            const auto is_known = [&](const void *one) { return one == nullptr || sums.contains(one); };
            check(std::ranges::all_of(entries, is_known), "a sum is gone");
        };
        known(recall.ports);
        known(recall.vlans);
        known(recall.rx_protocols);
        known(recall.tx_protocols);
        const atc_flood_t &flood = recall.flood;
        check(flood.src == nullptr || sources.contains(flood.src), "the flood's source is gone");
        if (flood.key != 0) {
            check(flows.contains(flood.flow), "the flood's flow is gone");
            known(std::array{flood.vlan, flood.port, flood.protocol});
        }
    }

    // Every deny record has one owner, its timer and its rule; a configured filter may lack its rule (a trunk without
    // members); no rule lacks a record.
    void rules(atc_global_t &global) {
        std::set<const atc_stat_t *> owners;
        std::multiset<const void *> armed{&g_atc_timer_fp, &g_atc_timer_lp, &g_atc_timer_24h}, listed;
        std::set<uint32_t> in_chip, sdk_ids;
        uint32_t filters = 0;
        atc_list_each<atc_hw_deny_t>(&global.hw_deny_list, [&](const atc_hw_deny_t *record) {
            check((record->entry != nullptr) != (record->src_entry != nullptr), "a deny record without one owner");
            owners.insert(record->entry != nullptr ? &record->entry->stat : &record->src_entry->stat);
            armed.insert(&record->timer);
            check(record->rule.sdk_id == 0 || sdk_ids.insert(record->rule.sdk_id).second, "two records of a rule");
        });
        atc_list_each<atc_hw_cfg_filter_t>(&global.hw_cfg_filter_list, [&](const atc_hw_cfg_filter_t *record) {
            ++filters;
            check(record->rule.sdk_id == 0 || sdk_ids.insert(record->rule.sdk_id).second, "two records of a rule");
        });
        atc_list_each<atc_timer_t>(&global.timer_list->head, [&](const atc_timer_t *timer) { listed.insert(timer); });
        check(owners == denied, "hw_deny_on does not tell the owners of deny records");
        check(owners.size() == global.rule_hw_count && armed.size() == owners.size() + 3,
              "rule_hw_count is not the number of deny records, each with an owner of its own");
        check(listed == armed, "the armed timers are not those of the periods and the deny records");
        if (fake().failed[static_cast<size_t>(Call::chip_delete)] > 0) {
            return;
        }
        for (const ChipRule &rule : fake().chip()) {
            in_chip.insert(rule.entry_id);
        }
        check(in_chip.size() >= owners.size() && in_chip.size() <= owners.size() + filters &&
                  std::ranges::includes(in_chip, sdk_ids),
              "rules in the chip without a record, or the reverse");
    }
};

}  // namespace

std::string tree_problems(const atc_avl_tree_t &tree) {
    std::string out;
    const void *last = nullptr;
    uint32_t nodes = 0;
    walk(tree, tree.root, &last, &nodes, &out);
    const bool counted =
        !out.empty() || (nodes == tree.numnodes && (tree.root == nullptr || tree.root->parent == nullptr));
    return counted ? out : "numnodes, or the root's parent\n";
}

std::string state_problems() {
    const State state;
    Seen seen;
    seen.blocks(*state);
    if (seen.out.empty()) {
        seen.remembered(state->recall);
        seen.rules(*state);
    }
    return seen.out;
}
