// SPDX-License-Identifier: Apache-2.0
// startup.cpp: atc_init, which puts everything below it together. No other thread uses the module before it is through,
// so it takes no lock.

#include <stdio.h>

#include "anti_cpu/anti_cpu.h"
#include "atc/entries.h"
#include "atc/monitor.h"
#include "atc/protocol.h"
#include "atc/state/context.h"

namespace {

constexpr uint32_t QUEUE_MESSAGES = 256;
constexpr uint32_t FAST_PERIOD_S = 300;
constexpr uint32_t LONG_PERIOD_S = 3600;

// Options and priorities are the card's numbers.
constexpr uint32_t MUTEX_OPTIONS = 1;
constexpr uint32_t QUEUE_OPTIONS = 0;
constexpr int TASK_PRIORITY = 30;
constexpr int TASK_OPTIONS = 8;
constexpr uint32_t TASK_STACK_SIZE = 65536;  // bytes
constexpr uint32_t VERSION_KIND = 1;

constexpr char BUILD_DATE[] = "Sep  2 2021";
constexpr char BUILD_TIME[] = "03:46:20";
constexpr uint32_t VERSION_SIZE = sizeof(BUILD_DATE) + sizeof(BUILD_TIME);  // both, a blank, a terminator

void create_services() ATC_NO_THREAD_SAFETY_ANALYSIS;
void create_indexes() ATC_NO_THREAD_SAFETY_ANALYSIS;
void create_lists() ATC_NO_THREAD_SAFETY_ANALYSIS;
void set_defaults() ATC_NO_THREAD_SAFETY_ANALYSIS;

}  // namespace

int atc_init() ATC_NO_THREAD_SAFETY_ANALYSIS {
    bep_memSetEx(&g_atc_global, 0, sizeof(g_atc_global));
    hss_get_device_mac(g_atc_global.device_mac);
    create_services();
    create_indexes();
    create_lists();
    atc_recall_init(&g_atc_global.recall);
    atc_rule_index_init(&g_atc_global.deny_rules, g_atc_global.recall.flows.secret);
    atc_rule_index_init(&g_atc_global.permit_rules, g_atc_global.recall.flows.secret);
    set_defaults();
    hal_register_trunk_handler(atc_api_trunk_member_pro);
    norv_task_spawn("atc-mon", TASK_PRIORITY, TASK_OPTIONS, TASK_STACK_SIZE, atc_task, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);

    g_atc_global.mod_id = modInitRegister("atc-mon", 0, 0, 0, 0);
    char version[VERSION_SIZE];
    snprintf(version, sizeof(version), "%s %s", BUILD_DATE, BUILD_TIME);
    setModVersion(g_atc_global.mod_id, VERSION_KIND, version);

    atc_set_initialised();
    return 0;
}

namespace {

void create_services() {
    atc_global_t *const global = &g_atc_global;
    global->sem = bep_semMCreateEx(MUTEX_OPTIONS, __FILE__, __LINE__);
    global->msgq = bep_msgQCreateEx(QUEUE_MESSAGES, sizeof(atc_msg_t), QUEUE_OPTIONS, __FILE__, __LINE__);
    global->timer_list = timer_list_create();
    // Not left to the task: a setting of a period may come, and arm one of them, before the task runs.
    g_atc_timer_fp = {};
    g_atc_timer_lp = {};
    g_atc_timer_24h = {};
}

void create_indexes() {
    atc_global_t *const global = &g_atc_global;
    atc_avl_create(&global->entry_tree, atc_tree_compare, sizeof(atc_entry_t), 0);
    atc_avl_create(&global->port_tree, atc_port_compare, sizeof(atc_entry_t), 0);
    atc_avl_create(&global->vlan_tree, atc_vlan_compare, sizeof(atc_entry_t), 0);
    atc_avl_create(&global->rx_protocol_tree, atc_protocol_compare, sizeof(atc_entry_t), 0);
    atc_avl_create(&global->tx_protocol_tree, atc_protocol_compare, sizeof(atc_entry_t), 0);
}

void create_lists() {
    atc_global_t *const global = &g_atc_global;
    atc_list_init(&global->filter_list[0]);
    atc_list_init(&global->filter_list[1]);
    atc_list_init(&global->rule_cursors);
    atc_list_init(&global->hw_cfg_filter_list);
    atc_list_init(&global->hw_deny_list);
    atc_list_init(&global->trunk_list);
}

// The context is all zero: only what starts with another value is set.
void set_defaults() {
    atc_global_t *const global = &g_atc_global;
    global->fast_period_time = FAST_PERIOD_S;
    global->long_period_time = LONG_PERIOD_S;
    global->global_enable = 1;
    global->hold.limit = ATC_HOLD_LIMIT;
    for (int32_t id = 1; id <= ATC_PROTOCOL_COUNT; id++) {
        atc_protocol_lmt_init(id, &global->fp_limit[id], &global->lp_limit[id]);
        atc_protocol_src_lmt_init(id, &global->src_fp_limit[id], &global->src_lp_limit[id]);
    }
}

}  // namespace
