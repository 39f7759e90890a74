// SPDX-License-Identifier: Apache-2.0
// fixture.cpp: see fixture.h.
#include "fixture.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "atc/accounting.h"
#include "atc/monitor.h"
#include "atc_api/rule_id.h"

namespace {

template <typename record_t>
void free_all(atc_list_t *head) {
    atc_list_each<record_t>(head, [](record_t *record) {
        atc_list_remove(&record->link);
        atc_free(record);
    });
}

// Hands a packet over 'n' times; the last verdict.
template <typename call_t>
int repeat(uint32_t n, std::span<const uint8_t> frame, call_t call) {
    auto exact = std::make_unique<uint8_t[]>(frame.size());
    std::ranges::copy(frame, exact.get());
    int verdict = 0;
    for (uint32_t i = 0; i < n; ++i) {
        verdict = call(exact.get(), static_cast<uint32_t>(frame.size()));
    }
    return verdict;
}

}  // namespace

uint32_t test_seed() {
    const char *text = std::getenv("ATC_TEST_SEED");
    auto seed = text != nullptr ? static_cast<uint32_t>(std::strtoul(text, nullptr, 0)) : 20210902U;
    ::testing::Test::RecordProperty("seed", std::to_string(seed));
    return seed;
}

std::string printed(const std::function<void()> &action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

void ModuleTest::SetUp() {
    fake().reset();
    ASSERT_EQ(atc_init(), 0);
    atc_task_start();
}

void ModuleTest::TearDown() {
    EXPECT_FALSE(fake().mutex_held) << "the module mutex was left taken";
    EXPECT_EQ(state_problems(), "");
    const bool chip_lost = fake().failed[static_cast<size_t>(Call::chip_delete)] > 0;
    clear();
    EXPECT_EQ(fake().live_blocks(), 0U) << "leaked";
    EXPECT_TRUE(chip_lost || fake().rules.empty()) << "rules left in the chip";
    std::free(g_atc_global.timer_list);
    atc_word_store(&g_atc_init, 0);
    FakePlatform::release_clock();
}

int ModuleTest::rx_n(uint32_t n, std::span<const uint8_t> frame, uint32_t port, uint32_t vlan) {
    return repeat(n, frame, [=](uint8_t *data, uint32_t len) { return atc_api_receive_packet(data, len, port, vlan); });
}

int ModuleTest::tx_n(uint32_t n, std::span<const uint8_t> frame) {
    return repeat(n, frame, atc_api_global_send_packet);
}

void ModuleTest::set(uint32_t protocol, uint32_t value, std::initializer_list<Set> setters, uint32_t fast_period_s) {
    atc_api_set_fast_period_time(fast_period_s);
    std::ranges::for_each(setters, [=](Set setter) { setter(protocol, value); });
}

void ModuleTest::pass_seconds(uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        fake().advance(1);
        atc_task_turn();
    }
}

void ModuleTest::run_messages() {
    for (size_t turns = fake().queued(); turns > 0; --turns) {
        atc_task_turn();
    }
}

Lines ModuleTest::alarms() {
    Lines lines;
    for (; log_seen_ < fake().log.size(); ++log_seen_) {
        const auto &[level, text] = fake().log[log_seen_];
        lines.push_back((level == ATC_LOG_ALARM ? "" : std::to_string(level) + " ") + text.substr(0, text.size() - 2));
    }
    return lines;
}

atc_entry_t *ModuleTest::entry(uint32_t port, uint32_t vlan, uint32_t protocol) {
    const atc_guard_t guard;
    return atc_entry_get(ATC_DIRECTION_RX, vlan, port, protocol);
}

atc_src_entry_t *ModuleTest::mac_source(uint32_t port, uint32_t vlan, uint32_t protocol,
                                        std::initializer_list<uint8_t> mac) {
    const atc_guard_t guard;
    return atc_src_entry_get(ATC_DIRECTION_RX, vlan, port, protocol, ATC_SRC_MAC, mac.begin());
}

std::string ModuleTest::text_of(int (*report)(char **text)) {
    char *text = nullptr;
    const std::string copy = report(&text) == 0 ? text : "(none)";
    EXPECT_EQ(atc_api_free_buffer(text), 0);
    return copy;
}

void ModuleTest::clear() {
    fake().fail_none();
    for (; !fake().queue.empty(); fake().queue.pop_front()) {
        atc_msg_t message;
        std::memcpy(&message, fake().queue.front().data(), sizeof(message));
        atc_free(message.data);
    }
    EXPECT_EQ(atc_api_clear_statistic_all(), 0);
    atc_list_each<atc_hw_cfg_filter_t>(&g_atc_global.hw_cfg_filter_list, [](const atc_hw_cfg_filter_t *filter) {
        atc_api_cfg_hw_filter_rule_del(filter->rule.id);
    });
    // Left: filters of a trunk without usable members, which are not in the chip.
    free_all<atc_hw_cfg_filter_t>(&g_atc_global.hw_cfg_filter_list);
    free_all<atc_trunk_t>(&g_atc_global.trunk_list);
    for (const uint32_t list : {0U, 1U}) {
        atc_list_each<atc_filter_record_t>(&g_atc_global.filter_list[list], [list](const atc_filter_record_t *record) {
            atc_api_cfg_filter_rule_del(record->rule.id, list);
        });
    }
    for (int id = 1; id <= ATC_RULE_ID_MAX; ++id) {
        atc_free_rule_id(id);
    }
    atc_api_set_debug_stop();
    atc_api_set_cap_disable();
    atc_api_set_cap_clear();
}

void ModuleTest::sweep(std::initializer_list<Call> kinds, const std::function<bool()> &scenario) {
    for (const Call kind : kinds) {
        for (bool from_then_on : {false, true}) {
            for (uint32_t nth = 1; sweep_once(kind, nth, from_then_on, scenario); ++nth) {
                ASSERT_FALSE(HasFailure() || nth == 2000)
                    << "call " << nth << " of kind " << static_cast<size_t>(kind) << " failing"
                    << (from_then_on ? ", and all that follow" : "");
            }
        }
    }
}

bool ModuleTest::sweep_once(Call kind, uint32_t nth, bool from_then_on, const std::function<bool()> &scenario) {
    bool hit = false;
    for (bool with_failure : {true, false}) {
        clear();
        fake().rules.clear();
        EXPECT_EQ(fake().live_blocks(), 0U) << "before the scenario, with failure: " << with_failure;
        fake().fail(kind, with_failure ? nth : 0, from_then_on);
        const bool worked = scenario();
        hit |= fake().plans[static_cast<size_t>(kind)].hits > 0;
        fake().fail_none();
        EXPECT_EQ(state_problems(), "") << "after the scenario, with failure: " << with_failure;
        EXPECT_TRUE(worked || (with_failure && hit)) << "nothing failed, and the scenario did not work";
    }
    return hit;
}
