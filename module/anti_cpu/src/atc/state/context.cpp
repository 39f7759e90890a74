// SPDX-License-Identifier: Apache-2.0
#include "atc/state/context.h"

namespace {

constexpr int WAIT_FOREVER = -1;

}  // namespace

atc_lock_t g_atc_lock;
atc_global_t g_atc_global;
uint32_t g_atc_init;

atc_timer_t g_atc_timer_fp;
atc_timer_t g_atc_timer_lp;
atc_timer_t g_atc_timer_24h;

void atc_sem_take() ATC_NO_THREAD_SAFETY_ANALYSIS {
    atc_sem_take_for_packet();
    g_atc_global.hold.work = 0;
    if (g_atc_global.new_flow_count > 0) {
        atc_new_flows_link();
    }
}

void atc_sem_take_for_packet() ATC_NO_THREAD_SAFETY_ANALYSIS {
    bep_semTakeEx(g_atc_global.sem, WAIT_FOREVER, __FILE__, __LINE__);
}

void atc_sem_give() ATC_NO_THREAD_SAFETY_ANALYSIS {
    bep_semGiveEx(g_atc_global.sem, __FILE__, __LINE__);
}

[[gnu::noinline]] void atc_sem_pause_begin() ATC_NO_THREAD_SAFETY_ANALYSIS {
    g_atc_global.hold.pauses++;
    bep_semGiveEx(g_atc_global.sem, __FILE__, __LINE__);
}

[[gnu::noinline]] void atc_sem_pause_end() ATC_NO_THREAD_SAFETY_ANALYSIS {
    bep_taskDelayEx(0);
    atc_sem_take();
}

void atc_new_flows_link() {
    atc_avl_add_all(&g_atc_global.entry_tree, g_atc_global.new_flows, g_atc_global.new_flow_count);
    g_atc_global.new_flow_count = 0;
}

bool atc_is_running() ATC_NO_THREAD_SAFETY_ANALYSIS {
    return atc_word_load(&g_atc_init) == 1 && atc_word_load(&g_atc_global.global_enable) == 1;
}

void atc_set_initialised() {
    atc_word_store(&g_atc_init, 1);
}

uint32_t atc_word_load(const uint32_t *word) {
    return __atomic_load_n(word, __ATOMIC_ACQUIRE);
}

void atc_word_store(uint32_t *word, uint32_t value) {
    __atomic_store_n(word, value, __ATOMIC_RELEASE);
}
