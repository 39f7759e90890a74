#include "atc/entries.h"

#include <stdint.h>
#include <string.h>

#include "atc/capture.h"
#include "atc/hw_deny.h"

namespace {

template <typename number_t>
int compare_numbers(number_t a, number_t b);
const atc_entry_key_t *entry_key(const void *record);
atc_src_key_t source_key(uint32_t src_type, const void *src_addr);
const void *source_address(const atc_pkt_info_t *info);
atc_entry_t *obtain(atc_avl_tree_t *tree, const atc_entry_key_t *key) ATC_REQUIRES(g_atc_lock);
atc_entry_t *obtain_remembered(atc_entry_t **remembered, atc_avl_tree_t *tree, const atc_entry_key_t *key)
    ATC_REQUIRES(g_atc_lock);
atc_entry_t *create_entry(atc_avl_tree_t *tree, const atc_entry_key_t *key, atc_avl_where_t where)
    ATC_REQUIRES(g_atc_lock);
atc_src_entry_t *create_source(atc_entry_t *flow, const atc_src_key_t *key, atc_avl_where_t where)
    ATC_REQUIRES(g_atc_lock);
uint32_t port_hash(uint32_t port) ATC_REQUIRES(g_atc_lock);
uint32_t flow_hash(uint32_t port, uint16_t vlan, uint16_t protocol) ATC_REQUIRES(g_atc_lock);
uint32_t source_hash(const atc_entry_t *flow, const atc_src_key_t *key) ATC_REQUIRES(g_atc_lock);
void forget_aggregate(const atc_avl_tree_t *tree, const atc_entry_t *entry) ATC_REQUIRES(g_atc_lock);

}  // namespace

int atc_tree_compare(const void *a, const void *b) {
    const atc_entry_key_t *x = entry_key(a);
    const atc_entry_key_t *y = entry_key(b);
    if (x->direction != y->direction) {
        return compare_numbers(x->direction, y->direction);
    }
    if (x->port != y->port) {
        return compare_numbers(x->port, y->port);
    }
    if (x->vlan != y->vlan) {
        return compare_numbers(x->vlan, y->vlan);
    }
    return compare_numbers(x->protocol, y->protocol);
}

int atc_port_compare(const void *a, const void *b) {
    return compare_numbers(entry_key(a)->port, entry_key(b)->port);
}

int atc_vlan_compare(const void *a, const void *b) {
    return compare_numbers(entry_key(a)->vlan, entry_key(b)->vlan);
}

int atc_protocol_compare(const void *a, const void *b) {
    return compare_numbers(entry_key(a)->protocol, entry_key(b)->protocol);
}

int atc_src_tree_compare(const void *a, const void *b) {
    const auto *x = static_cast<const atc_src_key_t *>(a);
    const auto *y = static_cast<const atc_src_key_t *>(b);
    if (x->src_type != y->src_type) {
        return compare_numbers(x->src_type, y->src_type);
    }
    return compare_numbers(memcmp(x->src_addr, y->src_addr, ATC_SRC_ADDR_SIZE), 0);
}

atc_entry_t *atc_entry_get(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol) {
    if (vlan > UINT16_MAX || protocol > UINT16_MAX) {
        return nullptr;
    }
    const atc_entry_key_t key = {{}, direction, port, static_cast<uint16_t>(vlan), static_cast<uint16_t>(protocol)};
    return static_cast<atc_entry_t *>(atc_avl_find(&g_atc_global.entry_tree, &key, nullptr));
}

atc_src_entry_t *atc_src_entry_get(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol,
                                   uint32_t src_type, const void *src_addr) {
    const atc_entry_t *flow = atc_entry_get(direction, vlan, port, protocol);
    if (flow == nullptr) {
        return nullptr;
    }
    const atc_src_key_t key = source_key(src_type, src_addr);
    return static_cast<atc_src_entry_t *>(atc_avl_find(&flow->src_tree, &key, nullptr));
}

atc_entry_t *atc_vlan_obtain(uint16_t vlan) {
    const atc_entry_key_t key = {{}, ATC_DIRECTION_RX, 0, vlan, 0};
    return obtain_remembered(&g_atc_global.recall.vlans[vlan % ATC_VLANS], &g_atc_global.vlan_tree, &key);
}

atc_entry_t *atc_port_obtain(uint32_t port) {
    const uint32_t hash = port_hash(port);
    if (auto *entry = atc_recall_find<atc_entry_t>(&g_atc_global.recall.ports, hash,
                                                   [port](const atc_entry_t *seen) { return seen->port == port; })) {
        return entry;
    }
    const atc_entry_key_t key = {{}, ATC_DIRECTION_RX, port, 0, 0};
    atc_entry_t *entry = obtain(&g_atc_global.port_tree, &key);
    if (entry != nullptr) {
        atc_recall_add(&g_atc_global.recall.ports, hash, entry);
    }
    return entry;
}

