// Automatic deny rules, from the packet that crosses the limit to the ebb.
#include "atc/hw_deny.h"

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
    rx(arp(), 3, 100);
    EXPECT_EQ(rules(), 1U);
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

TEST_F(HwDeny, OnlyWhereItMayBeInstalled) {
    const struct {
        const char *name;
        uint32_t enable;
        uint32_t port;
        size_t rules;
    } rows[] = {{"disabled", 0, 1, 0},
                {"enable is not 1", 2, 1, 0},
                {"port below", 1, 254, 1},
                {"port never", 1, 255, 0},
                {"port above", 1, 256, 1}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        atc_api_set_protocol_hw_deny_enable(ATC_ARP, row.enable);
        atc_api_set_protocol_src_hw_deny_enable(ATC_ARP, row.enable);
        rx_n(3 * THRESHOLD, arp(), row.port);
        EXPECT_EQ(rules(), 2 * row.rules);
        clear();
    }
    deny_flows();
    deny_sources();
    atc_entry_t sent = {};
    sent.direction = ATC_DIRECTION_TX;
    sent.protocol = ATC_ARP;
    atc_src_entry_t sender = {};
    sender.entry = &sent;
    const atc_pkt_info_t packet = {};
    atc_guard_t guard;
    atc_hw_deny_flow(&sent, &packet);
    atc_hw_deny_source(&sender, &packet);
    EXPECT_EQ(rules(), 0U) << "sent packets";
}

TEST_F(HwDeny, AtMostAHundredRules) {
    deny_flows();
    for (uint32_t vlan = 1; vlan <= 99; ++vlan) {
        rx_n(THRESHOLD, arp(), 1, vlan);
    }
    EXPECT_EQ(rules(), 99U);
    rx_n(THRESHOLD, arp(), 1, 100);
    rx_n(THRESHOLD, arp(), 1, 101);
    EXPECT_EQ(rules(), 100U);
    EXPECT_EQ(state()->rule_hw_count, 100U);
    EXPECT_EQ(entry(1, 101, ATC_ARP)->stat.hw_deny_on, 0U);

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
    } rows[] = {
        {600, 1000, 1599, false},
        {600, 1000, 1600, true},
        {1, 0, 0, false},
        {0, 0, 0, true},
        {600, 1000, 0, false},  // a counter that cannot be read
        {0, 1000, 0, true},
        {600, WRAP - 100, WRAP + 500, true},
        {600, WRAP - 100, WRAP + 499, false},
        {600, 1000, 1000 + WRAP, false},  // a whole turn looks like nothing
    };
    for (bool per_source : {false, true}) {
        atc_api_set_protocol_hw_deny_enable(ATC_ARP, !per_source);
        atc_api_set_protocol_src_hw_deny_enable(ATC_ARP, per_source);
        for (const auto &row : rows) {
            SCOPED_TRACE(std::to_string(row.threshold) + " " + std::to_string(row.count));
            rx_n(3 * THRESHOLD, arp().from(7));
            ASSERT_EQ(rules(), 1U);
            atc_src_entry_t *src = mac_source(1, 1, ATC_ARP, {6, 0, 0, 0, 0, 7});
            (per_source ? src->stat : entry(1, 1, ATC_ARP)->stat).fp_threshold = row.threshold;
            auto *record = atc_list_record<atc_hw_deny_t>(state()->hw_deny_list.next);
            record->last_packets = row.last;
            fake().set_packets(fake().chip()[0].stat_id, row.count);

            pass_seconds(THRESHOLD);
            EXPECT_EQ(rules(), row.stays ? 1U : 0U);
            if (row.stays) {
                EXPECT_EQ(record->last_packets, row.count == 0 ? row.last : row.count);
                pass_seconds(THRESHOLD);  // nothing more was stopped
                EXPECT_EQ(rules(), row.threshold == 0 ? 1U : 0U) << "second check";
            }
            clear();
        }
    }
}

