// SPDX-License-Identifier: Apache-2.0
// driver_lists.cpp: the bytes of the driver's buffers, and the calls that carry them.
//
// Buffers have no alignment to rely on, so every number goes in and out through memcpy. Sizes are not checked against
// the end of a buffer: the longest match list has 11 items of the 23 that fit, the longest operation list 32 of 256
// bytes, the longest port list 20 of 256 bytes.
#include "atc_api_hw/driver_lists.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "anti_cpu/platform.h"
#include "atc/l4_ports.h"
#include "atc/state/context.h"

namespace {

constexpr uint32_t ITEM_HEADER = 8;  // bytes of a match item before its value
constexpr uint32_t OP_HEADER = 4;    // bytes of an operation before its values
constexpr uint32_t PORT_HEADER = 4;  // bytes of the port list before its ports
constexpr uint32_t COUNT_SIZE = 2;   // bytes of the count that begins a match list and an operation list

static_assert(ITEM_HEADER + 2 * ATC_HW_VALUE_SIZE + 16 == ATC_HW_ITEM_SIZE);
static_assert(PORT_HEADER + 2 * ATC_TRUNK_MEMBERS <= ATC_HW_PORT_SIZE);

void put_u16(uint8_t *buf, uint32_t value);
void count_one_more(uint8_t *list);
int report_refusal(int result) ATC_REQUIRES(g_atc_lock);

}  // namespace

const uint8_t ATC_HW_MASK_EXACT[ATC_HW_VALUE_SIZE] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                                      0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                                      0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

int atc_hw_fill_rule(uint8_t *buf, uint32_t *len, uint16_t code, const void *value, uint16_t value_len,
                     const void *mask, uint16_t mask_len, uint16_t flag) {
    if (buf == nullptr || len == nullptr || value == nullptr || mask == nullptr || value_len > ATC_HW_VALUE_SIZE ||
        mask_len > ATC_HW_VALUE_SIZE) {
        return -1;
    }

    put_u16(buf, code);
    put_u16(buf + 2, flag);
    put_u16(buf + 4, value_len);
    put_u16(buf + 6, mask_len);
    memcpy(buf + ITEM_HEADER, value, value_len);
    memcpy(buf + ITEM_HEADER + ATC_HW_VALUE_SIZE, mask, mask_len);
    *len += ATC_HW_ITEM_SIZE;
    return 0;
}

int atc_hw_fill_op(uint8_t *buf, uint32_t *len, uint16_t code, uint16_t count, const void *const *values,
                   const uint16_t *lengths) {
    if (buf == nullptr || len == nullptr) {
        return -1;
    }
    if (count > 0 && (values == nullptr || lengths == nullptr)) {
        return -1;
    }
    for (uint16_t i = 0; i < count; i++) {
        if (values[i] == nullptr || lengths[i] > ATC_HW_OP_VALUE_SIZE) {
            return -1;
        }
    }

    put_u16(buf, code);
    put_u16(buf + 2, count);
    uint32_t size = OP_HEADER;
    for (uint16_t i = 0; i < count; i++) {
        put_u16(buf + size, lengths[i]);
        memcpy(buf + size + 2, values[i], lengths[i]);
        size += 2 + ATC_HW_OP_VALUE_SIZE;
    }
    *len += size;
    return 0;
}

int atc_hw_fill_port(uint8_t *buf, uint32_t *len, uint32_t port, uint16_t kind) {
    if (buf == nullptr || len == nullptr) {
        return -1;
    }

    uint32_t ports = 0;
    const atc_trunk_t *trunk = atc_trunk_find(port);
    if (trunk == nullptr) {
        put_u16(buf + PORT_HEADER, port);
        ports = 1;
    } else {
        for (uint32_t member : trunk->members) {
            if (member != 0 && !atc_peer_port_match(member)) {
                put_u16(buf + PORT_HEADER + 2 * ports, member);
                ports++;
            }
        }
    }
    if (ports == 0) {
        return -1;
    }
    put_u16(buf, kind);
    put_u16(buf + 2, ports);
    *len = PORT_HEADER + 2 * ports;
    return 0;
}

int atc_l4port_match(uint16_t port) {
    return atc_l4_port_row(port) != ATC_L4_PORT_COUNT ? 1 : 0;
}

