// SPDX-License-Identifier: Apache-2.0
// driver_lists.h: the three buffers in which a rule is handed to the switching chip's driver.
//
// The driver knows a rule by its whole description, so a rule is removed, and its ids looked up, by building the same
// three buffers again; only the port list's kind differs. Every builder is deterministic. Used by auto_rule and
// cfg_rule; reads trunk_list. Numbers are in the processor's byte order except IPv4 addresses, which are in network
// byte order.
//
//   match list      u16 items; items of 88 bytes: u16 code, u16 flag (0), u16 value length, u16 mask length (32),
//                   32 bytes value, 32 bytes mask, 16 bytes 0
//   operation list  u16 operations; each u16 code, u16 values n, n times (u16 length, 16 bytes value)
//   port list       u16 kind (1 install or look up, 0 delete), u16 ports, u16 each
//
// Lock: the module mutex is held. Buffers are the caller's, zero-filled before they are built.
#pragma once

#include <cstddef>
#include <cstdint>

#include "anti_cpu/types.h"
#include "atc/state/records.h"
#include "atc_lock/lock.h"

constexpr uint32_t ATC_HW_MATCH_SIZE = 2048;   // bytes of the match list buffer
constexpr uint32_t ATC_HW_OP_SIZE = 256;       // bytes of the operation list buffer
constexpr uint32_t ATC_HW_PORT_SIZE = 256;     // bytes of the port list buffer
constexpr uint32_t ATC_HW_ITEM_SIZE = 88;      // bytes of a match item
constexpr uint32_t ATC_HW_VALUE_SIZE = 32;     // bytes of an item's value, and of its mask
constexpr uint32_t ATC_HW_OP_VALUE_SIZE = 16;  // bytes of a slot for an operation's value

enum atc_hw_field_t : uint16_t {
    ATC_HW_SRC_MAC = 0,
    ATC_HW_DST_MAC = 1,
    ATC_HW_SRC_IP = 2,
    ATC_HW_DST_IP = 3,
    ATC_HW_VLAN = 4,
    ATC_HW_ETH_TYPE = 5,
    ATC_HW_IP_PROTOCOL = 6,
    ATC_HW_L4_SRC_PORT = 9,
    ATC_HW_L4_DST_PORT = 10,
};

// The operation, last in every list, whose 4-byte value tells the driver what kind of rule this is.
constexpr uint16_t ATC_HW_OP_KIND = 113;

enum atc_hw_port_kind_t : uint16_t {
    ATC_HW_DELETE = 0,
    ATC_HW_INSTALL = 1,  // also: look up
};

// A member of the rule record that a match item can be made of.
struct atc_hw_member_t {
    atc_hw_field_t code;
    uint16_t offset;  // bytes from the start of the rule record
    uint16_t len;     // bytes of the member, and of the item's value
    bool is_ipv4;     // kept in processor byte order, sent in network byte order
};

#define ATC_HW_MEMBER(code, name, is_ipv4)                                                \
    atc_hw_member_t {                                                                     \
        code, offsetof(atc_filter_rule_t, name), sizeof(atc_filter_rule_t::name), is_ipv4 \
    }
inline constexpr atc_hw_member_t ATC_HW_RULE_SRC_MAC = ATC_HW_MEMBER(ATC_HW_SRC_MAC, src_mac, false);
inline constexpr atc_hw_member_t ATC_HW_RULE_DST_MAC = ATC_HW_MEMBER(ATC_HW_DST_MAC, dst_mac, false);
inline constexpr atc_hw_member_t ATC_HW_RULE_VLAN = ATC_HW_MEMBER(ATC_HW_VLAN, vlan, false);
inline constexpr atc_hw_member_t ATC_HW_RULE_ETH_TYPE = ATC_HW_MEMBER(ATC_HW_ETH_TYPE, eth_type, false);
inline constexpr atc_hw_member_t ATC_HW_RULE_SRC_IPV4 = ATC_HW_MEMBER(ATC_HW_SRC_IP, src_ipv4, true);
inline constexpr atc_hw_member_t ATC_HW_RULE_DST_IPV4 = ATC_HW_MEMBER(ATC_HW_DST_IP, dst_ipv4, true);
inline constexpr atc_hw_member_t ATC_HW_RULE_SRC_IPV6 = ATC_HW_MEMBER(ATC_HW_SRC_IP, src_ipv6, false);
inline constexpr atc_hw_member_t ATC_HW_RULE_DST_IPV6 = ATC_HW_MEMBER(ATC_HW_DST_IP, dst_ipv6, false);
inline constexpr atc_hw_member_t ATC_HW_RULE_IP_PROTOCOL = ATC_HW_MEMBER(ATC_HW_IP_PROTOCOL, ip_protocol, false);
inline constexpr atc_hw_member_t ATC_HW_RULE_SRC_PORT = ATC_HW_MEMBER(ATC_HW_L4_SRC_PORT, src_port, false);
inline constexpr atc_hw_member_t ATC_HW_RULE_DST_PORT = ATC_HW_MEMBER(ATC_HW_L4_DST_PORT, dst_port, false);
#undef ATC_HW_MEMBER

