// The settings, and what they change in what exists.
#include <algorithm>

#include "fixture.h"
#include "frames.h"

namespace {

using Settings = ModuleTest;
using set_t = uint32_t (*)(uint32_t id, uint32_t value);
using words_t = atc_protocol_words_t atc_global_t::*;

constexpr uint32_t REFUSED = UINT32_MAX;

const std::pair<set_t, words_t> SETTERS[] = {
    {atc_api_set_protocol_fp_limit, &atc_global_t::fp_limit_cfg},
    {atc_api_set_protocol_lp_limit, &atc_global_t::lp_limit_cfg},
    {atc_api_set_protocol_src_fp_limit, &atc_global_t::src_fp_limit_cfg},
    {atc_api_set_protocol_src_lp_limit, &atc_global_t::src_lp_limit_cfg},
    {atc_api_set_protocol_deny_enable, &atc_global_t::deny},
    {atc_api_set_protocol_src_deny_enable, &atc_global_t::src_deny},
    {atc_api_set_protocol_hw_deny_enable, &atc_global_t::hw_deny},
    {atc_api_set_protocol_src_hw_deny_enable, &atc_global_t::src_hw_deny},
    {atc_api_set_protocol_cap_enable, &atc_global_t::cap},
    {atc_api_set_protocol_src_cap_enable, &atc_global_t::src_cap},
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
        const auto source = [this](uint32_t protocol) {
            return mac_source(1, 1, protocol, {0, 0x11, 0x22, 0x33, 0x44, 0x55});
        };
        return {&entry(1, 1, ATC_ARP)->stat, &source(ATC_ARP)->stat, &entry(1, 1, ATC_LLDP)->stat,
                &source(ATC_LLDP)->stat};
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
    for (const auto &row : SETTERS) {
        SCOPED_TRACE("setter " + std::to_string(&row - SETTERS));
        for (uint32_t id : {0U, ATC_PROTOCOL_COUNT + 1U, UINT32_MAX}) {
            EXPECT_EQ(row.first(id, 10), REFUSED);
        }
        EXPECT_EQ(row.first(1, 8), 0U);
        EXPECT_EQ(row.first(ATC_PROTOCOL_COUNT, 8), 0U);
        for (const auto &other : SETTERS) {
            const auto &words = (*state()).*other.second;
            for (uint32_t id = 0; id < ATC_PROTOCOL_SLOTS; ++id) {
                const bool is_set = &other == &row && (id == 1 || id == ATC_PROTOCOL_COUNT);
                EXPECT_EQ(words[id], is_set ? 8U : 0U) << "in " << &other - SETTERS << " " << id;
            }
        }
        row.first(1, 0), row.first(ATC_PROTOCOL_COUNT, 0);
    }
}

TEST_F(SettingsOnFlows, LimitsMoveTheirThresholds) {
    for (size_t i = 0; i < 4;
         ++i) {  // the first setters, of the fast and the long period in turn, flows before sources
        const bool fast = i % 2 == 0;
        const auto threshold = fast ? &atc_stat_t::fp_threshold : &atc_stat_t::lp_threshold;
        const uint32_t seconds = fast ? 300 : 3600;
        const uint32_t most = UINT32_MAX / seconds;
        std::vector<uint32_t> expected = values(threshold);
        for (const auto &[pps, moved] : {std::pair{7U, 7 * seconds},
                                         {most, most * seconds},
                                         {most + 1, UINT32_MAX},
                                         {0U, (fast ? 100 : 50) * seconds}}) {
            expected[i / 2] = moved;
            EXPECT_EQ(SETTERS[i].first(ATC_ARP, pps), 0U);
            EXPECT_EQ(values(threshold), expected) << i << " " << pps;
        }
    }
}

TEST_F(SettingsOnFlows, PeriodsStartAnewAndMoveEveryThreshold) {
    const std::vector<uint32_t> fast = values(&atc_stat_t::fp_threshold);
    pass_seconds(50);
    EXPECT_EQ(atc_api_set_fast_period_time(0), REFUSED);
    EXPECT_EQ(atc_api_set_long_period_time(0), REFUSED);
    EXPECT_EQ(values(&atc_stat_t::fp_threshold), fast);
    atc_api_set_fast_period_time(60);
    atc_api_set_long_period_time(90);
    EXPECT_EQ(values(&atc_stat_t::fp_threshold), (std::vector<uint32_t>{6000, 6000, 720, 720}));
    EXPECT_EQ(values(&atc_stat_t::lp_threshold), (std::vector<uint32_t>{4500, 4500, 900, 900}));
    for (uint32_t second = 1; second <= 90; ++second) {
        pass_seconds(1);
        EXPECT_EQ(blocks()[0]->fp_last, second < 60 ? 0U : 2U) << second;
        EXPECT_EQ(blocks()[0]->lp_last, second < 90 ? 0U : 2U) << second;
    }
}

TEST_F(SettingsOnFlows, OnlyZeroEndsADeny) {
    const struct {
        set_t set;
        uint32_t value;
        std::vector<uint8_t> left;
    } rows[] = {{atc_api_set_protocol_deny_enable, 0, {0, 1, 1, 1}},
                {atc_api_set_protocol_src_deny_enable, 0, {1, 0, 1, 1}},
                {atc_api_set_protocol_deny_enable, 2, {1, 1, 1, 1}},
                {atc_api_set_protocol_hw_deny_enable, 0, {1, 1, 1, 1}}};
    for (const auto &row : rows) {
        std::ranges::for_each(blocks(), [](atc_stat_t *block) { block->sw_deny_on = 1; });
        EXPECT_EQ(row.set(ATC_ARP, row.value), 0U);
        EXPECT_EQ(values(&atc_stat_t::sw_deny_on), row.left) << "row " << &row - rows;
    }
}

}  // namespace
