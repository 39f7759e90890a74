// Automatic deny rules, from the packet that crosses the limit to the ebb.
#include "atc/hw_deny.h"

#include <algorithm>

#include "chip_text.h"
#include "fixture.h"
#include "frames.h"

namespace {

constexpr char REFUSAL[] = "drv set stream deny tocpu faild!";
constexpr uint32_t THRESHOLD = 10;  // of flows and sources alike
using Lines = std::vector<std::string>;

class HwDeny : public ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        atc_api_set_fast_period_time(THRESHOLD);
        for (uint32_t id = 1; id <= ATC_PROTOCOL_COUNT; ++id) {
            atc_api_set_protocol_fp_limit(id, 1);
            atc_api_set_protocol_src_fp_limit(id, 1);
        }
    }

    void deny_flows(uint32_t protocol = ATC_ARP) { atc_api_set_protocol_hw_deny_enable(protocol, 1); }
    void deny_sources(uint32_t protocol = ATC_ARP) { atc_api_set_protocol_src_hw_deny_enable(protocol, 1); }
    size_t rules() { return fake().chip().size(); }
    std::string listing() {
        char *text = nullptr;
        std::string copy = atc_api_get_hw_deny_info(&text) == 0 ? text : "none";
        atc_api_free_buffer(text);
        return copy;
    }
};

TEST_F(HwDeny, ThePacketThatReachesTheThresholdInstalls) {
    deny_flows();
    rx_n(THRESHOLD - 1, arp(), 3, 100);
    EXPECT_EQ(rules(), 0U);
    rx_n(50, arp(), 3, 100);
    EXPECT_EQ(chip_texts(), Lines{"4=100 5=2054 | 100 121 113:80001 | 3"});
    clear();

    atc_api_set_protocol_hw_deny_enable(ATC_ARP, 0);
    deny_sources();
    rx_n(THRESHOLD - 1, arp().from(1));  // sources count from the flow's threshold on
    rx_n(THRESHOLD + 1, arp().from(2));
    EXPECT_EQ(rules(), 0U);
    rx(arp().from(2));
    EXPECT_EQ(chip_texts(), Lines{"0=060000000002 4=1 5=2054 | 100 121 113:80001 | 1"});
    EXPECT_EQ(mac_source(1, 1, ATC_ARP, {6, 0, 0, 0, 0, 2})->stat.hw_deny_on, 1U);
}

TEST_F(HwDeny, OnlyWhenEnabledAndNotOnTheReservedPort) {
    using Row = std::array<uint32_t, 3>;
    for (const auto &[enable, port, expected] : {Row{0, 1, 0}, {2, 1, 0}, {1, 254, 2}, {1, 255, 0}, {1, 256, 2}}) {
        atc_api_set_protocol_hw_deny_enable(ATC_ARP, enable);
        atc_api_set_protocol_src_hw_deny_enable(ATC_ARP, enable);
        rx_n(3 * THRESHOLD, arp(), port);
        EXPECT_EQ(rules(), expected) << enable << " on port " << port;
        clear();
    }
}

TEST_F(HwDeny, AtMostAHundredRules) {
    deny_flows();
    for (uint32_t vlan = 1; vlan <= 101; ++vlan) {
        rx_n(THRESHOLD, arp(), 1, vlan);
        EXPECT_EQ(rules(), std::min(vlan, 100U));
    }
    atc_api_clear_hw_deny_info(fake().chip().at(50).entry_id);
    rx(arp(), 1, 101);
    EXPECT_EQ(rules(), 100U);
    EXPECT_EQ(entry(1, 101, ATC_ARP)->stat.hw_deny_on, 1U);
}

TEST_F(HwDeny, StaysWhileTheChipStopsTheThreshold) {
    constexpr uint64_t WRAP = uint64_t{1} << 32;
    const struct {
        uint32_t threshold;
        uint64_t last;
        uint64_t count;
        bool stays;
    } rows[] = {{600, 1000, 1599, false},
                {600, 1000, 1600, true},
                {0, 1000, 0, true},  // a counter that cannot be read
                {600, WRAP - 100, WRAP + 500, true},
                {600, WRAP - 100, WRAP + 499, false}};
    for (bool per_source : {false, true}) {
        atc_api_set_protocol_hw_deny_enable(ATC_ARP, !per_source);
        atc_api_set_protocol_src_hw_deny_enable(ATC_ARP, per_source);
        for (const auto &row : rows) {
            rx_n(3 * THRESHOLD, arp().from(7));
            ASSERT_EQ(rules(), 1U);
            atc_src_entry_t *src = mac_source(1, 1, ATC_ARP, {6, 0, 0, 0, 0, 7});
            (per_source ? src->stat : entry(1, 1, ATC_ARP)->stat).fp_threshold = row.threshold;
            atc_list_record<atc_hw_deny_t>(state()->hw_deny_list.next)->last_packets = row.last;
            fake().set_packets(fake().chip()[0].stat_id, row.count);

            pass_seconds(THRESHOLD);
            EXPECT_EQ(rules(), row.stays ? 1U : 0U) << row.threshold << " " << row.count;
            pass_seconds(THRESHOLD);  // nothing more was stopped
            EXPECT_EQ(rules(), row.threshold == 0 ? 1U : 0U) << "second check";
            clear();
        }
    }
}

