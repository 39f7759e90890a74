// SPDX-License-Identifier: Apache-2.0
#include "atc/entries.h"

#include <stdint.h>
#include <string.h>

#include <bit>

#include "atc/capture.h"
#include "atc/hw_deny.h"

namespace {

constexpr bool IS_LITTLE_ENDIAN = std::endian::native == std::endian::little;

// A source address as two words: its bytes as they lie in memory.
struct address_t {
    uint64_t low;
    uint64_t high;
};

static_assert(sizeof(address_t) == ATC_SRC_ADDR_SIZE);

template <typename number_t>
int compare_numbers(number_t a, number_t b);
const atc_entry_key_t *entry_key(const void *record);
uint64_t mac_word(const uint8_t *mac);
uint64_t ipv4_word(uint32_t ipv4);
address_t address_of(const void *bytes);
address_t source_address(const atc_pkt_info_t *info);
atc_entry_t *obtain(atc_avl_tree_t *tree, const atc_entry_key_t &key, bool is_new) ATC_REQUIRES(g_atc_lock);
[[gnu::noinline, gnu::cold]] atc_entry_t *obtain_vlan(uint16_t vlan) ATC_REQUIRES(g_atc_lock);
[[gnu::noinline, gnu::cold]] atc_entry_t *obtain_port(uint32_t port) ATC_REQUIRES(g_atc_lock);
[[gnu::noinline, gnu::cold]] atc_entry_t *obtain_protocol(uint32_t direction, uint16_t protocol)
    ATC_REQUIRES(g_atc_lock);
[[gnu::noinline, gnu::cold]] atc_entry_t *obtain_flow(const atc_entry_key_t &key, uint64_t word)
    ATC_REQUIRES(g_atc_lock);
[[gnu::noinline, gnu::cold]] atc_src_entry_t *obtain_source(atc_entry_t *flow, uint32_t src_type,
                                                            const address_t *address, uint64_t tag, bool *is_full)
    ATC_REQUIRES(g_atc_lock);
atc_entry_t *create_entry(const atc_entry_key_t &key);
atc_entry_t *create_flow(const atc_entry_key_t &key) ATC_REQUIRES(g_atc_lock);
atc_src_entry_t *create_source(atc_entry_t *flow, const atc_src_key_t &key) ATC_REQUIRES(g_atc_lock);
uint64_t source_tag(const atc_entry_t *flow, uint32_t src_type, const address_t *address) ATC_REQUIRES(g_atc_lock);
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
    atc_entry_t *remembered = g_atc_global.recall.vlans[vlan % ATC_VLANS];
    return remembered != nullptr ? remembered : obtain_vlan(vlan);
}

atc_entry_t *atc_port_obtain(uint32_t port) {
    atc_entry_t *remembered = port < ATC_RECALL_PORTS ? g_atc_global.recall.ports[port] : nullptr;
    return remembered != nullptr ? remembered : obtain_port(port);
}

atc_entry_t *atc_protocol_obtain(uint32_t direction, uint16_t protocol) {
    const atc_recall_t *recall = &g_atc_global.recall;
    atc_entry_t *remembered = (direction == ATC_DIRECTION_RX ? recall->rx_protocols : recall->tx_protocols)[protocol];
    return remembered != nullptr ? remembered : obtain_protocol(direction, protocol);
}

atc_entry_t *atc_flow_obtain(uint32_t port, uint16_t vlan, uint16_t protocol) {
    const atc_recall_table_t *flows = &g_atc_global.recall.flows;
    const uint64_t key = atc_flow_key(port, vlan, protocol);
    auto *flow = atc_recall_find<atc_entry_t>(flows, atc_flow_place(flows->secret, port, vlan, protocol), key,
                                              [](const atc_entry_t *) { return true; });
    return flow != nullptr ? flow : obtain_flow({{}, ATC_DIRECTION_RX, port, vlan, protocol}, key);
}

atc_src_entry_t *atc_source_obtain(atc_entry_t *flow, const atc_pkt_info_t *info, bool *is_full) {
    atc_recall_t *recall = &g_atc_global.recall;
    const address_t address = source_address(info);
    const auto is_sender = [flow, info, &address](const atc_src_entry_t *seen) {
        const address_t other = address_of(seen->src_addr);
        return other.low == address.low && other.high == address.high && seen->entry == flow &&
               seen->src_type == info->src_type;
    };
    *is_full = false;
    atc_src_entry_t *last = recall->flood.src;
    if (last != nullptr && is_sender(last)) {
        return last;
    }
    const uint64_t tag = source_tag(flow, info->src_type, &address);
    auto *src = atc_recall_find<atc_src_entry_t>(&recall->sources, atc_tag_place(tag), tag, is_sender);
    recall->flood.src = src;
    return src != nullptr ? src : obtain_source(flow, info->src_type, &address, tag, is_full);
}

