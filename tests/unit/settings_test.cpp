// The settings, and what they change in what exists.
#include <algorithm>
#include <cstring>

#include "fixture.h"
#include "frames.h"

namespace {

using Settings = ModuleTest;
using set_t = uint32_t (*)(uint32_t id, uint32_t value);
using words_t = atc_protocol_words_t atc_global_t::*;

constexpr uint32_t REFUSED = UINT32_MAX;

struct protocol_setter {
    const char *name;
    set_t set;
    words_t words;
};
const protocol_setter SETTERS[] = {
    {"fp_limit", atc_api_set_protocol_fp_limit, &atc_global_t::fp_limit_cfg},
    {"lp_limit", atc_api_set_protocol_lp_limit, &atc_global_t::lp_limit_cfg},
    {"src_fp_limit", atc_api_set_protocol_src_fp_limit, &atc_global_t::src_fp_limit_cfg},
    {"src_lp_limit", atc_api_set_protocol_src_lp_limit, &atc_global_t::src_lp_limit_cfg},
    {"deny", atc_api_set_protocol_deny_enable, &atc_global_t::deny},
    {"src_deny", atc_api_set_protocol_src_deny_enable, &atc_global_t::src_deny},
    {"hw_deny", atc_api_set_protocol_hw_deny_enable, &atc_global_t::hw_deny},
    {"src_hw_deny", atc_api_set_protocol_src_hw_deny_enable, &atc_global_t::src_hw_deny},
    {"cap", atc_api_set_protocol_cap_enable, &atc_global_t::cap},
    {"src_cap", atc_api_set_protocol_src_cap_enable, &atc_global_t::src_cap},
};

// An ARP flow and an LLDP flow, each with one source whose MAC address is that of every frame.
class SettingsOnFlows : public ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        for (const auto &[protocol, frame] : {std::pair{ATC_ARP, arp()}, {ATC_LLDP, lldp()}}) {
            rx(frame);
            entry(1, 1, protocol)->stat.fp_alarm = 1;  // sources count while the alarm is raised
            rx(frame);
        }
    }

    // ARP's flow and source, LLDP's flow and source.
    std::vector<atc_stat_t *> blocks() {
        std::vector<atc_stat_t *> blocks;
        for (uint32_t protocol : {ATC_ARP, ATC_LLDP}) {
            blocks.push_back(&entry(1, 1, protocol)->stat);
            blocks.push_back(&mac_source(1, 1, protocol, {0, 0x11, 0x22, 0x33, 0x44, 0x55})->stat);
        }
        return blocks;
    }
    // One member of each.
    template <typename member_t>
    std::vector<member_t> values(member_t atc_stat_t::*member) {
        std::vector<member_t> values;
        for (const atc_stat_t *block : blocks()) {
            values.push_back(block->*member);
        }
        return values;
    }
};

TEST_F(Settings, EverySetterStoresUnderItsOwnProtocolOnly) {
    for (const protocol_setter &row : SETTERS) {
        SCOPED_TRACE(row.name);
        atc_global_t before = *state();
        for (uint32_t id : {0U, ATC_PROTOCOL_COUNT + 1U, UINT32_MAX}) {
            EXPECT_EQ(row.set(id, 10), REFUSED);
        }
        EXPECT_EQ(std::memcmp(&before, &*state(), sizeof(before)), 0) << "a refused call changed something";
        for (uint32_t id : {1U, uint32_t{ATC_PROTOCOL_COUNT}}) {
            EXPECT_EQ(row.set(id, 7 + id), 0U);
        }
        for (const protocol_setter &other : SETTERS) {
            const auto &words = (*state()).*other.words;
            for (uint32_t id = 0; id < ATC_PROTOCOL_SLOTS; ++id) {
                const bool is_set = &other == &row && (id == 1 || id == ATC_PROTOCOL_COUNT);
                EXPECT_EQ(words[id], is_set ? 7 + id : 0) << other.name << " " << id;
            }
        }
        EXPECT_EQ(row.set(1, 0), 0U);
        EXPECT_EQ(row.set(ATC_PROTOCOL_COUNT, 0), 0U);
    }
}