// One flow of ARP and one of its sources, one flow of LLDP: three rules. Each way of withdrawal takes its own.
TEST_F(HwDeny, EveryWithdrawalLeavesChipListAndOwnersInStep) {
    const struct {
        const char *name;
        void (*withdraw)();
        Lines left;
    } rows[] = {
        {"by another entry id", [] { atc_api_clear_hw_deny_info(1); }, {"arp", "source", "lldp"}},
        {"by entry id", [] { atc_api_clear_hw_deny_info(fake().chip().at(1).entry_id); }, {"arp", "lldp"}},
        {"all", [] { atc_api_clear_hw_deny_info(0); }, {}},
        {"statistics cleared", [] { atc_api_clear_statistic_all(); }, {}},
        {"flow enable off", [] { atc_api_set_protocol_hw_deny_enable(ATC_ARP, 0); }, {"source", "lldp"}},
        {"source enable off", [] { atc_api_set_protocol_src_hw_deny_enable(ATC_ARP, 0); }, {"arp", "lldp"}},
        {"enable neither 0 nor 1", [] { atc_api_set_protocol_hw_deny_enable(ATC_ARP, 2); }, {"arp", "source", "lldp"}},
        {"chip lost its rules", [] { fake().chip_clear(), atc_api_clear_hw_deny_info(0); }, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        deny_flows();
        deny_flows(ATC_LLDP);
        deny_sources();
        rx_n(3 * THRESHOLD, arp());
        rx_n(THRESHOLD, lldp());
        ASSERT_EQ(rules(), 3U);
        row.withdraw();
        EXPECT_EQ(state_problems(), "");
        Lines left;
        for (const std::string &text : chip_texts()) {
            left.push_back(text.starts_with("0=") ? "source" : text.starts_with("1=") ? "lldp" : "arp");
        }
        EXPECT_EQ(left, row.left);
        clear();
    }
}

TEST_F(HwDeny, RefusedRemovalStillForgetsTheRecord) {
    deny_flows();
    rx_n(THRESHOLD, arp(), 1);
    rx_n(THRESHOLD, arp(), 2);
    const auto newest = reinterpret_cast<uintptr_t>(state()->hw_deny_list.next);
    fake().fail(Call::chip_delete, 1);
    EXPECT_EQ(atc_api_clear_hw_deny_info(fake().chip().at(1).entry_id), 0);
    EXPECT_EQ(alarms(), Lines{REFUSAL});
    EXPECT_EQ(entry(2, 1, ATC_ARP)->stat.hw_deny_on, 0U);
    atc_guard_t guard;
    EXPECT_EQ(atc_hw_filter_expire(newest, 0, 0), 0) << "an expiry of what is freed";
    EXPECT_EQ(g_atc_global.rule_hw_count, 1U);
}

TEST_F(HwDeny, OnlyAResultOfZeroIsARule) {
    deny_flows();
    for (const auto &[result, logged] : {std::pair<int, Lines>{-7, {REFUSAL}}, {1, {}}}) {
        fake().chip_set_result = result;
        rx_n(THRESHOLD, arp());
        EXPECT_EQ(rules(), 0U);
        EXPECT_EQ(state()->rule_hw_count, 0U);
        EXPECT_EQ(alarms(), logged);
        fake().chip_set_result = 0;
        rx(arp());
        EXPECT_EQ(rules(), 1U) << "the next packet tries again";
        clear();
    }
}

TEST_F(HwDeny, ListsNewestFirst) {
    EXPECT_EQ(listing(), "none");
    EXPECT_EQ(atc_api_get_hw_deny_info(nullptr), -1);
    deny_flows(ATC_DHCP);
    deny_sources(ATC_LLDP);
    deny_sources(ATC_BGP);
    rx_n(THRESHOLD, udp(68, 67), 3, 100);
    rx_n(3 * THRESHOLD, lldp(), 4, 0);
    rx_n(3 * THRESHOLD, tcp6(51000, 179), 5, 1);
    rx_n(3 * THRESHOLD, tcp(179, 51000), 6, 1);
    fake().set_packets(fake().chip().at(0).stat_id, (uint64_t{1} << 32) + 5);
    atc_list_record<atc_hw_deny_t>(state()->hw_deny_list.prev)->last_packets = 4;
    EXPECT_EQ(listing(),
              "entry-id 1003 stat 0/0(current packets/last packets) rule: logic port 6 vlan 1 eth_type 0x800"
              " src-ipv4 10.0.0.1 ip protocol 6 src-port 179 \r\n"
              "entry-id 1002 stat 0/0(current packets/last packets) rule: logic port 5 vlan 1 eth_type 0x86dd"
              " src-ipv6 2001:db8::1 ip protocol 6 dest-port 179 \r\n"
              "entry-id 1001 stat 0/0(current packets/last packets) rule: logic port 4 dest-mac 01:80:c2:00:00:0e"
              " src-mac 00:11:22:33:44:55 \r\n"
              "entry-id 1000 stat 4294967301/4(current packets/last packets) rule: logic port 3 vlan 100 eth_type 0x800"
              " ip protocol 17 src-port 68 dest-port 67 \r\n");
    fake().fail(Call::alloc, 1);
    EXPECT_EQ(listing(), "none");
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
