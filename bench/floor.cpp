// SPDX-License-Identifier: Apache-2.0
#include "floor.h"

#include "atc/entries.h"
#include "atc/parser.h"
#include "atc/state/context.h"

// The symbols that floor.map lets out.
#define ATC_BENCH_EXPORT __attribute__((visibility("default")))

namespace {

// As many as a received packet is counted in: all packets, its VLAN, its port, its protocol. Volatile: each is stored.
volatile uint32_t counters[4];

// Whether there was memory for the entry of 'key'; then it has counted a packet.
bool count(atc_avl_tree_t *tree, const atc_entry_key_t &key) ATC_REQUIRES(g_atc_lock);

}  // namespace

ATC_BENCH_EXPORT void atc_bench_floor_start() ATC_NO_THREAD_SAFETY_ANALYSIS {
    g_atc_global.sem = bep_semMCreateEx(1, __FILE__, __LINE__);
    atc_avl_create(&g_atc_global.vlan_tree, atc_vlan_compare, sizeof(atc_entry_t), 0);
    atc_avl_create(&g_atc_global.port_tree, atc_port_compare, sizeof(atc_entry_t), 0);
    atc_avl_create(&g_atc_global.rx_protocol_tree, atc_protocol_compare, sizeof(atc_entry_t), 0);
    atc_avl_create(&g_atc_global.entry_tree, atc_tree_compare, sizeof(atc_entry_t), 0);
}

ATC_BENCH_EXPORT int atc_bench_floor(const uint8_t *buf, uint32_t len, uint32_t port, uint32_t vlan) {
    const atc_guard_t guard(atc_for_packet_t{});
    atc_pkt_info_t info;
    atc_packet_begin(&info, ATC_DIRECTION_RX, port, vlan);
    atc_packet_parser(buf, len, &info);
    for (volatile uint32_t &counter : counters) {
        counter = counter + 1;
    }
    return 0;
}

ATC_BENCH_EXPORT int atc_bench_trees(const uint8_t *buf, uint32_t len, uint32_t port, uint32_t vlan) {
    const atc_guard_t guard(atc_for_packet_t{});
    atc_pkt_info_t info;
    atc_packet_begin(&info, ATC_DIRECTION_RX, port, vlan);
    atc_packet_parser(buf, len, &info);
    atc_global_t *const global = &g_atc_global;
    global->rx_stat.count++;
    return count(&global->vlan_tree, {{}, ATC_DIRECTION_RX, 0, info.vlan, 0}) &&
                   count(&global->port_tree, {{}, ATC_DIRECTION_RX, info.port, 0, 0}) &&
                   count(&global->rx_protocol_tree, {{}, ATC_DIRECTION_RX, 0, 0, info.protocol}) &&
                   count(&global->entry_tree, {{}, ATC_DIRECTION_RX, info.port, info.vlan, info.protocol})
               ? 0
               : -1;
}

ATC_BENCH_EXPORT int atc_bench_lock(const uint8_t *, uint32_t, uint32_t, uint32_t) {
    const atc_guard_t guard(atc_for_packet_t{});
    return 0;
}

namespace {

bool count(atc_avl_tree_t *tree, const atc_entry_key_t &key) {
    atc_avl_where_t where;
    auto *entry = static_cast<atc_entry_t *>(atc_avl_find(tree, &key, &where));
    if (entry == nullptr) {
        entry = static_cast<atc_entry_t *>(atc_calloc(sizeof(atc_entry_t)));
        if (entry == nullptr) {
            return false;
        }
        static_cast<atc_entry_key_t &>(*entry) = key;
        atc_avl_insert(tree, entry, where);
    }
    entry->stat.count++;
    return true;
}

}  // namespace