// One flow of ARP and one of its sources, one flow of LLDP: three rules. Each way of withdrawal takes its own.
TEST_F(HwDeny, EveryWithdrawalLeavesChipListAndOwnersInStep) {
    const std::pair<void (*)(), std::vector<uint32_t>> rows[] = {
        // How, and which of the three are left.
        {[] { atc_api_clear_hw_deny_info(fake().chip().at(1).entry_id); }, {0, 2}},
        {[] { atc_api_clear_hw_deny_info(0); }, {}},
        {[] { atc_api_set_protocol_hw_deny_enable(ATC_ARP, 0); }, {1, 2}},
        {[] { atc_api_set_protocol_src_hw_deny_enable(ATC_ARP, 0); }, {0, 2}},
        {[] { fake().chip_clear(), atc_api_clear_hw_deny_info(0); }, {}},
    };
    for (const auto &[withdraw, expected] : rows) {
        deny_flows();
        deny_flows(ATC_LLDP);
        deny_sources();
        rx_n(3 * THRESHOLD, arp());
        rx_n(THRESHOLD, lldp());
        ASSERT_EQ(rules(), 3U);
        const uint32_t first = fake().chip()[0].entry_id;
        withdraw();
        EXPECT_EQ(state_problems(), "");
        std::vector<uint32_t> left;
        std::ranges::for_each(fake().chip(), [&](const ChipRule &rule) { left.push_back(rule.entry_id - first); });
        EXPECT_EQ(left, expected);
        clear();
    }
}

TEST_F(HwDeny, RefusalsAreLoggedAndLeaveNoRecord) {
    deny_flows();
    for (const auto &[result, logged] : {std::pair<int, Lines>{-7, {REFUSAL}}, {1, {}}}) {
        fake().chip_set_result = result;
        rx_n(THRESHOLD, arp());
        EXPECT_EQ(state()->rule_hw_count, 0U);
        EXPECT_EQ(alarms(), logged);
        clear();
    }
    fake().chip_set_result = 0;
    rx_n(THRESHOLD, arp());
    const auto record = reinterpret_cast<uintptr_t>(state()->hw_deny_list.next);
    fake().fail(Call::chip_delete, 1);
    EXPECT_EQ(atc_api_clear_hw_deny_info(0), 0);
    EXPECT_EQ(alarms(), Lines{REFUSAL});
    EXPECT_EQ(state()->rule_hw_count, 0U);
    atc_guard_t guard;
    EXPECT_EQ(atc_hw_filter_expire(record, 0, 0), 0) << "an expiry of what is freed";
}

TEST_F(HwDeny, ListsNewestFirst) {
    EXPECT_EQ(listing(), "none");
    deny_flows(ATC_DHCP);
    deny_sources(ATC_LLDP);
    deny_sources(ATC_BGP);
    rx_n(THRESHOLD, udp(68, 67), 3, 100);
    rx_n(3 * THRESHOLD, lldp(), 4, 0);
    rx_n(3 * THRESHOLD, tcp6(51000, 179), 5, 1);
    fake().set_packets(fake().chip().at(0).stat_id, (uint64_t{1} << 32) + 5);
    atc_list_record<atc_hw_deny_t>(state()->hw_deny_list.prev)->last_packets = 4;
    EXPECT_EQ(listing(),
              "entry-id 1002 stat 0/0(current packets/last packets) rule: logic port 5 vlan 1 eth_type 0x86dd"
              " src-ipv6 2001:db8::1 ip protocol 6 dest-port 179 \r\n"
              "entry-id 1001 stat 0/0(current packets/last packets) rule: logic port 4 dest-mac 01:80:c2:00:00:0e"
              " src-mac 00:11:22:33:44:55 \r\n"
              "entry-id 1000 stat 4294967301/4(current packets/last packets) rule: logic port 3 vlan 100 eth_type 0x800"
              " ip protocol 17 src-port 68 dest-port 67 \r\n");
}

TEST_F(HwDeny, FailuresLeaveNothingBehind) {
    for (Call kind : {Call::alloc, Call::chip_set, Call::chip_delete, Call::chip_counters}) {
        sweep(kind, [this] {
            deny_flows();
            deny_sources();
            rx_n(3 * THRESHOLD, arp());
            const bool installed = rules() == 2;
            pass_seconds(THRESHOLD);
            const bool withdrawn = rules() == 0;
            rx_n(3 * THRESHOLD, arp());
            return installed && withdrawn && rules() == 2 && listing() != "none";
        });
    }
}

}  // namespace