atc_entry_t *atc_protocol_obtain(uint32_t direction, uint16_t protocol) {
    const atc_entry_key_t key = {{}, direction, 0, 0, protocol};
    return direction == ATC_DIRECTION_RX
               ? obtain_remembered(&g_atc_global.recall.rx_protocols[protocol], &g_atc_global.rx_protocol_tree, &key)
               : obtain_remembered(&g_atc_global.recall.tx_protocols[protocol], &g_atc_global.tx_protocol_tree, &key);
}

atc_entry_t *atc_flow_obtain(uint32_t port, uint16_t vlan, uint16_t protocol) {
    const uint32_t hash = flow_hash(port, vlan, protocol);
    if (auto *flow = atc_recall_find<atc_entry_t>(&g_atc_global.recall.flows, hash, [=](const atc_entry_t *seen) {
            return seen->port == port && seen->vlan == vlan && seen->protocol == protocol;
        })) {
        return flow;
    }
    const atc_entry_key_t key = {{}, ATC_DIRECTION_RX, port, vlan, protocol};
    atc_entry_t *flow = obtain(&g_atc_global.entry_tree, &key);
    if (flow == nullptr) {
        return nullptr;
    }
    if (flow->src_tree.compare == nullptr) {
        flow->stat.fp_threshold = atc_threshold(g_atc_global.fast_period_time, g_atc_global.fp_limit[protocol]);
        flow->stat.lp_threshold = atc_threshold(g_atc_global.long_period_time, g_atc_global.lp_limit[protocol]);
        atc_avl_create(&flow->src_tree, atc_src_tree_compare, sizeof(atc_src_entry_t), 0);
    }
    atc_recall_add(&g_atc_global.recall.flows, hash, flow);
    return flow;
}

atc_src_entry_t *atc_source_obtain(atc_entry_t *flow, const atc_pkt_info_t *info, bool *is_full) {
    *is_full = false;
    const atc_src_key_t key = source_key(info->src_type, source_address(info));
    const uint32_t hash = source_hash(flow, &key);
    if (auto *src = atc_recall_find<atc_src_entry_t>(
            &g_atc_global.recall.sources, hash, [flow, &key](const atc_src_entry_t *seen) {
                return seen->entry == flow && seen->src_type == key.src_type &&
                       memcmp(seen->src_addr, key.src_addr, ATC_SRC_ADDR_SIZE) == 0;
            })) {
        return src;
    }
    atc_avl_where_t where;
    auto *src = static_cast<atc_src_entry_t *>(atc_avl_find(&flow->src_tree, &key, &where));
    if (src == nullptr) {
        *is_full = atc_avl_numnodes(&flow->src_tree) >= ATC_SOURCES_PER_FLOW;
        src = *is_full ? nullptr : create_source(flow, &key, where);
    }
    if (src != nullptr) {
        atc_recall_add(&g_atc_global.recall.sources, hash, src);
    }
    return src;
}

void atc_src_entry_discard(atc_src_entry_t *src) {
    atc_hw_filter_delete_by_spro(src);
    atc_recall_remove(&g_atc_global.recall.sources, source_hash(src->entry, src), src);
    atc_avl_remove(&src->entry->src_tree, src);
    atc_capture_auto_release(&src->stat);
    atc_free(src);
}

void atc_flow_discard(atc_entry_t *flow) {
    atc_tree_each<atc_src_entry_t>(&flow->src_tree, atc_src_entry_discard);
    atc_hw_filter_delete_by_pro(flow);
    atc_recall_remove(&g_atc_global.recall.flows, flow_hash(flow->port, flow->vlan, flow->protocol), flow);
    atc_avl_remove(&g_atc_global.entry_tree, flow);
    atc_capture_auto_release(&flow->stat);
    atc_free(flow);
}

void atc_aggregate_discard(atc_avl_tree_t *tree, atc_entry_t *entry) {
    forget_aggregate(tree, entry);
    atc_avl_remove(tree, entry);
    atc_free(entry);
}

uint32_t atc_src_addr_len(uint32_t src_type) {
    switch (src_type) {
        case ATC_SRC_MAC:
            return 6;
        case ATC_SRC_IPV4:
            return 4;
        case ATC_SRC_IPV6:
            return 16;
        default:
            return 0;
    }
}

uint32_t atc_threshold(uint32_t seconds, uint32_t limit) {
    const uint64_t packets = uint64_t{seconds} * limit;
    return packets > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(packets);
}

