// SPDX-License-Identifier: Apache-2.0
// Automatic deny rules, from the packet that crosses the limit to the ebb.
#include "atc/hw_deny.h"

#include <algorithm>

#include "fixture.h"
#include "frames.h"

namespace {

constexpr uint32_t THRESHOLD = 10;  // of flows and sources alike

class HwDeny : public ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        for (uint32_t id : {ATC_ARP, ATC_LLDP, ATC_DHCP, ATC_BGP}) {
            set(id, 1, {atc_api_set_protocol_fp_limit, atc_api_set_protocol_src_fp_limit}, THRESHOLD);
        }
    }

    void deny_flows(uint32_t protocol = ATC_ARP) { atc_api_set_protocol_hw_deny_enable(protocol, 1); }
    void deny_sources(uint32_t protocol = ATC_ARP) { atc_api_set_protocol_src_hw_deny_enable(protocol, 1); }
    size_t rules() { return fake().rules.size(); }
};

TEST_F(HwDeny, RefusalsAreLoggedAndLeaveNoRecord) {
    const Lines refusal = {"drv set stream deny tocpu faild!"};
    deny_flows();
    for (const auto &[result, logged] : {std::pair<int, Lines>{-7, refusal}, {1, {}}}) {
        fake().chip_set_result = result;
        rx_n(THRESHOLD, arp());
        EXPECT_EQ(state()->rule_hw_count + rules(), 0U);
        EXPECT_EQ(alarms(), logged);
        clear();
    }
    fake().chip_set_result = 0;
    rx_n(THRESHOLD, arp());
    const auto record = reinterpret_cast<uintptr_t>(state()->hw_deny_list.next);
    fake().fail(Call::chip_delete, 1);
    EXPECT_EQ(atc_api_clear_hw_deny_info(0), 0);
    EXPECT_EQ(alarms(), refusal);
    EXPECT_EQ(state()->rule_hw_count, 0U);
    EXPECT_EQ(atc_hw_filter_expire(record, 0, 0), 0) << "an expiry of what is freed";
}

TEST_F(HwDeny, ListsNewestFirst) {
    EXPECT_EQ(text_of(atc_api_get_hw_deny_info), "(none)");
    deny_flows(ATC_DHCP);
    deny_sources(ATC_LLDP);
    deny_sources(ATC_BGP);
    rx_n(THRESHOLD, udp(68, 67), 3, 100);
    rx_n(3 * THRESHOLD, lldp(), 4, 0);
    rx_n(3 * THRESHOLD, tcp6(51000, 179), 5, 1);
    fake().set_packets(fake().chip().at(0).stat_id, (uint64_t{1} << 32) + 5);
    atc_list_record<atc_hw_deny_t>(state()->hw_deny_list.prev)->last_packets = 4;
    EXPECT_EQ(text_of(atc_api_get_hw_deny_info),
              "entry-id 1002 stat 0/0(current packets/last packets) rule: logic port 5 vlan 1 eth_type 0x86dd"
              " src-ipv6 2001:db8::1 ip protocol 6 dest-port 179 \r\n"
              "entry-id 1001 stat 0/0(current packets/last packets) rule: logic port 4 dest-mac 01:80:c2:00:00:0e"
              " src-mac 00:11:22:33:44:55 \r\n"
              "entry-id 1000 stat 4294967301/4(current packets/last packets) rule: logic port 3 vlan 100 eth_type 0x800"
              " ip protocol 17 src-port 68 dest-port 67 \r\n");
}

TEST_F(HwDeny, FailuresLeaveNothingBehind) {
    sweep({Call::alloc, Call::chip_set, Call::chip_delete, Call::chip_counters}, [this] {
        deny_flows();
        deny_sources();
        rx_n(3 * THRESHOLD, arp());
        const bool installed = rules() == 2;
        pass_seconds(THRESHOLD);
        const bool withdrawn = rules() == 0;
        rx_n(3 * THRESHOLD, arp());
        char *text = nullptr;
        const int answer = atc_api_get_hw_deny_info(&text);
        const bool listed = told(answer, text != nullptr);
        atc_api_free_buffer(text);
        return installed && withdrawn && rules() == 2 && listed;
    });
}

}  // namespace
