// SPDX-License-Identifier: Apache-2.0
// clearing.cpp: the clears of anti_cpu.h.
//
// A clear resets the counts of one block and ends its automatic capture; alarms, thresholds and denies stay as they
// are. Only atc_api_clear_statistic_all discards entries, with the hardware rules and captures that are theirs: all
// that there is gets detached in one hold of the mutex, so that it is gone for everybody at once; then its rules are
// withdrawn in slices, and then its memory is freed without the mutex. The others hold the mutex for their whole run.
#include "anti_cpu/anti_cpu.h"
#include "atc/accounting.h"
#include "atc/capture.h"
#include "atc/hw_deny.h"
#include "atc_api/statistics.h"

namespace {

// What nobody else knows any more.
struct detached_t {
    atc_avl_tree_t flows;
    atc_avl_tree_t sums[4];
    atc_recall_table_t remembered_flows;
    atc_recall_table_t remembered_sources;
};

int clear_block(const atc_block_name_t *name);
void clear_global(uint32_t direction) ATC_REQUIRES(g_atc_lock);
void detach_all(detached_t *detached) ATC_REQUIRES(g_atc_lock);
atc_avl_tree_t detach(atc_avl_tree_t *tree) ATC_REQUIRES(g_atc_lock);
void withdraw_all() ATC_REQUIRES(g_atc_lock);
const atc_hw_deny_t *next_in_order(uint64_t end) ATC_REQUIRES(g_atc_lock);
bool is_before(const atc_hw_deny_t *a, const atc_hw_deny_t *b);
void free_all(detached_t *detached) ATC_EXCLUDES(g_atc_lock);
template <typename record_t, typename visit_t>
void free_records(atc_avl_tree_t *tree, visit_t visit);
void free_capture(atc_stat_t *stat) ATC_EXCLUDES(g_atc_lock);

}  // namespace

int atc_api_clear_statistic_global(uint32_t direction) {
    const atc_guard_t guard;
    clear_global(direction);
    return 0;
}

int atc_api_clear_statistic_port(uint32_t direction, uint32_t port) {
    const atc_block_name_t name = {.kind = atc_block_kind_t::port, .direction = direction, .port = port};
    return clear_block(&name);
}

int atc_api_clear_statistic_vlan(uint32_t direction, uint32_t vlan) {
    const atc_block_name_t name = {.kind = atc_block_kind_t::vlan, .direction = direction, .vlan = vlan};
    return clear_block(&name);
}

int atc_api_clear_statistic_protocol(uint32_t direction, uint32_t protocol) {
    const atc_block_name_t name = {.kind = atc_block_kind_t::protocol, .direction = direction, .protocol = protocol};
    return clear_block(&name);
}

int atc_api_clear_statistic(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol, uint32_t src_type,
                            const void *src_addr) {
    const atc_block_name_t name = {atc_block_kind_t::flow, direction, vlan, port, protocol, src_type, src_addr};
    return clear_block(&name);
}

int atc_api_clear_statistic_all(void) {
    detached_t detached;
    {
        const atc_guard_t guard;
        detach_all(&detached);
        withdraw_all();
    }
    free_all(&detached);
    return 0;
}

