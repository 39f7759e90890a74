// SPDX-License-Identifier: Apache-2.0
// hw_deny.cpp: the listing and clearing of the automatic deny rules.
//
// Reads the records that hw_deny keeps. Lock: whether there is anything at all is asked before the mutex is taken; a
// rule that is withdrawn or installed meanwhile only makes the text shorter, or cuts it.
#include "atc/hw_deny.h"

#include <cstdint>

#include "anti_cpu/anti_cpu.h"
#include "atc/text.h"
#include "atc_api_hw/driver_lists.h"

namespace {

constexpr uint32_t TEXT_SIZE = 256;  // bytes of one rule's text, and of the listing for each rule

void append_record(atc_text_t *text, const atc_hw_deny_t *record) ATC_REQUIRES(g_atc_lock);
void append_rule(atc_text_t *text, const atc_filter_rule_t *rule);
void append_mac(atc_text_t *text, const char *name, const atc_hw_member_t *member, const atc_filter_rule_t *rule);
void append_number(atc_text_t *text, const char *name, uint32_t value);

}  // namespace

int atc_api_get_hw_deny_info(char **text) {
    if (text == nullptr) {
        return -1;
    }
    *text = nullptr;
    const uint32_t count = atc_word_load(&g_atc_global.rule_hw_count);
    if (count == 0) {
        return -1;
    }
    const uint32_t size = count * TEXT_SIZE;
    auto *buf = static_cast<char *>(atc_calloc(size));
    if (buf == nullptr) {
        return -1;
    }

    atc_text_t out;
    atc_text_init(&out, buf, size);
    atc_guard_t guard;
    atc_hw_deny_each([&out](const atc_hw_deny_t *record) ATC_REQUIRES(g_atc_lock) { append_record(&out, record); });
    *text = buf;
    return 0;
}

int atc_api_clear_hw_deny_info(uint32_t entry_id) {
    if (atc_word_load(&g_atc_global.rule_hw_count) == 0) {
        return 0;
    }
    atc_guard_t guard;
    atc_hw_deny_withdraw_if(
        [entry_id](const atc_hw_deny_t *record) { return entry_id == 0 || record->rule.sdk_id == entry_id; });
    return 0;
}

namespace {

void append_record(atc_text_t *text, const atc_hw_deny_t *record) {
    char rule_text[TEXT_SIZE];
    atc_text_t rule;
    atc_text_init(&rule, rule_text, sizeof(rule_text));
    append_rule(&rule, &record->rule);

    atc_hold_spend(ATC_WORK_RULE);
    uint64_t packets = 0;
    atc_hw_filter_count_get(record->rule.stat_id, &packets);
    atc_text_append(text, "entry-id %d stat %lld/%lld(current packets/last packets) rule:%s \r\n",
                    static_cast<int>(record->rule.sdk_id), static_cast<long long>(packets),
                    static_cast<long long>(record->last_packets), rule_text);
}

// Words every member that the rule matches; the installation left the others 0.
void append_rule(atc_text_t *text, const atc_filter_rule_t *rule) {
    append_number(text, "logic port", rule->port);
    append_mac(text, "dest-mac", &ATC_HW_RULE_DST_MAC, rule);
    append_mac(text, "src-mac", &ATC_HW_RULE_SRC_MAC, rule);
    append_number(text, "vlan", rule->vlan);
    if (rule->eth_type != 0) {
        atc_text_append(text, " eth_type 0x%02x", rule->eth_type);
    }
    char address[ATC_NAME_SIZE] = "";
    if (rule->src_ipv4 != 0) {
        atc_ipv4_text(rule->src_ipv4, address, sizeof(address));
        atc_text_append(text, " src-ipv4 %s", address);
    }
    if (atc_hw_member_is_set(&ATC_HW_RULE_SRC_IPV6, rule)) {
        inet_ntop6(rule->src_ipv6, address, sizeof(address));
        atc_text_append(text, " src-ipv6 %s", address);
    }
    append_number(text, "ip protocol", rule->ip_protocol);
    append_number(text, "src-port", rule->src_port);
    append_number(text, "dest-port", rule->dst_port);
}

void append_mac(atc_text_t *text, const char *name, const atc_hw_member_t *member, const atc_filter_rule_t *rule) {
    if (atc_hw_member_is_set(member, rule)) {
        const uint8_t *mac = reinterpret_cast<const uint8_t *>(rule) + member->offset;
        atc_text_append(text, " %s %02x:%02x:%02x:%02x:%02x:%02x", name, mac[0], mac[1], mac[2], mac[3], mac[4],
                        mac[5]);
    }
}

void append_number(atc_text_t *text, const char *name, uint32_t value) {
    if (value != 0) {
        atc_text_append(text, " %s %d", name, static_cast<int>(value));
    }
}

}  // namespace
