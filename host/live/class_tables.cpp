// SPDX-License-Identifier: Apache-2.0
#include "live/class_tables.h"

#include <algorithm>

#include "atc/header_classes.h"
#include "atc/l4_ports.h"

namespace host {

kernel_classes class_tables() {
    kernel_classes tables{};
    std::ranges::copy(atc_bpdu_classes, tables.bpdu);
    std::ranges::copy(atc_slow_classes, tables.slow);
    std::ranges::copy(atc_cfm_classes, tables.cfm);
    std::ranges::copy(atc_ipv4_classes, tables.ipv4);
    std::ranges::copy(atc_ipv6_classes, tables.ipv6);
    std::ranges::copy(atc_icmpv6_classes, tables.icmpv6);
    static_assert(atc_l4_ports.size() <= std::size(tables.port) && atc_l4_slots.size() <= std::size(tables.row));
    for (size_t row = 0; row < atc_l4_ports.size(); row++) {
        tables.port[row] = atc_l4_ports[row].port;
        tables.udp[row] = static_cast<uint8_t>(atc_l4_ports[row].udp);
        tables.tcp[row] = static_cast<uint8_t>(atc_l4_ports[row].tcp);
    }
    std::ranges::copy(atc_l4_slots, tables.row);
    tables.slots = ATC_L4_SLOT_COUNT;
    tables.rows = ATC_L4_PORT_COUNT;
    return tables;
}

}  // namespace host
