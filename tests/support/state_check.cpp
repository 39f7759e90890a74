// state_check.cpp: whether trees, timers and the module's whole state are consistent; see fixture.h.
#include <algorithm>
#include <array>
#include <set>
#include <sstream>

#include "atc/accounting.h"
#include "atc/capture.h"
#include "atc/hw_deny.h"
#include "fixture.h"

namespace {

struct TreeWalk {
    explicit TreeWalk(const atc_avl_tree_t &walked) : tree(walked) {}

    const atc_avl_tree_t &tree;
    std::string problems;
    const atc_avl_node_t *last = nullptr;
    uint32_t nodes = 0;

    const void *record(const atc_avl_node_t *node) const {
        return reinterpret_cast<const uint8_t *>(node) - tree.offset;
    }
    void check(bool holds, const char *what) {
        if (!holds) {
            problems += "node " + std::to_string(nodes) + ": " + what + "\n";
        }
    }

    // Walks a subtree in order until the first problem; its height.
    int walk(const atc_avl_node_t *node, const atc_avl_node_t *parent, uint32_t side) {
        if (node == nullptr || !problems.empty()) {
            return 0;
        }
        int left = walk(node->child[0], node, 0);
        ++nodes;
        check(node->parent == parent, "wrong parent");
        check(parent == nullptr || node->child_index == side, "wrong child index");
        check(last == nullptr || tree.compare(record(last), record(node)) == -1, "not greater than the one before");
        last = node;
        int right = walk(node->child[1], node, 1);
        check(node->balance == right - left, "wrong balance");
        check(left - right <= 1 && right - left <= 1, "not balanced");
        return std::max(left, right) + 1;
    }
};

class StateCheck {
public:
    explicit StateCheck(atc_global_t &global) : global_(global) {}

    std::string run() {
        for (const auto *index : {&global_.entry_tree, &global_.port_tree, &global_.vlan_tree,
                                  &global_.rx_protocol_tree, &global_.tx_protocol_tree}) {
            tree(*index);
        }
        if (!out_.str().empty()) {
            return out_.str();
        }
        blocks();
        remembered();
        deny_records();
        cfg_filters();
        chip();
        trunks();
        timers();
        return out_.str();
    }

private:
    void check(bool holds, const std::string &what) {
        if (!holds) {
            out_ << what << "\n";
        }
    }

    void tree(const atc_avl_tree_t &tree) { out_ << tree_problems(tree); }

    void block(const atc_stat_t &stat) {
        if (stat.cap_buf != nullptr) {
            ++buffers_;
            check(stat.cap_len >= ATC_CAPTURE_HEADER_SIZE && stat.cap_len < ATC_CAPTURE_SIZE, "a capture's length");
        }
        check(stat.cap_on == 0 || stat.cap_buf != nullptr, "a capture records without a buffer");
        check(stat.fp_head < ATC_RING_SLOTS && stat.fp_cur < ATC_RING_SLOTS, "a fast ring out of bounds");
        check(stat.lp_head < ATC_RING_SLOTS && stat.lp_cur < ATC_RING_SLOTS, "a long ring out of bounds");
        if (stat.hw_deny_on == 1) {
            denied_.insert(&stat);
        }
    }

    void blocks() {
        block(global_.rx_stat);
        block(global_.tx_stat);
        for (atc_avl_tree_t *index :
             {&global_.port_tree, &global_.vlan_tree, &global_.rx_protocol_tree, &global_.tx_protocol_tree}) {
            atc_tree_each<atc_entry_t>(index, [&](atc_entry_t *entry) {
                sums_.insert(entry);
                block(entry->stat);
            });
        }
        atc_tree_each<atc_entry_t>(&global_.entry_tree, [&](atc_entry_t *entry) {
            flows_.insert(entry);
            block(entry->stat);
            check(entry->direction == ATC_DIRECTION_RX, "a flow that was not received");
            tree(entry->src_tree);
            check(atc_avl_numnodes(&entry->src_tree) <= ATC_SOURCES_PER_FLOW, "too many sources in a flow");
            atc_tree_each<atc_src_entry_t>(&entry->src_tree, [&](atc_src_entry_t *src) {
                sources_.insert(src);
                block(src->stat);
                check(src->entry == entry, "a source of another flow");
            });
        });
        check(buffers_ == global_.protocol_cap_cnt, "protocol_cap_cnt is not the number of capture buffers");
    }

    // Nothing is remembered that an index does not hold, wherever it is remembered.
    void remembered() {
        const atc_recall_t &recall = global_.recall;
        const auto table = [&](const atc_recall_table_t &slots, const std::set<const void *> &linked) {
            uint32_t used = 0;
            for (uint32_t at = 0; slots.slots != nullptr && at <= slots.mask; at++) {
                used += slots.slots[at].tag != 0 ? 1 : 0;
                check(slots.slots[at].tag == 0 || linked.contains(slots.slots[at].record), "a record is gone");
            }
            check(used == slots.used && used <= linked.size(), "the records remembered are counted wrong");
        };
        table(recall.flows, flows_);
        table(recall.sources, sources_);
        check(recall.linked_sources == sources_.size(), "linked_sources is not the number of sources");
        const auto sums = [&](const auto &entries) {
            for (const atc_entry_t *entry : entries) {
                check(entry == nullptr || sums_.contains(entry), "a sum is gone");
            }
        };
        sums(recall.ports);
        sums(recall.vlans);
        sums(recall.rx_protocols);
        sums(recall.tx_protocols);
        const atc_flood_t &flood = recall.flood;
        check(flood.key == 0 || flows_.contains(flood.flow), "the flood's flow is gone");
        check(flood.src == nullptr || sources_.contains(flood.src), "the flood's source is gone");
        if (flood.key != 0) {
            sums(std::array{flood.vlan, flood.port, flood.protocol});
        }
    }

