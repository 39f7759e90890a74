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
std::vector<uint32_t> rule_ids(atc_list_t *head) {
    std::vector<uint32_t> ids;
    atc_list_each<record_t>(head, [&](record_t *record) { ids.push_back(record->rule.id); });
    return ids;
}

template <typename record_t>
void free_all(atc_list_t *head) {
    atc_list_each<record_t>(head, [](record_t *record) {
        atc_list_remove(&record->link);
        atc_free(record);
    });
}

void clear_rules() {
    for (uint32_t id : rule_ids<atc_hw_cfg_filter_t>(&g_atc_global.hw_cfg_filter_list)) {
        atc_api_cfg_hw_filter_rule_del(id);
    }
    // Left: filters of a trunk without usable members, which are not in the chip.
    free_all<atc_hw_cfg_filter_t>(&g_atc_global.hw_cfg_filter_list);
    for (uint32_t list_type : {0U, 1U}) {
        for (uint32_t id : rule_ids<atc_filter_record_t>(&g_atc_global.filter_list[list_type])) {
            EXPECT_EQ(atc_api_cfg_filter_rule_del(id, list_type), 0) << "software rule " << id;
        }
    }
    atc_guard_t guard;
    for (int id = 1; id <= ATC_RULE_ID_MAX; ++id) {
        atc_free_rule_id(id);
    }
}

void clear_messages() {
    while (std::optional<Bytes> bytes = fake().take_message()) {
        atc_msg_t message;
        ASSERT_EQ(bytes->size(), sizeof(message));
        std::memcpy(&message, bytes->data(), sizeof(message));
        if (message.type == ATC_MSG_UPLOAD) {
            atc_free(message.data);
        }
    }
}

// Hands a packet over 'n' times; the last verdict.
template <typename call_t>
int repeat(uint32_t n, std::span<const uint8_t> frame, call_t call) {
    auto exact = std::make_unique<uint8_t[]>(frame.size());
    std::copy(frame.begin(), frame.end(), exact.get());
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

State::State() : taken_(!fake().mutex_held()) {
    if (taken_) {
        atc_sem_take();
    }
}

State::~State() {
    if (taken_) {
        atc_sem_give();
    }
}

void ModuleTest::SetUp() {
    fake().reset();
    ASSERT_EQ(atc_init(), 0);
    atc_task_start();
}

void ModuleTest::TearDown() {
    EXPECT_FALSE(fake().mutex_held()) << "the module mutex was left taken";
    if (check_at_end) {
        EXPECT_EQ(state_problems(), "");
    }
    bool chip_lost = fake().failed(Call::chip_delete) > 0;
    clear();
    EXPECT_EQ(fake().live_blocks(), 0U) << "leaked";
    if (!chip_lost) {
        EXPECT_TRUE(fake().chip().empty()) << "rules left in the chip";
    }
    std::free(g_atc_global.timer_list);
    g_atc_global.timer_list = nullptr;
    atc_word_store(&g_atc_init, 0);
    fake().release_clock();
}

int ModuleTest::rx_n(uint32_t n, std::span<const uint8_t> frame, uint32_t port, uint32_t vlan) {
    return repeat(n, frame, [=](uint8_t *data, uint32_t len) { return atc_api_receive_packet(data, len, port, vlan); });
}

int ModuleTest::tx_n(uint32_t n, std::span<const uint8_t> frame) {
    return repeat(n, frame, [](uint8_t *data, uint32_t len) { return atc_api_global_send_packet(data, len); });
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

std::vector<std::string> ModuleTest::new_lines(size_t *seen, std::optional<uint32_t> level) {
    std::vector<LogLine> log = fake().log();
    std::vector<std::string> lines;
    for (; *seen < log.size(); ++*seen) {
        const LogLine &line = log[*seen];
        if (level && line.level != *level) {
            continue;
        }
        EXPECT_EQ(line.mod_id, FakePlatform::mod_handle) << line.text;
        EXPECT_TRUE(line.text.ends_with("\r\n")) << line.text;
        std::string text = line.text.substr(0, line.text.find_last_not_of("\r\n") + 1);
        lines.push_back(level ? text : std::to_string(line.level) + " " + text);
    }
    return lines;
}

atc_entry_t *ModuleTest::entry(uint32_t port, uint32_t vlan, uint32_t protocol, uint32_t direction) {
    atc_guard_t guard;
    return atc_entry_get(direction, vlan, port, protocol);
}

atc_src_entry_t *ModuleTest::source(uint32_t port, uint32_t vlan, uint32_t protocol, uint32_t type,
                                    const void *address) {
    atc_guard_t guard;
    return atc_src_entry_get(ATC_DIRECTION_RX, vlan, port, protocol, type, address);
}

void ModuleTest::clear() {
    fake().fail_none();
    clear_messages();
    EXPECT_EQ(atc_api_clear_statistic_all(), 0);
    clear_rules();
    atc_api_set_debug_stop();
    atc_api_set_cap_disable();
    atc_api_set_cap_clear();
    atc_api_set_auto_cap_clear();
    State state;
    free_all<atc_trunk_t>(&state->trunk_list);
}

void ModuleTest::sweep(Call kind, const std::function<bool()> &scenario) {
    constexpr uint32_t calls_max = 2000;
    for (bool from_then_on : {false, true}) {
        for (uint32_t nth = 1; sweep_once(kind, nth, from_then_on, scenario); ++nth) {
            ASSERT_LT(nth, calls_max) << "the scenario never comes through";
            ASSERT_FALSE(HasFailure()) << "call " << nth << " failing" << (from_then_on ? ", and all that follow" : "");
        }
    }
}

bool ModuleTest::sweep_once(Call kind, uint32_t nth, bool from_then_on, const std::function<bool()> &scenario) {
    clear();
    fake().chip_clear();
    EXPECT_EQ(fake().live_blocks(), 0U) << "before the scenario";
    fake().fail(kind, nth, from_then_on);
    bool worked = scenario();
    bool hit = fake().hits(kind) > 0;
    fake().fail_none();
    EXPECT_EQ(state_problems(), "") << "after the scenario";
    EXPECT_TRUE(hit || worked) << "nothing failed, and the scenario did not work";

    clear();
    fake().chip_clear();
    EXPECT_EQ(fake().live_blocks(), 0U) << "leaked by the failure";
    EXPECT_TRUE(!hit || scenario()) << "the scenario does not work after the failure";
    EXPECT_EQ(state_problems(), "") << "after the scenario without failure";
    return hit;
}
