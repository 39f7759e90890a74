#include "card_run.h"

#include <cstddef>
#include <optional>

#include "anti_cpu/anti_cpu.h"
#include "atc/monitor.h"
#include "atc/state/context.h"
#include "atc_api/rule_id.h"
#include "chip/chip.h"
#include "clock/clock.h"
#include "os/os.h"

extern "C" int __real_atc_init(void);

namespace {

// The module right behind its first start.
struct Fresh {
    atc_global_t global;
    int64_t blocks;
};
std::optional<Fresh> g_fresh;

std::optional<card::RealTimeScope> g_real_time;  // between two inputs

// Puts back a run of members that are nothing but settings.
void put_back(size_t offset, size_t size) {
    std::memcpy(reinterpret_cast<uint8_t *>(&g_atc_global) + offset,
                reinterpret_cast<const uint8_t *>(&g_fresh->global) + offset, size);
}

template <typename record_t>
void free_all(atc_list_t *head) {
    atc_list_each<record_t>(head, [](record_t *record) {
        atc_list_remove(&record->link);
        atc_free(record);
    });
}

void discard_all() {
    atc_api_set_debug_stop();
    atc_api_set_cap_disable();
    atc_api_set_cap_clear();
    atc_api_clear_statistic_all();
    const atc_guard_t guard;
    free_all<atc_filter_record_t>(&g_atc_global.filter_list[0]);
    free_all<atc_filter_record_t>(&g_atc_global.filter_list[1]);
    free_all<atc_hw_cfg_filter_t>(&g_atc_global.hw_cfg_filter_list);
    free_all<atc_trunk_t>(&g_atc_global.trunk_list);
    for (int id = 1; id <= ATC_RULE_ID_MAX; id++) {
        atc_free_rule_id(id);
    }
    card::Chip::instance().reset();
}

}  // namespace

extern "C" int __wrap_atc_init() {
    if (g_fresh) {
        {
            const atc_guard_t guard;
            put_back(offsetof(atc_global_t, deny), sizeof(atc_global_t) - offsetof(atc_global_t, deny));
            put_back(offsetof(atc_global_t, fast_period_time), 2 * sizeof(uint32_t));
            atc_word_store(&g_atc_global.global_enable, 1);
            for (atc_timer_t *timer : {&g_atc_timer_fp, &g_atc_timer_lp, &g_atc_timer_24h}) {
                timer_stop(g_atc_global.timer_list, timer);
            }
        }
        atc_task_start();
        return 0;
    }
    const int result = __real_atc_init();
    card::Clock::instance().settle();
    const atc_guard_t guard;
    g_fresh = {g_atc_global, card::live_blocks()};
    return result;
}

CardRun::CardRun(host::CaptureSet &captures)
    : events_(nullptr, nullptr, host::EventLog::Keep::kNothing), replay_(captures, events_, {}) {
    g_real_time.reset();
    replay_.start();
}

CardRun::~CardRun() {
    discard_all();
    require(card::live_blocks() == g_fresh->blocks, "blocks are left behind");
    g_real_time.emplace();
}