uint32_t atc_rate(uint32_t packets, uint32_t seconds) {
    return seconds == 0 ? 0 : packets / seconds;
}

namespace {

template <typename number_t>
int compare_numbers(number_t a, number_t b) {
    return a > b ? 1 : a < b ? -1 : 0;
}

const atc_entry_key_t *entry_key(const void *record) {
    return static_cast<const atc_entry_key_t *>(record);
}

atc_src_key_t source_key(uint32_t src_type, const void *src_addr) {
    atc_src_key_t key = {};
    key.src_type = src_type;
    if (src_addr != nullptr) {
        memcpy(key.src_addr, src_addr, atc_src_addr_len(src_type));
    }
    return key;
}

const void *source_address(const atc_pkt_info_t *info) {
    switch (info->src_type) {
        case ATC_SRC_MAC:
            return info->src_mac;
        case ATC_SRC_IPV4:
            return &info->src_ipv4;
        case ATC_SRC_IPV6:
            return info->src_ipv6;
        default:
            return nullptr;
    }
}

// Finds or creates an entry in its index.
atc_entry_t *obtain(atc_avl_tree_t *tree, const atc_entry_key_t *key) {
    atc_avl_where_t where;
    void *found = atc_avl_find(tree, key, &where);
    return found != nullptr ? static_cast<atc_entry_t *>(found) : create_entry(tree, key, where);
}

// The same for an entry that has a place of its own to be remembered in.
atc_entry_t *obtain_remembered(atc_entry_t **remembered, atc_avl_tree_t *tree, const atc_entry_key_t *key) {
    if (*remembered == nullptr) {
        *remembered = obtain(tree, key);
    }
    return *remembered;
}

// Creates the entry of 'key', which must not exist, all zero but for its head. Returns null when there is no memory.
atc_entry_t *create_entry(atc_avl_tree_t *tree, const atc_entry_key_t *key, atc_avl_where_t where) {
    auto *entry = static_cast<atc_entry_t *>(atc_calloc(sizeof(atc_entry_t)));
    if (entry != nullptr) {
        static_cast<atc_entry_key_t &>(*entry) = *key;
        atc_avl_insert(tree, entry, where);
    }
    return entry;
}

// The same for a source of 'flow'.
atc_src_entry_t *create_source(atc_entry_t *flow, const atc_src_key_t *key, atc_avl_where_t where) {
    auto *src = static_cast<atc_src_entry_t *>(atc_calloc(sizeof(atc_src_entry_t)));
    if (src != nullptr) {
        const uint16_t protocol = flow->protocol;
        static_cast<atc_src_key_t &>(*src) = *key;
        src->entry = flow;
        src->stat.fp_threshold = atc_threshold(g_atc_global.fast_period_time, g_atc_global.src_fp_limit[protocol]);
        src->stat.lp_threshold = atc_threshold(g_atc_global.long_period_time, g_atc_global.src_lp_limit[protocol]);
        atc_avl_insert(&flow->src_tree, src, where);
    }
    return src;
}

uint32_t port_hash(uint32_t port) {
    return atc_recall_hash(&g_atc_global.recall, port);
}

uint32_t flow_hash(uint32_t port, uint16_t vlan, uint16_t protocol) {
    return atc_recall_hash(&g_atc_global.recall, (uint64_t{port} << 32) | (uint64_t{vlan} << 16) | protocol);
}

uint32_t source_hash(const atc_entry_t *flow, const atc_src_key_t *key) {
    const atc_recall_t *recall = &g_atc_global.recall;
    uint64_t address[2];
    static_assert(sizeof(address) == ATC_SRC_ADDR_SIZE);
    memcpy(address, key->src_addr, sizeof(address));
    const uint64_t owner = reinterpret_cast<uintptr_t>(flow) + key->src_type;
    return atc_recall_hash(recall, atc_recall_mix(recall, owner ^ address[1], address[0]));
}

void forget_aggregate(const atc_avl_tree_t *tree, const atc_entry_t *entry) {
    atc_recall_t *recall = &g_atc_global.recall;
    if (tree == &g_atc_global.vlan_tree) {
        recall->vlans[entry->vlan % ATC_VLANS] = nullptr;
    } else if (tree == &g_atc_global.port_tree) {
        atc_recall_remove(&recall->ports, port_hash(entry->port), entry);
    } else if (tree == &g_atc_global.rx_protocol_tree) {
        recall->rx_protocols[entry->protocol] = nullptr;
    } else {
        recall->tx_protocols[entry->protocol] = nullptr;
    }
}

}  // namespace
