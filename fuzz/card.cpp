// SPDX-License-Identifier: Apache-2.0
#include "card.h"

#include <optional>
#include <utility>

#include "anti_cpu/anti_cpu.h"
#include "atc/monitor.h"
#include "atc/state/context.h"
#include "atc_api/rule_id.h"
#include "chip/chip.h"
#include "clock/clock.h"
#include "os/os.h"

extern "C" int __real_atc_init(void);

namespace {

std::optional<atc_global_t> g_fresh;  // right behind the start
int64_t g_blocks;                     // of the card's allocator, then
std::optional<card::RealTimeScope> g_real_time;

}  // namespace

// In the place of atc_init, by the link.
extern "C" int __wrap_atc_init() {
    use_simulated_time();
    if (g_fresh) {
        atc_task_start();
        return 0;
    }
    const int result = __real_atc_init();
    card::Clock::instance().settle();
    g_fresh = g_atc_global;
    g_blocks = card::live_blocks();
    return result;
}

void use_simulated_time() {
    g_real_time.reset();
}

void end_input() {
    atc_api_set_cap_clear();
    atc_api_clear_statistic_all();
    for (const uint32_t list : {0U, 1U}) {
        const atc_filter_node_t *rule = atc_api_cfg_filter_rule_get_first(list);
        for (const atc_filter_node_t *const head = rule->prev; rule != head;) {
            atc_api_cfg_filter_rule_del(std::exchange(rule, rule->next)->rule.id, list);
        }
    }
    {
        const atc_guard_t guard;
        for (atc_list_t *head : {&g_atc_global.hw_cfg_filter_list, &g_atc_global.trunk_list}) {
            for (atc_list_t *link = head->next; link != head;) {
                atc_free(std::exchange(link, link->next));
            }
        }
        g_atc_global = *g_fresh;
        for (int id = 1; id <= ATC_RULE_ID_MAX; id++) {
            atc_free_rule_id(id);
        }
    }
    card::Chip::instance().reset();
    require(card::live_blocks() == g_blocks, "blocks are left behind");
    g_real_time.emplace();
}
