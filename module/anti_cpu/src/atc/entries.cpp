#include "atc/entries.h"

#include <stdint.h>
#include <string.h>

#include "atc/capture.h"
#include "atc/hw_deny.h"

namespace {

// A source address as two words: its bytes as they lie in memory.
struct address_t {
    uint64_t low;
    uint64_t high;
};

static_assert(sizeof(address_t) == ATC_SRC_ADDR_SIZE);

template <typename number_t>
int compare_numbers(number_t a, number_t b);
const atc_entry_key_t *entry_key(const void *record);
address_t address_of(const void *bytes, uint32_t len);
address_t source_address(const atc_pkt_info_t *info);
atc_entry_t *obtain(atc_avl_tree_t *tree, const atc_entry_key_t *key) ATC_REQUIRES(g_atc_lock);
[[gnu::noinline, gnu::cold]] atc_entry_t *remember(atc_entry_t **remembered, atc_avl_tree_t *tree,
                                                   const atc_entry_key_t &key) ATC_REQUIRES(g_atc_lock);
[[gnu::noinline, gnu::cold]] atc_entry_t *obtain_flow(const atc_entry_key_t &key, uint32_t hash)
    ATC_REQUIRES(g_atc_lock);
[[gnu::noinline, gnu::cold]] atc_src_entry_t *obtain_source(atc_entry_t *flow, uint32_t src_type,
                                                            const address_t *address, uint32_t hash, bool *is_full)
    ATC_REQUIRES(g_atc_lock);
atc_entry_t *create_entry(atc_avl_tree_t *tree, const atc_entry_key_t *key, atc_avl_where_t where)
    ATC_REQUIRES(g_atc_lock);
atc_src_entry_t *create_source(atc_entry_t *flow, const atc_src_key_t *key, atc_avl_where_t where)
    ATC_REQUIRES(g_atc_lock);
uint32_t flow_hash(uint32_t port, uint16_t vlan, uint16_t protocol) ATC_REQUIRES(g_atc_lock);
uint32_t source_hash(const atc_entry_t *flow, uint32_t src_type, const address_t *address) ATC_REQUIRES(g_atc_lock);
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
    return compare_numbers(bep_memCmp(x->src_addr, y->src_addr, ATC_SRC_ADDR_SIZE), 0);
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
    atc_src_key_t key = {};
    key.src_type = src_type;
    if (src_addr != nullptr) {
        memcpy(key.src_addr, src_addr, atc_src_addr_len(src_type));
    }
    return static_cast<atc_src_entry_t *>(atc_avl_find(&flow->src_tree, &key, nullptr));
}

atc_entry_t *atc_vlan_obtain(uint16_t vlan) {
    atc_entry_t **remembered = &g_atc_global.recall.vlans[vlan % ATC_VLANS];
    return *remembered != nullptr ? *remembered
                                  : remember(remembered, &g_atc_global.vlan_tree, {{}, ATC_DIRECTION_RX, 0, vlan, 0});
}

atc_entry_t *atc_port_obtain(uint32_t port) {
    atc_entry_t *unremembered = nullptr;
    atc_entry_t **remembered = port < ATC_RECALL_PORTS ? &g_atc_global.recall.ports[port] : &unremembered;
    return *remembered != nullptr ? *remembered
                                  : remember(remembered, &g_atc_global.port_tree, {{}, ATC_DIRECTION_RX, port, 0, 0});
}

atc_entry_t *atc_protocol_obtain(uint32_t direction, uint16_t protocol) {
    const bool received = direction == ATC_DIRECTION_RX;
    atc_entry_t **remembered =
        &(received ? g_atc_global.recall.rx_protocols : g_atc_global.recall.tx_protocols)[protocol];
    atc_avl_tree_t *tree = received ? &g_atc_global.rx_protocol_tree : &g_atc_global.tx_protocol_tree;
    return *remembered != nullptr ? *remembered : remember(remembered, tree, {{}, direction, 0, 0, protocol});
}

atc_entry_t *atc_flow_obtain(uint32_t port, uint16_t vlan, uint16_t protocol) {
    const uint32_t hash = flow_hash(port, vlan, protocol);
    auto *flow = atc_recall_find<atc_entry_t>(&g_atc_global.recall.flows, hash, [=](const atc_entry_t *seen) {
        return seen->port == port && seen->vlan == vlan && seen->protocol == protocol;
    });
    return flow != nullptr ? flow : obtain_flow({{}, ATC_DIRECTION_RX, port, vlan, protocol}, hash);
}