    // The links of a list; visit(link) for each.
    template <typename visit_t>
    void list(const char *name, atc_list_t *head, visit_t visit) {
        for (atc_list_t *link = head->next; link != head; link = link->next) {
            if (link == nullptr || link->next == nullptr || link->next->prev != link || link->prev->next != link) {
                check(false, std::string(name) + ": broken links");
                return;
            }
            visit(link);
        }
    }

    void deny_records() {
        std::set<const atc_stat_t *> owners;
        list("hw_deny_list", &global_.hw_deny_list, [&](atc_list_t *link) {
            auto *record = atc_list_record<atc_hw_deny_t>(link);
            ++deny_records_;
            check((record->entry != nullptr) != (record->src_entry != nullptr), "a deny record without one owner");
            owners.insert(record->entry != nullptr ? &record->entry->stat : &record->src_entry->stat);
            armed_.insert(&record->timer);
            installed(record->rule.sdk_id);
        });
        check(owners.size() == deny_records_, "two deny records of one owner");
        check(owners == denied_, "hw_deny_on does not tell the owners of deny records");
        check(deny_records_ == global_.rule_hw_count, "rule_hw_count is not the number of deny records");
        check(deny_records_ <= ATC_HW_RULES_MAX, "too many deny records");
    }

    void cfg_filters() {
        list("hw_cfg_filter_list", &global_.hw_cfg_filter_list, [&](atc_list_t *link) {
            ++cfg_filters_;
            installed(atc_list_record<atc_hw_cfg_filter_t>(link)->rule.sdk_id);
        });
    }

    void installed(uint32_t sdk_id) {
        check(sdk_id == 0 || sdk_ids_.insert(sdk_id).second, "two records of one rule in the chip");
    }

    // Every deny record has its rule. A configured filter may lack it (a trunk without members); no rule lacks a
    // record.
    void chip() {
        if (fake().failed(Call::chip_delete) > 0) {
            return;
        }
        std::set<uint32_t> in_chip;
        for (const ChipRule &rule : fake().chip()) {
            in_chip.insert(rule.entry_id);
        }
        check(in_chip.size() >= deny_records_ && in_chip.size() <= deny_records_ + cfg_filters_,
              "rules in the chip without a record, or the reverse");
        check(std::includes(in_chip.begin(), in_chip.end(), sdk_ids_.begin(), sdk_ids_.end()),
              "a record of a rule that is not in the chip");
    }

    void trunks() {
        list("trunk_list", &global_.trunk_list, [&](atc_list_t *link) {
            auto *trunk = atc_list_record<atc_trunk_t>(link);
            std::multiset<uint32_t> members(std::begin(trunk->members), std::end(trunk->members));
            members.erase(0);
            check(members.size() == trunk->member_count, "a trunk's members are counted wrong");
            check(std::set<uint32_t>(members.begin(), members.end()).size() == members.size(), "a member twice");
        });
    }

    // Armed are the three period timers and those of the deny records, each once.
    void timers() {
        out_ << timer_problems(*global_.timer_list);
        armed_.insert({&g_atc_timer_fp, &g_atc_timer_lp, &g_atc_timer_24h});
        std::multiset<const atc_timer_t *> listed;
        list("timer_list", &global_.timer_list->head,
             [&](atc_list_t *link) { listed.insert(atc_list_record<atc_timer_t>(link)); });
        check(std::equal(listed.begin(), listed.end(), armed_.begin(), armed_.end()),
              "the armed timers are not those of the periods and the deny records");
    }

    atc_global_t &global_;
    std::ostringstream out_;
    std::set<const void *> flows_;
    std::set<const void *> sources_;
    std::set<const void *> sums_;
    uint32_t buffers_ = 0;
    uint32_t deny_records_ = 0;
    uint32_t cfg_filters_ = 0;
    std::set<const atc_stat_t *> denied_;
    std::set<const atc_timer_t *> armed_;
    std::set<uint32_t> sdk_ids_;
};

}  // namespace

std::string tree_problems(const atc_avl_tree_t &tree) {
    TreeWalk walk(tree);
    walk.walk(tree.root, nullptr, 0);
    walk.check(!walk.problems.empty() || walk.nodes == tree.numnodes, "the last, but numnodes differs");
    return walk.problems;
}

std::string timer_problems(const atc_timer_list_t &list) {
    const atc_timer_t *last = nullptr;
    for (const atc_list_t *link = list.head.next; link != &list.head; link = link->next) {
        if (link->prev->next != link || link->next->prev != link) {
            return "timers: broken links\n";
        }
        const auto *timer = reinterpret_cast<const atc_timer_t *>(link);
        if (last != nullptr && timer_compare(&last->expire, &timer->expire) > 0) {
            return "timers: not in the order of expiry\n";
        }
        last = timer;
    }
    return list.head.prev->next == &list.head ? "" : "timers: broken links\n";
}

std::string state_problems() {
    State state;
    return StateCheck(*state).run();
}
