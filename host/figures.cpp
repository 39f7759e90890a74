// SPDX-License-Identifier: Apache-2.0
#include "figures.h"

#include "anti_cpu/anti_cpu.h"
#include "clock/clock.h"

namespace host {

namespace {

// The outputs that every query has, in their order. 'key' is what names the block.
template <typename Query, typename... Key>
bool ask(Query query, Figures &f, Key... key) {
    return query(key..., &f.count, &f.pps, &f.fast.latest, &f.fast.latest_pps, &f.fast.smallest, &f.fast.smallest_pps,
                 &f.fast.largest, &f.fast.largest_pps, &f.fast.average, &f.fast.average_pps, &f.fast.peak,
                 &f.fast.peak_pps, f.fast.peak_time, &f.slow.latest, &f.slow.latest_pps, &f.slow.smallest,
                 &f.slow.smallest_pps, &f.slow.largest, &f.slow.largest_pps, &f.slow.average, &f.slow.average_pps,
                 &f.slow.peak, &f.slow.peak_pps, f.slow.peak_time) == 0;
}

}  // namespace

bool global_figures(uint32_t direction, Figures &figures) {
    return ask(atc_api_get_global_statistic, figures, direction);
}

bool port_figures(uint32_t direction, uint32_t port, Figures &figures) {
    return ask(atc_api_get_port_statistic, figures, direction, port);
}

bool vlan_figures(uint32_t direction, uint32_t vlan, Figures &figures) {
    return ask(atc_api_get_vlan_statistic, figures, direction, vlan);
}

bool protocol_figures(uint32_t direction, uint32_t protocol, Figures &figures) {
    return ask(atc_api_get_protocol_statistic, figures, direction, protocol);
}

bool flow_figures(uint32_t direction, const Subject &subject, Figures &f) {
    const auto &[flow, source] = subject;
    return atc_api_get_statistic(direction, flow.vlan, flow.port, flow.protocol, source.type, source.address(),
                                 &f.count, &f.pps, &f.fast.latest, &f.fast.latest_pps, &f.fast.smallest,
                                 &f.fast.smallest_pps, &f.fast.largest, &f.fast.largest_pps, &f.fast.average,
                                 &f.fast.average_pps, &f.fast.limit, &f.fast.limit_pps, &f.fast.peak, &f.fast.peak_pps,
                                 f.fast.peak_time, &f.slow.latest, &f.slow.latest_pps, &f.slow.smallest,
                                 &f.slow.smallest_pps, &f.slow.largest, &f.slow.largest_pps, &f.slow.average,
                                 &f.slow.average_pps, &f.slow.limit, &f.slow.limit_pps, &f.slow.peak, &f.slow.peak_pps,
                                 f.slow.peak_time, &f.cap_on, &f.cap_len, &f.sw_deny_on, &f.hw_deny_on) == 0;
}

bool is_known(const Subject &subject) {
    const card::SleeplessScope now;
    Figures figures;
    return flow_figures(ATC_DIRECTION_RX, subject, figures);
}

}  // namespace host
