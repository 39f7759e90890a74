// SPDX-License-Identifier: Apache-2.0
// The catalogue's look-up by the beginning of a name; names, ids and limits stand in the scenarios.
#include "atc/protocol.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>

// "$" is the byte behind a whole name, "-" none.
TEST(protocol, first_name_in_order_that_begins_so_wins) {
    std::istringstream rows(
        "g803=aps dhcp=dhcp rip=rip mld=mld-query icmp=icmpv4 icmpv6-r=icmpv6-request icmpv6-n=icmpv6-ns "
        "unknown-=unknown-ipv4 unknown-ip-=unknown-ip-fragment unknown-ipv6=unknown-ipv6 s=stp d=dot1x t=tftp =stp "
        "efm$=dot3ah g8031$=aps g8032$=erps cfm$=y1731 STP$=- stpx$=- st$=- $=-");
    for (std::string row; rows >> row;) {
        std::string name = row.substr(0, row.find('='));
        const std::string expected = row.substr(name.size() + 1);
        std::ranges::replace(name, '$', '\0');
        uint32_t id = UINT32_MAX;
        atc_protocol_name_to_id(&id, name.c_str(), static_cast<uint32_t>(name.size()));
        char text[32] = "-";
        if (id != UINT32_MAX) {
            atc_protocol_id_to_name(id, text, sizeof text);
        }
        EXPECT_EQ(text, expected) << row;
    }
    char text[] = "xxxxxxxx";
    atc_protocol_id_to_name(0, text, 7);
    EXPECT_EQ(std::string(text), "unknownx") << "cut to the buffer";
    for (const int32_t id : {-1, 0, int32_t{ATC_PROTOCOL_COUNT} + 1}) {
        uint32_t limits[] = {7, 7};
        EXPECT_EQ(atc_protocol_lmt_init(id, &limits[0], &limits[1]), -1) << id;
        EXPECT_EQ(limits[0] + limits[1], 14U) << id;
    }
}
