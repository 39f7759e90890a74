// SPDX-License-Identifier: Apache-2.0
// dumps.cpp: the console dumps of anti_cpu.h.
//
// Each prints a consistent picture of each rule, protocol or trunk, with pauses between them, and of the settings; that
// of the ports reads nothing of the module's. Lines end with "\n\r", as the console expects. Changes nothing.
#include <arpa/inet.h>

#include "anti_cpu/anti_cpu.h"
#include "atc/protocol.h"
#include "atc/state/context.h"
#include "atc/trace.h"

namespace {

constexpr uint32_t ADDRESS_TEXT_SIZE = 256;  // bytes
constexpr uint32_t PROTOCOL_TEXT_SIZE = 128;
constexpr uint32_t LINES_OF_RULE = 6;

void show_software_rules(atc_list_t *list) ATC_REQUIRES(g_atc_lock);
void show_software_rule(const atc_filter_rule_t *rule);
void show_hardware_rule(const atc_filter_rule_t *rule);
void show_addresses(const atc_filter_rule_t *rule);
void show_protocol(uint32_t id) ATC_REQUIRES(g_atc_lock);

}  // namespace

int atc_filter_show(void) {
    const atc_guard_t guard;
    for (atc_list_t &list : g_atc_global.filter_list) {
        show_software_rules(&list);
    }
    atc_numbered_each<atc_hw_cfg_filter_t>(&g_atc_global.hw_cfg_filter_list,
                                           [](const atc_hw_cfg_filter_t *record) ATC_REQUIRES(g_atc_lock) {
                                               show_hardware_rule(&record->rule);
                                               atc_hold_spend(LINES_OF_RULE * ATC_WORK_LINE);
                                           });
    return 0;
}

int atc_limit_show(void) {
    const atc_guard_t guard;
    for (uint32_t id = 1; id <= ATC_PROTOCOL_COUNT; ++id) {
        show_protocol(id);
        atc_hold_spend(ATC_HOLD_LIMIT);
        atc_sem_pause_if_due();
    }
    return 0;
}

int atc_config_show(void) {
    const atc_guard_t guard;
    const atc_global_t *global = &g_atc_global;
    atc_output("\n\r");
    atc_output("global enable %d \n\r", atc_word_load(&global->global_enable));
    atc_output("upload enable %d \n\r", global->upload_enable);
    atc_output("server ip %x \n\r", global->server_ip);
    atc_output("server user %s \n\r", global->server_user);
    atc_output("server passwd %s \n\r", global->server_passwd);
    atc_output("fast time %d \n\r", global->fast_period_time);
    atc_output("long time %d \n\r", global->long_period_time);
    atc_output("ipattack %d \n\r", atc_word_load(&global->ipattack));
    atc_output("icmpattack %d \n\r", atc_word_load(&global->icmpattack));
    atc_output("icmpattack_size %d \n\r", atc_word_load(&global->icmpattack_size));
    atc_output("rule_hw_count %d \n\r", global->rule_hw_count);
    atc_output("protocol_cap_cnt %d \n\r", global->protocol_cap_cnt);
    return 0;
}

int atc_trunk_show(void) {
    const atc_guard_t guard;
    // No trunk is ever freed, so the walk stands in its pauses.
    atc_list_each<atc_trunk_t>(&g_atc_global.trunk_list, [](const atc_trunk_t *trunk) ATC_REQUIRES(g_atc_lock) {
        atc_output("\n\r trunk id %d member:", trunk->trunk_id);
        for (const uint32_t member : trunk->members) {
            if (member != 0) {
                atc_output("%d ", member);
            }
        }
        atc_output("\n\r");
        atc_hold_spend(ATC_WORK_LINE);
        atc_sem_pause_if_due();
    });
    return 0;
}