int atc_peer_port_match(uint32_t port) {
    uint32_t slot = 0;
    uint32_t slot_port = 0;
    if (br_comm_transfer_portindex_2slotport(port, &slot, &slot_port) != 0) {
        return 0;
    }
    return slot == get_bakup_core_card_cardnumber() ? 1 : 0;
}

int atc_hw_filter_count_get(uint32_t stat_id, uint64_t *packets) {
    atc_stat_hw_t stat = {};
    hw_driver_get_stat_by_stat_id(stat_id, &stat);
    *packets = stat.packets;
    return 0;
}

atc_trunk_t *atc_trunk_find(uint32_t port) {
    return atc_list_find<atc_trunk_t>(&g_atc_global.trunk_list,
                                      [port](const atc_trunk_t *trunk) { return trunk->trunk_id == port; });
}

void atc_hw_lists_init(atc_hw_lists_t *lists) {
    *lists = {};
    lists->match_len = COUNT_SIZE;
    lists->op_len = COUNT_SIZE;
}

void atc_hw_lists_match(atc_hw_lists_t *lists, const atc_hw_member_t *member, const atc_filter_rule_t *rule,
                        const uint8_t *mask) {
    const uint8_t *value = reinterpret_cast<const uint8_t *>(rule) + member->offset;
    uint32_t address = 0;
    if (member->is_ipv4) {
        memcpy(&address, value, sizeof(address));
        address = htonl(address);
        value = reinterpret_cast<const uint8_t *>(&address);
    }
    atc_hw_fill_rule(lists->match + lists->match_len, &lists->match_len, member->code, value, member->len, mask,
                     ATC_HW_VALUE_SIZE, 0);
    count_one_more(lists->match);
}

void atc_hw_lists_op(atc_hw_lists_t *lists, uint16_t code, const uint32_t *value) {
    const void *values[] = {value};
    const uint16_t lengths[] = {sizeof(*value)};
    const uint16_t count = value != nullptr ? 1 : 0;
    atc_hw_fill_op(lists->op + lists->op_len, &lists->op_len, code, count, values, lengths);
    count_one_more(lists->op);
}

bool atc_hw_member_is_set(const atc_hw_member_t *member, const atc_filter_rule_t *rule) {
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(rule) + member->offset;
    return std::any_of(bytes, bytes + member->len, [](uint8_t byte) { return byte != 0; });
}

int atc_hw_lists_install(const atc_hw_lists_t *lists) {
    return report_refusal(hw_driver_set_stream_qos_item(0, 0, lists->match, lists->match_len, lists->op, lists->op_len,
                                                        lists->port, lists->port_len, nullptr));
}

int atc_hw_lists_delete(const atc_hw_lists_t *lists) {
    return report_refusal(hw_driver_delete_qos_item_by_stream(0, 0, lists->match, lists->match_len, lists->op,
                                                              lists->op_len, lists->port, lists->port_len, nullptr));
}

uint32_t atc_hw_lists_entry_id(const atc_hw_lists_t *lists) {
    uint32_t id = 0;
    hw_driver_lookup_entry_by_stream(0, 0, lists->match, lists->match_len, lists->op, lists->op_len, lists->port,
                                     lists->port_len, &id);
    return id;
}

uint32_t atc_hw_lists_stat_id(const atc_hw_lists_t *lists) {
    uint32_t id = 0;
    hw_driver_lookup_stat_id_by_stream(0, 0, lists->match, lists->match_len, lists->op, lists->op_len, lists->port,
                                       lists->port_len, &id);
    return id;
}

namespace {

// Logical ports are 32 bits wide, the driver's ports 16: the high half is dropped.
void put_u16(uint8_t *buf, uint32_t value) {
    const uint16_t low = static_cast<uint16_t>(value);
    memcpy(buf, &low, sizeof(low));
}

void count_one_more(uint8_t *list) {
    uint16_t count;
    memcpy(&count, list, sizeof(count));
    put_u16(list, count + 1u);
}

int report_refusal(int result) {
    if (result < 0) {
        ulogPrintf(g_atc_global.mod_id, ATC_LOG_ALARM, "drv set stream deny tocpu faild!\r\n");
    }
    return result;
}

}  // namespace