TEST_F(SettingsOnFlows, LimitsMoveTheirThresholds) {
    const struct {
        set_t set;
        words_t in_force;
        uint32_t atc_stat_t::*threshold;
        size_t block;
        uint32_t seconds;
        uint32_t by_default;
    } rows[] = {
        {atc_api_set_protocol_fp_limit, &atc_global_t::fp_limit, &atc_stat_t::fp_threshold, 0, 300, 100},
        {atc_api_set_protocol_src_fp_limit, &atc_global_t::src_fp_limit, &atc_stat_t::fp_threshold, 1, 300, 100},
        {atc_api_set_protocol_lp_limit, &atc_global_t::lp_limit, &atc_stat_t::lp_threshold, 0, 3600, 50},
        {atc_api_set_protocol_src_lp_limit, &atc_global_t::src_lp_limit, &atc_stat_t::lp_threshold, 1, 3600, 50},
    };
    for (const auto &row : rows) {
        std::vector<uint32_t> expected = values(row.threshold);
        const uint32_t most = UINT32_MAX / row.seconds;
        for (uint32_t pps : {7U, most, most + 1, 0U}) {  // the threshold of most + 1 saturates
            const uint32_t in_force = pps == 0 ? row.by_default : pps;
            expected[row.block] = pps == most + 1 ? UINT32_MAX : in_force * row.seconds;
            EXPECT_EQ(row.set(ATC_ARP, pps), 0U);
            EXPECT_EQ(values(row.threshold), expected) << pps;
            EXPECT_EQ(((*state()).*row.in_force)[ATC_ARP], in_force);
        }
    }
    EXPECT_EQ(values(&atc_stat_t::fp_alarm)[0], 1U) << "alarms wait for the period end";
}

TEST_F(SettingsOnFlows, PeriodsStartAnewAndMoveEveryThreshold) {
    pass_seconds(50);
    std::vector<uint32_t> fast = values(&atc_stat_t::fp_threshold);
    std::vector<uint32_t> slow = values(&atc_stat_t::lp_threshold);
    EXPECT_EQ(atc_api_set_fast_period_time(0), REFUSED);
    EXPECT_EQ(atc_api_set_long_period_time(0), REFUSED);
    EXPECT_EQ(state()->fast_period_time, 300U);
    EXPECT_EQ(state()->long_period_time, 3600U);

    EXPECT_EQ(atc_api_set_fast_period_time(60), 0U);
    EXPECT_EQ(atc_api_set_long_period_time(90), 0U);
    std::ranges::for_each(fast, [](uint32_t &threshold) { threshold = threshold / 300 * 60; });
    std::ranges::for_each(slow, [](uint32_t &threshold) { threshold = threshold / 3600 * 90; });
    EXPECT_EQ(values(&atc_stat_t::fp_threshold), fast);
    EXPECT_EQ(values(&atc_stat_t::lp_threshold), slow);
    const atc_stat_t &flow = *blocks()[0];
    for (uint32_t second = 1; second <= 90; ++second) {
        pass_seconds(1);
        EXPECT_EQ(flow.fp_last, second < 60 ? 0U : 2U) << second;
        EXPECT_EQ(flow.lp_last, second < 90 ? 0U : 2U) << second;
    }
}

TEST_F(SettingsOnFlows, OnlyZeroEndsADeny) {
    const struct {
        const char *name;
        set_t set;
        uint32_t value;
        std::vector<uint16_t> left;
    } rows[] = {
        {"flows", atc_api_set_protocol_deny_enable, 0, {0, 1, 1, 1}},
        {"sources", atc_api_set_protocol_src_deny_enable, 0, {1, 0, 1, 1}},
        {"flows on", atc_api_set_protocol_deny_enable, 1, {1, 1, 1, 1}},
        {"neither", atc_api_set_protocol_deny_enable, 2, {1, 1, 1, 1}},
        {"hardware", atc_api_set_protocol_hw_deny_enable, 0, {1, 1, 1, 1}},
        {"capture", atc_api_set_protocol_cap_enable, 0, {1, 1, 1, 1}},
    };
    for (const auto &row : rows) {
        std::ranges::for_each(blocks(), [](atc_stat_t *block) { block->sw_deny_on = 1; });
        EXPECT_EQ(row.set(ATC_ARP, row.value), 0U);
        EXPECT_EQ(values(&atc_stat_t::sw_deny_on), row.left) << row.name;
    }
}

TEST_F(Settings, ModuleIsOnForOneOnly) {
    for (uint32_t value : {0U, 2U, 1U}) {
        EXPECT_EQ(atc_api_set_global_enable(value), 0U);
        rx(arp());
        EXPECT_EQ(state()->rx_stat.count, value == 1 ? 1U : 0U) << value;
    }
    EXPECT_EQ(atc_api_set_ipattack(1), 0U);
    EXPECT_EQ(atc_api_set_icmpattack(2), 0U);
    EXPECT_EQ(atc_api_set_icmpattack_size(3), 0U);
    EXPECT_EQ(state()->ipattack, 1U);
    EXPECT_EQ(state()->icmpattack, 2U);
    EXPECT_EQ(state()->icmpattack_size, 3U);
}

}  // namespace