int atc_log_port_show(int32_t highest) {
    atc_output("\n\r");
    for (int64_t index = 0; index <= highest; ++index) {
        const auto logical_port = static_cast<uint32_t>(index);
        uint32_t slot = 0;
        uint32_t port = 0;
        if (br_comm_transfer_portindex_2slotport(logical_port, &slot, &port) == 0) {
            atc_output("log port %d ---->slot %d port %d\n\r", logical_port, slot, port);
        }
    }
    atc_output("\n\r");
    return 0;
}

namespace {

void show_software_rules(atc_list_t *list) {
    atc_rule_cursor_t cursor = {{}, list->next};
    atc_list_insert_after(&g_atc_global.rule_cursors, &cursor.link);
    while (cursor.at != list) {
        const auto *record = atc_list_record<atc_filter_record_t>(cursor.at);
        cursor.at = record->link.next;
        show_software_rule(&record->rule);
        atc_hold_spend(LINES_OF_RULE * ATC_WORK_LINE);
        atc_sem_pause_if_due();
    }
    atc_list_remove(&cursor.link);
}

void show_software_rule(const atc_filter_rule_t *rule) {
    atc_output("\n\r");
    atc_output("filter id %d direct %d port %d vlan %d protocol %d action %d\n\r", rule->id, rule->direction,
               rule->port, rule->vlan, rule->protocol, rule->action);
    show_addresses(rule);
}

void show_hardware_rule(const atc_filter_rule_t *rule) {
    atc_output("\n\r");
    atc_output("filter id %d sdk_id %d port %d vlan %d eth_type 0x%04x ip_protocol %d action %d\n\r", rule->id,
               rule->sdk_id, rule->port, rule->vlan, rule->eth_type, rule->ip_protocol, rule->action);
    show_addresses(rule);
}

void show_addresses(const atc_filter_rule_t *rule) {
    const uint8_t *src = rule->src_mac;
    const uint8_t *dst = rule->dst_mac;
    atc_output("src mac %02x:%02x:%02x:%02x:%02x:%02x dest mac %02x:%02x:%02x:%02x:%02x:%02x\n\r", src[0], src[1],
               src[2], src[3], src[4], src[5], dst[0], dst[1], dst[2], dst[3], dst[4], dst[5]);
    atc_output("src ipv4 %x dest ipv4 %x\n\r", rule->src_ipv4, rule->dst_ipv4);
    char src_text[ADDRESS_TEXT_SIZE] = "";
    char dst_text[ADDRESS_TEXT_SIZE] = "";
    inet_ntop(AF_INET6, rule->src_ipv6, src_text, sizeof(src_text));
    inet_ntop(AF_INET6, rule->dst_ipv6, dst_text, sizeof(dst_text));
    atc_output("src ipv6 %s dest ipv6 %s\n\r", src_text, dst_text);
    atc_output("src port %d dest port %d\n\r", rule->src_port, rule->dst_port);
}

// "protcol" is spelt so on purpose: what reads the dump looks for it.
void show_protocol(uint32_t id) {
    char name[PROTOCOL_TEXT_SIZE] = "";
    atc_protocol_id_to_name(id, name, sizeof(name));
    const atc_global_t *global = &g_atc_global;
    atc_output("\n\r");
    atc_output("protcol name %s \n\r", name);
    const struct {
        const char *label;
        const uint32_t *words;  // by protocol id
    } rows[] = {
        {"fp-limit", global->fp_limit},
        {"lp-limit", global->lp_limit},
        {"fp-limit-cfg", global->fp_limit_cfg},
        {"lp-limit-cfg", global->lp_limit_cfg},
        {"deny", global->deny},
        {"hw-deny", global->hw_deny},
        {"cap", global->cap},
        {"src-fp-limit", global->src_fp_limit},
        {"src-lp-limit", global->src_lp_limit},
        {"src-fp-limit-cfg", global->src_fp_limit_cfg},
        {"src-lp-limit-cfg", global->src_lp_limit_cfg},
        {"src-deny", global->src_deny},
        {"src-hw-deny", global->src_hw_deny},
        {"src-cap", global->src_cap},
    };
    for (const auto &row : rows) {
        atc_output("%s %d \n\r", row.label, row.words[id]);
    }
}

}  // namespace
