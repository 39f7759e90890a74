// The text tables and the alarm listing, to the character.
#include <gtest/gtest.h>

#include "fixture.h"
#include "frames.h"

namespace {

using Report = int (*)(char **text);

constexpr char FLOW_HEADER[] =
    "logic-port/vlan/protocol/src                packets    speed(pps)    peak-packets    peak-speed(pps)    peak-time"
    "            over-limit\r\n";

class ReportsTest : public ModuleTest {
protected:
    static std::string text_of(Report report) {
        char *text = nullptr;
        EXPECT_EQ(report(&text), 0);
        const std::string copy = text == nullptr ? "(null)" : text;
        EXPECT_EQ(atc_api_free_buffer(text), 0);
        return copy;
    }

    // A flood of LLDP from two sources on port 130 (slot 3, port 2), a little ARP, one packet sent; one period closed.
    void traffic() {
        atc_api_set_fast_period_time(10);
        rx_n(150, lldp(), 130, 100);
        rx_n(90, lldp().from("00:11:22:33:44:66"), 130, 100);
        rx_n(35, arp(), 2, 100);
        tx(lldp());
        pass_seconds(10);
        rx_n(5, arp(), 2, 100);
    }
};

TEST_F(ReportsTest, TablesShowCountsRatesAndPeaks) {
    traffic();
    const struct {
        const char *name;
        Report report;
        std::string text;
    } rows[] = {
        {"protocols received", atc_api_get_rx_protocol_stat_brief,
         "protocol          packets    speed(pps)    peak-packets    peak-speed(pps)    peak-time\r\n"
         "lldp              240        24            240             24                 2021-09-02 03:46:30\r\n"
         "arp               40         3             35              3                  2021-09-02 03:46:30\r\n"},
        {"protocols sent", atc_api_get_tx_protocol_stat_brief,
         "protocol          packets    speed(pps)    peak-packets    peak-speed(pps)    peak-time\r\n"
         "lldp              1          0             1               0                  2021-09-02 03:46:30\r\n"},
        {"ports", atc_api_get_rx_port_stat_brief,
         "logic-port    packets    speed(pps)    peak-packets    peak-speed(pps)    peak-time\r\n"
         "2             40         3             35              3                  2021-09-02 03:46:30\r\n"
         "130           240        24            240             24                 2021-09-02 03:46:30\r\n"},
        {"VLANs", atc_api_get_rx_vlan_stat_brief,
         "vlan    packets    speed(pps)    peak-packets    peak-speed(pps)    peak-time\r\n"
         "100     280        27            275             27                 2021-09-02 03:46:30\r\n"},
        {"flows", atc_api_get_stat_brief,
         std::string(FLOW_HEADER) +
             "2/100/arp/NULL                              40         3             35              3                  "
             "2021-09-02 03:46:30  NO            \r\n"
             "130/100/lldp/NULL                           240        24            240             24                 "
             "2021-09-02 03:46:30  YES           \r\n"
             "130/100/lldp/mac 00:11:22:33:44:55          31         3             31              3                  "
             "2021-09-02 03:46:30  NO            \r\n"
             "130/100/lldp/mac 00:11:22:33:44:66          90         9             90              9                  "
             "2021-09-02 03:46:30  NO            \r\n"},
        {"alarms", atc_api_get_alarm_info, "alarm 1: port 1/3/2 vlan 100 protocol lldp\r\n"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(text_of(row.report), row.text) << row.name;
    }
    EXPECT_EQ(fake().calls(Call::port_map), 1u) << "the card is asked for the slots of those in alarm only";
}

TEST_F(ReportsTest, SourcesAreListedByTheirKindAndNumberedOn) {
    atc_api_set_fast_period_time(10);
    fake().map_port(7, 3, 7);
    rx_n(300, tcp(40000, 80, SYN).src_ip("192.168.0.1"), 7, 20);
    rx_n(300, icmpv6(135).src_ip("2001:db8::7"), 7, 20);
    rx_n(300, lldp(), 7, 20);
    pass_seconds(10);
    EXPECT_EQ(text_of(atc_api_get_alarm_info),
              "alarm 1: port 1/3/7 vlan 20 protocol lldp\r\n"
              "alarm 2: port 1/3/7 vlan 20 protocol lldp source mac 00:11:22:33:44:55\r\n"
              "alarm 3: port 1/3/7 vlan 20 protocol icmpv6-ns\r\n"
              "alarm 4: port 1/3/7 vlan 20 protocol icmpv6-ns source ipv6 2001:db8::7\r\n"
              "alarm 5: port 1/3/7 vlan 20 protocol tcp-syn\r\n"
              "alarm 6: port 1/3/7 vlan 20 protocol tcp-syn source ip 192.168.0.1\r\n");
    entry(7, 20, ATC_LLDP)->stat.fp_alarm = 0;
    EXPECT_EQ(text_of(atc_api_get_alarm_info).substr(0, 72),
              "alarm 1: port 1/3/7 vlan 20 protocol lldp source mac 00:11:22:33:44:55\r\n");
    entry(7, 20, ATC_LLDP)->stat.fp_alarm = 1;
}

TEST_F(ReportsTest, ALongKeyIsCutAndALargeCountIsPrintedSigned) {
    atc_api_set_protocol_fp_limit(ATC_ICMPV6_REDIRECT, 1);
    atc_api_set_fast_period_time(1);
    rx_n(2, icmpv6(137).src_ip("2001:db8:1111:2222:3333:4444:5555:6666"), 4000000000u, 4000);
    entry(4000000000u, 4000, ATC_ICMPV6_REDIRECT)->stat.count = 0x80000000u;
    const std::string text = text_of(atc_api_get_stat_brief);
    EXPECT_NE(text.find("-294967296/4000/icmpv6-redirect/NULL        -2147483648"), std::string::npos) << text;
    EXPECT_NE(text.find("-294967296/4000/icmpv6-redirect/ipv6 2001:db8:1111:2222:3333:442          "),
              std::string::npos)
        << text;
}

TEST_F(ReportsTest, AReportLongerThanItsBufferEndsAtItsLastWholeLine) {
    for (uint32_t port = 1; port <= 20000; port++) {
        rx(arp(), port, 1);
    }
    const std::string text = text_of(atc_api_get_stat_brief);
    EXPECT_LT(text.size(), 2097152u);
    EXPECT_GT(text.size(), 2097152u - 142);
    EXPECT_EQ(text.substr(text.size() - 2), "\r\n");
    EXPECT_EQ((text.size() - sizeof(FLOW_HEADER) + 1) % 141, 0u) << "whole lines";
}

TEST_F(ReportsTest, EmptyIndexesGiveTheHeaderAndNoMemoryGivesNull) {
    EXPECT_EQ(text_of(atc_api_get_stat_brief), FLOW_HEADER);
    EXPECT_EQ(text_of(atc_api_get_alarm_info), "");
    for (const Report report :
         {atc_api_get_rx_protocol_stat_brief, atc_api_get_tx_protocol_stat_brief, atc_api_get_rx_port_stat_brief,
          atc_api_get_rx_vlan_stat_brief, atc_api_get_stat_brief, atc_api_get_alarm_info}) {
        EXPECT_EQ(report(nullptr), -1);
        char unused;
        char *text = &unused;
        fake().fail(Call::alloc, 1);
        EXPECT_EQ(report(&text), -1);
        EXPECT_EQ(text, nullptr);
        fake().fail_none();
    }
    EXPECT_EQ(atc_api_free_buffer(nullptr), 0);
}

}  // namespace