// The description of one rule.
struct atc_hw_lists_t {
    uint8_t match[ATC_HW_MATCH_SIZE];
    uint8_t op[ATC_HW_OP_SIZE];
    uint8_t port[ATC_HW_PORT_SIZE];
    uint32_t match_len;  // used bytes of each
    uint32_t op_len;
    uint32_t port_len;
};

// Append a match item, or an operation, at 'buf' and add its size to '*len'. Return 0, or -1 for a null argument or a
// value that its place does not hold (with '*len' left alone).
int atc_hw_fill_rule(uint8_t *buf, uint32_t *len, uint16_t code, const void *value, uint16_t value_len,
                     const void *mask, uint16_t mask_len, uint16_t flag);
int atc_hw_fill_op(uint8_t *buf, uint32_t *len, uint16_t code, uint16_t count, const void *const *values,
                   const uint16_t *lengths);

// Writes the port list of a logical port, a trunk expanded to its members that are not on the backup core card, and
// sets '*len' to its length. Returns 0, or -1 for null or a trunk without such members.
int atc_hw_fill_port(uint8_t *buf, uint32_t *len, uint32_t port, uint16_t kind) ATC_REQUIRES(g_atc_lock);

// 1 when the transport port is one of those by which the parser tells protocols apart, else 0.
int atc_l4port_match(uint16_t port);

// 1 when the logical port sits on the backup core card, else 0.
int atc_peer_port_match(uint32_t port);

// Reads how many packets an installed rule has matched into '*packets'; 0 when the chip does not say. Returns 0.
int atc_hw_filter_count_get(uint32_t stat_id, uint64_t *packets);

// The trunk that a logical port is, or null.
atc_trunk_t *atc_trunk_find(uint32_t port) ATC_REQUIRES(g_atc_lock);

// Start an empty description, then append to it and keep its count fields. An empty one has 0 items, 0 operations and
// no port list. 'mask' has ATC_HW_VALUE_SIZE bytes; a null 'value' makes an operation without values.
void atc_hw_lists_init(atc_hw_lists_t *lists);
void atc_hw_lists_match(atc_hw_lists_t *lists, const atc_hw_member_t *member, const atc_filter_rule_t *rule,
                        const uint8_t *mask);
void atc_hw_lists_op(atc_hw_lists_t *lists, uint16_t code, const uint32_t *value);

// False when every byte of the member is 0: it is then no part of the rule.
bool atc_hw_member_is_set(const atc_hw_member_t *member, const atc_filter_rule_t *rule);

// The mask under which every bit must match.
extern const uint8_t ATC_HW_MASK_EXACT[ATC_HW_VALUE_SIZE];

// Hand a finished description to the driver. The first two log a negative result and return the driver's; the look-ups
// return the id, 0 when the chip knows none.
int atc_hw_lists_install(const atc_hw_lists_t *lists) ATC_REQUIRES(g_atc_lock);
int atc_hw_lists_delete(const atc_hw_lists_t *lists) ATC_REQUIRES(g_atc_lock);
uint32_t atc_hw_lists_entry_id(const atc_hw_lists_t *lists) ATC_REQUIRES(g_atc_lock);
uint32_t atc_hw_lists_stat_id(const atc_hw_lists_t *lists) ATC_REQUIRES(g_atc_lock);
