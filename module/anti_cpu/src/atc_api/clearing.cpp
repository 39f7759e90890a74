// clearing.cpp: the clears of anti_cpu.h.
//
// A clear resets the counts of one block and ends its automatic capture; alarms, thresholds and denies stay as they
// are. Only atc_api_clear_statistic_all discards entries, with the hardware rules and captures that are theirs. Each
// holds the mutex for its whole run.
#include "anti_cpu/anti_cpu.h"
#include "atc/accounting.h"
#include "atc_api/statistics.h"

namespace {

int clear_block(const atc_block_name_t *name);
void clear_global(uint32_t direction) ATC_REQUIRES(g_atc_lock);
void discard_all(atc_avl_tree_t *tree) ATC_REQUIRES(g_atc_lock);

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
    const atc_guard_t guard;
    atc_tree_each<atc_entry_t>(&g_atc_global.entry_tree, atc_flow_discard);
    discard_all(&g_atc_global.port_tree);
    discard_all(&g_atc_global.vlan_tree);
    discard_all(&g_atc_global.rx_protocol_tree);
    discard_all(&g_atc_global.tx_protocol_tree);
    clear_global(ATC_DIRECTION_RX);
    clear_global(ATC_DIRECTION_TX);
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

void discard_all(atc_avl_tree_t *tree) {
    atc_tree_each<atc_entry_t>(
        tree, [tree](atc_entry_t *entry) ATC_REQUIRES(g_atc_lock) { atc_aggregate_discard(tree, entry); });
}

}  // namespace