atc_src_entry_t *atc_source_obtain(atc_entry_t *flow, const atc_pkt_info_t *info, bool *is_full) {
    const address_t address = source_address(info);
    const uint32_t hash = source_hash(flow, info->src_type, &address);
    auto *src = atc_recall_find<atc_src_entry_t>(
        &g_atc_global.recall.sources, hash, [flow, info, &address](const atc_src_entry_t *seen) {
            const address_t other = address_of(seen->src_addr, ATC_SRC_ADDR_SIZE);
            return other.low == address.low && other.high == address.high && seen->entry == flow &&
                   seen->src_type == info->src_type;
        });
    *is_full = false;
    return src != nullptr ? src : obtain_source(flow, info->src_type, &address, hash, is_full);
}

void atc_src_entry_discard(atc_src_entry_t *src) {
    atc_hw_filter_delete_by_spro(src);
    const address_t address = address_of(src->src_addr, ATC_SRC_ADDR_SIZE);
    atc_recall_remove(&g_atc_global.recall.sources, source_hash(src->entry, src->src_type, &address), src);
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

// The bytes of an address, zeros behind them.
address_t address_of(const void *bytes, uint32_t len) {
    address_t address = {};
    memcpy(&address, bytes, len);
    return address;
}

// The address by which a packet's sender is known. Each length is a constant, so the copies are plain loads.
address_t source_address(const atc_pkt_info_t *info) {
    switch (info->src_type) {
        case ATC_SRC_MAC:
            return address_of(info->src_mac, sizeof(info->src_mac));
        case ATC_SRC_IPV4:
            return address_of(&info->src_ipv4, sizeof(info->src_ipv4));
        default:
            return address_of(info->src_ipv6, sizeof(info->src_ipv6));
    }
}

// Finds or creates an entry in its index.
atc_entry_t *obtain(atc_avl_tree_t *tree, const atc_entry_key_t *key) {
    atc_avl_where_t where;
    void *found = atc_avl_find(tree, key, &where);
    return found != nullptr ? static_cast<atc_entry_t *>(found) : create_entry(tree, key, where);
}

// The same for an entry that has a place of its own to be remembered in.
atc_entry_t *remember(atc_entry_t **remembered, atc_avl_tree_t *tree, const atc_entry_key_t &key) {
    *remembered = obtain(tree, &key);
    return *remembered;
}

// Finds a flow that is not remembered in its index, or creates it.
atc_entry_t *obtain_flow(const atc_entry_key_t &key, uint32_t hash) {
    atc_entry_t *flow = obtain(&g_atc_global.entry_tree, &key);
    if (flow == nullptr) {
        return nullptr;
    }
    if (flow->src_tree.compare == nullptr) {
        flow->stat.fp_threshold = atc_threshold(g_atc_global.fast_period_time, g_atc_global.fp_limit[key.protocol]);
        flow->stat.lp_threshold = atc_threshold(g_atc_global.long_period_time, g_atc_global.lp_limit[key.protocol]);
        atc_avl_create(&flow->src_tree, atc_src_tree_compare, sizeof(atc_src_entry_t), 0);
    }
    atc_recall_add(&g_atc_global.recall.flows, hash, flow);
    return flow;
}

// The same for a source.
atc_src_entry_t *obtain_source(atc_entry_t *flow, uint32_t src_type, const address_t *address, uint32_t hash,
                               bool *is_full) {
    atc_src_key_t key = {};
    key.src_type = src_type;
    memcpy(key.src_addr, address, sizeof(key.src_addr));
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

uint32_t flow_hash(uint32_t port, uint16_t vlan, uint16_t protocol) {
    return atc_recall_hash(&g_atc_global.recall, (uint64_t{port} << 32) | (uint64_t{vlan} << 16) | protocol);
}

uint32_t source_hash(const atc_entry_t *flow, uint32_t src_type, const address_t *address) {
    const atc_recall_t *recall = &g_atc_global.recall;
    const uint64_t owner = reinterpret_cast<uintptr_t>(flow) + src_type;
    return atc_recall_hash(recall, atc_recall_mix(recall, owner ^ address->high, address->low));
}

void forget_aggregate(const atc_avl_tree_t *tree, const atc_entry_t *entry) {
    atc_recall_t *recall = &g_atc_global.recall;
    if (tree == &g_atc_global.vlan_tree) {
        recall->vlans[entry->vlan % ATC_VLANS] = nullptr;
    } else if (tree == &g_atc_global.port_tree) {
        if (entry->port < ATC_RECALL_PORTS) {
            recall->ports[entry->port] = nullptr;
        }
    } else if (tree == &g_atc_global.rx_protocol_tree) {
        recall->rx_protocols[entry->protocol] = nullptr;
    } else {
        recall->tx_protocols[entry->protocol] = nullptr;
    }
}

}  // namespace
