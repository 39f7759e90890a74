// SPDX-License-Identifier: Apache-2.0
// What happens at the end of a period, told in order however many have something to say.
#include "atc/evaluation.h"

#include <algorithm>

#include "atc/accounting.h"
#include "fixture.h"
#include "frames.h"

namespace {

using EvaluationTest = ModuleTest;

// Alarms come once and in the order of the indexes, on both sides of the few that are noted without memory; each block
// is closed once a pass. Two fast and two long periods end together.
TEST_F(EvaluationTest, AlarmsComeInOrderFromFewAndFromMany) {
    set(ATC_LLDP, 1,
        {atc_api_set_protocol_fp_limit, atc_api_set_protocol_src_fp_limit, atc_api_set_protocol_lp_limit,
         atc_api_set_protocol_src_lp_limit});
    atc_api_set_long_period_time(10);
    // Flows, each with a quiet and a noisy source; whether there is memory to note more than a few.
    for (const auto &[noisy, has_memory] :
         {std::pair(3U, true), {512U, true}, {513U, true}, {1025U, true}, {513U, false}, {1025U, false}}) {
        clear();
        for (const int round : {0, 1, 2}) {
            for (uint32_t port = round == 2 ? 0 : noisy; port > 0; port--) {
                rx_n(10, lldp().from(1), port, 100);
                rx_n(12, lldp().from(2), port, 100);
            }
            rx_n(10, lldp(), noisy + 1, 100);
            fake().fail(Call::alloc, has_memory ? 0 : 1, true);
            pass_seconds(10);
            fake().fail_none();
            Lines expected;
            for (const std::string period : {"fast", "long"}) {
                for (uint32_t port = 1; port <= noisy && round != 1; port++) {
                    const std::string who = "anti-cpu rx port " + std::to_string(port) + " vlan 100 protocol lldp ";
                    const std::string what = (round == 0 ? "over " : "restore ") + period;
                    expected.insert(expected.end(), {who + what, who + "src mac 06:00:00:00:00:02 " + what});
                }
            }
            Lines told = alarms();
            for (std::string &line : told) {
                line.resize(std::min(line.size(), line.find(" period limit")));
            }
            EXPECT_EQ(told, expected) << noisy << ", round " << round;
            each_record<atc_entry_t>(state()->entry_tree, [&](atc_entry_t *flow) {
                const std::array cur = {+flow->stat.fp_cur, +flow->stat.lp_cur};
                EXPECT_EQ(cur, (std::array{round, round})) << "not closed once";
                EXPECT_EQ(flow->stat.fp_last + flow->stat.lp_last, 2 * flow->stat.count);
            });
        }
    }
}

}  // namespace
