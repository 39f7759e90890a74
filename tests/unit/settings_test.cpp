// SPDX-License-Identifier: Apache-2.0
// The settings, and what they change in what exists.
#include "fixture.h"
#include "frames.h"

namespace {

using Settings = ModuleTest;
using words_t = atc_protocol_words_t atc_global_t::*;

constexpr uint32_t REFUSED = UINT32_MAX;

const struct {
    uint32_t (*set)(uint32_t id, uint32_t value);
    words_t words;
} SETTERS[] = {
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

TEST_F(Settings, EverySetterStoresUnderItsOwnProtocolOnly) {
    for (const auto &row : SETTERS) {
        SCOPED_TRACE("setter " + std::to_string(&row - SETTERS));
        for (uint32_t id : {0U, ATC_PROTOCOL_COUNT + 1U, UINT32_MAX}) {
            EXPECT_EQ(row.set(id, 10), REFUSED);
        }
        EXPECT_EQ(row.set(1, 8), 0U);
        EXPECT_EQ(row.set(ATC_PROTOCOL_COUNT, 8), 0U);
        for (const auto &other : SETTERS) {
            const auto &words = (*state()).*other.words;
            for (uint32_t id = 0; id < ATC_PROTOCOL_SLOTS; ++id) {
                const bool is_set = &other == &row && (id == 1 || id == ATC_PROTOCOL_COUNT);
                EXPECT_EQ(words[id], is_set ? 8U : 0U) << "in " << &other - SETTERS << " " << id;
            }
        }
        row.set(1, 0), row.set(ATC_PROTOCOL_COUNT, 0);
    }
}

// Of ARP's flow and its source and of LLDP's, by limit and by period, as far as 32 bits go.
TEST_F(Settings, LimitsAndPeriodsMoveTheThresholds) {
    for (const auto &[protocol, frame] : {std::pair{ATC_ARP, arp()}, {ATC_LLDP, lldp()}}) {
        rx(frame);
        entry(1, 1, protocol)->stat.fp_alarm = 1;  // sources count while the alarm is raised
        rx(frame);
    }
    using Values = std::vector<uint32_t>;
    const auto thresholds = [this](uint32_t atc_stat_t::*threshold) {
        Values values;
        for (uint32_t protocol : {ATC_ARP, ATC_LLDP}) {
            values.insert(values.end(),
                          {entry(1, 1, protocol)->stat.*threshold, mac_source(1, 1, protocol)->stat.*threshold});
        }
        return values;
    };
    for (size_t i = 0; i < 4; ++i) {  // the limits, of the fast and the long period in turn, flows before sources
        const bool fast = i % 2 == 0;
        const auto threshold = fast ? &atc_stat_t::fp_threshold : &atc_stat_t::lp_threshold;
        const uint32_t seconds = fast ? 300 : 3600;
        const uint32_t most = UINT32_MAX / seconds;
        Values expected = thresholds(threshold);
        for (const auto &[pps, moved] : {std::pair{7U, 7 * seconds},
                                         {most, most * seconds},
                                         {most + 1, UINT32_MAX},
                                         {0U, (fast ? 100 : 50) * seconds}}) {
            expected[i / 2] = moved;
            EXPECT_EQ(SETTERS[i].set(ATC_ARP, pps), 0U);
            EXPECT_EQ(thresholds(threshold), expected) << i << " " << pps;
        }
    }
    pass_seconds(50);
    EXPECT_EQ(atc_api_set_fast_period_time(0), REFUSED);
    EXPECT_EQ(atc_api_set_long_period_time(0), REFUSED);
    EXPECT_EQ(atc_api_set_fast_period_time(60), 0U);
    EXPECT_EQ(atc_api_set_long_period_time(90), 0U);
    EXPECT_EQ(thresholds(&atc_stat_t::fp_threshold), (Values{6000, 6000, 720, 720}));
    EXPECT_EQ(thresholds(&atc_stat_t::lp_threshold), (Values{4500, 4500, 900, 900}));
    for (uint32_t second = 1; second <= 90; ++second) {  // new periods began when they were set
        pass_seconds(1);
        EXPECT_EQ(entry(1, 1, ATC_ARP)->stat.fp_last, second < 60 ? 0U : 2U) << second;
        EXPECT_EQ(entry(1, 1, ATC_ARP)->stat.lp_last, second < 90 ? 0U : 2U) << second;
    }
}

}  // namespace