void atc_flood_remember(atc_entry_t *flow) {
    atc_recall_t *recall = &g_atc_global.recall;
    if (flow->port < ATC_RECALL_PORTS) {
        recall->flood = {atc_flow_key(flow->port, flow->vlan, flow->protocol),
                         flow,
                         recall->vlans[flow->vlan % ATC_VLANS],
                         recall->ports[flow->port],
                         recall->rx_protocols[flow->protocol],
                         nullptr};
    }
}

void atc_src_entry_discard(atc_src_entry_t *src) {
    atc_hw_filter_delete_by_spro(src);
    const address_t address = address_of(src->src_addr);
    g_atc_global.recall.flood = {};
    atc_recall_remove(&g_atc_global.recall.sources, source_tag(src->entry, src->src_type, &address), src);
    atc_avl_remove(&src->entry->src_tree, src);
    g_atc_global.recall.linked_sources--;
    atc_capture_auto_release(&src->stat);
    atc_free(src);
}

void atc_flow_discard(atc_entry_t *flow) {
    atc_recall_t *recall = &g_atc_global.recall;
    recall->flood = {};
    atc_recall_remove(&recall->flows, atc_flow_key(flow->port, flow->vlan, flow->protocol), flow);
    atc_avl_remove(&g_atc_global.entry_tree, flow);
    recall->leaving_sources += atc_avl_numnodes(&flow->src_tree);
    g_atc_global.discards++;
    while (void *src = atc_avl_first(&flow->src_tree)) {
        atc_src_entry_discard(static_cast<atc_src_entry_t *>(src));
        recall->leaving_sources--;
        if (atc_hold_spend(ATC_WORK_STEP)) {
            atc_sem_pause();
        }
    }
    g_atc_global.discards--;
    atc_hw_filter_delete_by_pro(flow);
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

// The word that begins with the bytes of an address, zeros behind them. The parser wrote a MAC address as a long and a
// short word, so it is read as they are: a processor that reads in one word what it wrote in two waits for the writes.
uint64_t mac_word(const uint8_t *mac) {
    uint32_t first;
    uint16_t last;
    memcpy(&first, mac, sizeof(first));
    memcpy(&last, mac + sizeof(first), sizeof(last));
    return IS_LITTLE_ENDIAN ? first | (uint64_t{last} << 32) : (uint64_t{first} << 32) | (uint64_t{last} << 16);
}

uint64_t ipv4_word(uint32_t ipv4) {
    return IS_LITTLE_ENDIAN ? ipv4 : uint64_t{ipv4} << 32;
}

address_t address_of(const void *bytes) {
    address_t address;
    memcpy(&address, bytes, sizeof(address));
    return address;
}

// The address by which a packet's sender is known.
address_t source_address(const atc_pkt_info_t *info) {
    switch (info->src_type) {
        case ATC_SRC_MAC:
            return {mac_word(info->src_mac), 0};
        case ATC_SRC_IPV4:
            return {ipv4_word(info->src_ipv4), 0};
        default:
            return address_of(info->src_ipv6);
    }
}

// Finds or creates an entry in its index; all zero but for its head when it is new. An entry that is known not to be
// there gets its memory before its place is looked for: what a flood of new keys is refused should cost little.
atc_entry_t *obtain(atc_avl_tree_t *tree, const atc_entry_key_t &key, bool is_new) {
    void *found = is_new ? nullptr : atc_avl_find(tree, &key, nullptr);
    if (found != nullptr) {
        return static_cast<atc_entry_t *>(found);
    }
    atc_entry_t *entry = create_entry(key);
    if (entry != nullptr) {
        atc_avl_add(tree, entry);
    }
    return entry;
}

// An entry that is in no index yet, or null when there is no memory.
atc_entry_t *create_entry(const atc_entry_key_t &key) {
    auto *entry = static_cast<atc_entry_t *>(atc_calloc(sizeof(atc_entry_t)));
    if (entry != nullptr) {
        static_cast<atc_entry_key_t &>(*entry) = key;
    }
    return entry;
}

// The same for entries that have a place of their own to be remembered in: one that is not remembered is not there.
atc_entry_t *obtain_vlan(uint16_t vlan) {
    atc_entry_t **remembered = &g_atc_global.recall.vlans[vlan % ATC_VLANS];
    return *remembered = obtain(&g_atc_global.vlan_tree, {{}, ATC_DIRECTION_RX, 0, vlan, 0}, true);
}

atc_entry_t *obtain_port(uint32_t port) {
    const bool has_place = port < ATC_RECALL_PORTS;
    atc_entry_t *entry = obtain(&g_atc_global.port_tree, {{}, ATC_DIRECTION_RX, port, 0, 0}, has_place);
    if (has_place) {
        g_atc_global.recall.ports[port] = entry;
    }
    return entry;
}

atc_entry_t *obtain_protocol(uint32_t direction, uint16_t protocol) {
    const bool received = direction == ATC_DIRECTION_RX;
    atc_recall_t *recall = &g_atc_global.recall;
    atc_entry_t **remembered = &(received ? recall->rx_protocols : recall->tx_protocols)[protocol];
    atc_avl_tree_t *tree = received ? &g_atc_global.rx_protocol_tree : &g_atc_global.tx_protocol_tree;
    return *remembered = obtain(tree, {{}, direction, 0, 0, protocol}, true);
}

// Finds a flow that is not remembered in its index, or creates it. When every flow is remembered it is new, and the
// index need not be asked: its place there can wait for others.
atc_entry_t *obtain_flow(const atc_entry_key_t &key, uint64_t word) {
    const atc_avl_tree_t *tree = &g_atc_global.entry_tree;
    atc_recall_table_t *remembered = &g_atc_global.recall.flows;
    const uint32_t waiting = g_atc_global.new_flow_count;
    const bool is_new = atc_recall_is_complete(remembered, atc_avl_numnodes(tree) + waiting);
    if (!is_new || waiting == ATC_AVL_ADD_MAX) {
        atc_new_flows_link();
    }
    void *found = is_new ? nullptr : atc_avl_find(tree, &key, nullptr);
    auto *flow = found != nullptr ? static_cast<atc_entry_t *>(found) : create_flow(key);
    if (flow != nullptr) {
        atc_recall_add(remembered, word, flow);
    }
    return flow;
}

// Creates the flow of 'key', which must not exist. Returns null when there is no memory.
atc_entry_t *create_flow(const atc_entry_key_t &key) {
    atc_entry_t *flow = create_entry(key);
    if (flow != nullptr) {
        flow->stat.fp_threshold = atc_threshold(g_atc_global.fast_period_time, g_atc_global.fp_limit[key.protocol]);
        flow->stat.lp_threshold = atc_threshold(g_atc_global.long_period_time, g_atc_global.lp_limit[key.protocol]);
        flow->stat.fp_pass = g_atc_global.fp_pass;
        flow->stat.lp_pass = g_atc_global.lp_pass;
        atc_avl_create(&flow->src_tree, atc_src_tree_compare, sizeof(atc_src_entry_t), 0);
        g_atc_global.new_flows[g_atc_global.new_flow_count++] = flow;
    }
    return flow;
}

// The same for a source. A flow that is full costs a new sender no walk either.
atc_src_entry_t *obtain_source(atc_entry_t *flow, uint32_t src_type, const address_t *address, uint64_t tag,
                               bool *is_full) {
    atc_recall_t *recall = &g_atc_global.recall;
    atc_src_key_t key = {};
    key.src_type = src_type;
    memcpy(key.src_addr, address, sizeof(key.src_addr));
    atc_src_entry_t *src = nullptr;
    if (!atc_recall_is_complete(&recall->sources, recall->linked_sources)) {
        src = static_cast<atc_src_entry_t *>(atc_avl_find(&flow->src_tree, &key, nullptr));
    }
    if (src == nullptr) {
        *is_full = atc_avl_numnodes(&flow->src_tree) >= ATC_SOURCES_PER_FLOW;
        src = *is_full ? nullptr : create_source(flow, key);
    }
    if (src != nullptr) {
        atc_recall_add(&recall->sources, tag, src);
    }
    return src;
}

// Creates the source of 'key', which must not exist. Returns null when there is no memory.
atc_src_entry_t *create_source(atc_entry_t *flow, const atc_src_key_t &key) {
    auto *src = static_cast<atc_src_entry_t *>(atc_calloc(sizeof(atc_src_entry_t)));
    if (src != nullptr) {
        const uint16_t protocol = flow->protocol;
        static_cast<atc_src_key_t &>(*src) = key;
        src->entry = flow;
        src->stat.fp_threshold = atc_threshold(g_atc_global.fast_period_time, g_atc_global.src_fp_limit[protocol]);
        src->stat.lp_threshold = atc_threshold(g_atc_global.long_period_time, g_atc_global.src_lp_limit[protocol]);
        src->stat.fp_pass = g_atc_global.fp_pass;
        src->stat.lp_pass = g_atc_global.lp_pass;
        atc_avl_add(&flow->src_tree, src);
        g_atc_global.recall.linked_sources++;
    }
    return src;
}

uint64_t source_tag(const atc_entry_t *flow, uint32_t src_type, const address_t *address) {
    const uint64_t owner = reinterpret_cast<uintptr_t>(flow) + src_type;
    const uint64_t folded = atc_recall_fold(g_atc_global.recall.address_secrets, address->low, address->high ^ owner);
    return folded | 1;
}

void forget_aggregate(const atc_avl_tree_t *tree, const atc_entry_t *entry) {
    atc_recall_t *recall = &g_atc_global.recall;
    recall->flood = {};
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