namespace {

int clear_block(const atc_block_name_t *name) {
    const atc_guard_t guard;
    atc_stat_t *stat = atc_block_find(name);
    if (stat == nullptr) {
        return -1;
    }
    atc_clear_statistic(stat);
    return 0;
}

// Knows the two directions; any other clears nothing.
void clear_global(uint32_t direction) {
    if (direction == ATC_DIRECTION_RX) {
        atc_clear_statistic(&g_atc_global.rx_stat);
    } else if (direction == ATC_DIRECTION_TX) {
        atc_clear_statistic(&g_atc_global.tx_stat);
    }
}

void detach_all(detached_t *detached) {
    atc_recall_t *recall = &g_atc_global.recall;
    detached->flows = detach(&g_atc_global.entry_tree);
    detached->sums[0] = detach(&g_atc_global.port_tree);
    detached->sums[1] = detach(&g_atc_global.vlan_tree);
    detached->sums[2] = detach(&g_atc_global.rx_protocol_tree);
    detached->sums[3] = detach(&g_atc_global.tx_protocol_tree);
    detached->remembered_flows = atc_recall_detach(&recall->flows);
    detached->remembered_sources = atc_recall_detach(&recall->sources);
    recall->flood = {};
    recall->linked_sources = recall->leaving_sources;
    bep_memSetEx(recall->ports, 0, sizeof(recall->ports));
    bep_memSetEx(recall->vlans, 0, sizeof(recall->vlans));
    bep_memSetEx(recall->rx_protocols, 0, sizeof(recall->rx_protocols));
    bep_memSetEx(recall->tx_protocols, 0, sizeof(recall->tx_protocols));
    clear_global(ATC_DIRECTION_RX);
    clear_global(ATC_DIRECTION_TX);
}

atc_avl_tree_t detach(atc_avl_tree_t *tree) {
    const atc_avl_tree_t detached = *tree;
    atc_avl_create(tree, tree->compare, tree->size, tree->offset);
    return detached;
}

// Withdraws the rules that there are now, in the order of their owners. Meanwhile none is installed: the chip would
// refuse one for a flow that comes again while its old one is still there.
void withdraw_all() {
    const uint64_t end = g_atc_global.rules_numbered;
    g_atc_global.discards++;
    while (const atc_hw_deny_t *record = next_in_order(end)) {
        atc_hw_deny_withdraw(const_cast<atc_hw_deny_t *>(record));
        atc_sem_pause_if_due();
    }
    g_atc_global.discards--;
}

// The record with the first owner of those whose number is below 'end', or null. There are no more than 100.
const atc_hw_deny_t *next_in_order(uint64_t end) {
    const atc_hw_deny_t *first = nullptr;
    atc_list_each<const atc_hw_deny_t>(&g_atc_global.hw_deny_list, [end, &first](const atc_hw_deny_t *record) {
        if (record->number < end && (first == nullptr || is_before(record, first))) {
            first = record;
        }
    });
    return first;
}

// Flows in the order of their index, the sources of each before it.
bool is_before(const atc_hw_deny_t *a, const atc_hw_deny_t *b) {
    const atc_entry_t *flow_a = a->src_entry != nullptr ? a->src_entry->entry : a->entry;
    const atc_entry_t *flow_b = b->src_entry != nullptr ? b->src_entry->entry : b->entry;
    const int flows = atc_tree_compare(flow_a, flow_b);
    if (flows != 0) {
        return flows < 0;
    }
    return a->src_entry != nullptr && (b->src_entry == nullptr || atc_src_tree_compare(a->src_entry, b->src_entry) < 0);
}

void free_all(detached_t *detached) {
    free_records<atc_entry_t>(&detached->flows, [](atc_entry_t *flow) {
        free_records<atc_src_entry_t>(&flow->src_tree, [](atc_src_entry_t *src) { free_capture(&src->stat); });
        free_capture(&flow->stat);
    });
    for (atc_avl_tree_t &tree : detached->sums) {
        free_records<atc_entry_t>(&tree, [](atc_entry_t *) {});
    }
    atc_recall_free(&detached->remembered_flows);
    atc_recall_free(&detached->remembered_sources);
}

// Calls visit(record) for every record, then frees it.
template <typename record_t, typename visit_t>
void free_records(atc_avl_tree_t *tree, visit_t visit) {
    uintptr_t cookie = 0;
    while (void *record = atc_avl_destroy_nodes(tree, &cookie)) {
        visit(static_cast<record_t *>(record));
        atc_free(record);
    }
}

void free_capture(atc_stat_t *stat) {
    if (stat->cap_buf != nullptr) {
        const atc_guard_t guard;  // they are counted
        atc_capture_auto_release(stat);
    }
}

}  // namespace
