// trace_test.cpp: the packet trace, to the character.
#include "atc/trace.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "fixture.h"
#include "frames.h"

namespace {

// What an action prints on standard output.
std::string printed(const std::function<void()> &action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

class Trace : public ModuleTest {
protected:
    static constexpr atc_filter_rule_t any = {};
};

const Frame short_lldp(std::vector<uint8_t>{0x01, 0x80, 0xc2, 0x00, 0x00, 0x0e, 0x00, 0x11, 0x22, 0x33,
                                            0x44, 0x55, 0x88, 0xcc, 0x02, 0x07, 0xab, 0xff, 0x10, 0x09});

constexpr char dump[] = "01 80 c2 00 00 0e 00 11 22 33 44 55 88 cc 02 07 \r\nab ff 10 09 \r\n";
constexpr char end[] = "++++++++++++++++++++++end++++++++++++++++++++++++\r\n\n";

TEST_F(Trace, PrintsAPacketToTheCharacter) {
    atc_api_set_debug_start(&any, 2);
    EXPECT_EQ(printed([&] { EXPECT_EQ(rx(short_lldp, 3, 100), 0); }),
              std::string("\r\n++receive lldp packet from port 3 vlan 100 len 20++\r\n") + dump + end);
    EXPECT_EQ(printed([&] { EXPECT_EQ(tx(short_lldp), 0); }),
              std::string("\r\n++send lldp packet from port 0 vlan 0 len 20++\r\n") + dump + end);
    EXPECT_EQ(printed([&] { rx(short_lldp, 3, 100); }), "") << "the budget is spent";
}

TEST_F(Trace, DumpsSixtyFourBytesAtMost) {
    for (const uint32_t len : {0U, 1U, 15U, 16U, 17U, 32U, 63U, 64U, 65U, 1500U}) {
        std::vector<uint8_t> data(len);
        std::string expected;
        for (uint32_t i = 0; i < len; ++i) {
            data[i] = static_cast<uint8_t>(i * 37 + 5);
            if (i < 64) {
                char text[4];
                snprintf(text, sizeof(text), "%02x ", data[i]);
                expected += text;
                expected += i % 16 == 15 || (i + 1 == len) ? "\r\n" : "";
            }
        }
        EXPECT_EQ(printed([&] { atc_debug_out(data.data(), static_cast<int32_t>(len)); }), expected) << len;
    }
    EXPECT_EQ(printed([] { atc_debug_out(nullptr, -1); }), "");
}

TEST_F(Trace, EndsWithItsBudget) {
    struct {
        uint32_t count;
        size_t printed;  // of four packets
        uint8_t armed;   // afterwards
    } const rows[] = {{0, 0, 1}, {1, 1, 0}, {3, 3, 0}, {4, 4, 0}, {5, 4, 1}, {65536, 0, 1}, {65537, 1, 0}};
    for (const auto &row : rows) {
        EXPECT_EQ(atc_api_set_debug_start(&any, row.count), 0);
        size_t found = 0;
        for (int packet = 0; packet < 4; ++packet) {
            found += printed([&] { rx(arp()); }).empty() ? 0 : 1;
        }
        EXPECT_EQ(found, row.printed) << row.count;
        EXPECT_EQ(state()->debug_enable, row.armed) << row.count;
    }
}

TEST_F(Trace, FilterChooses) {
    atc_filter_rule_t sent = {};
    sent.direction = ATC_DIRECTION_TX;
    atc_filter_rule_t host = {};
    host.src_ipv4 = 0x0A000001;
    host.pkt_len = 4000;  // takes no part
    EXPECT_EQ(atc_api_set_debug_start(nullptr, 1), -1);
    atc_api_set_debug_start(&sent, 9);
    EXPECT_EQ(printed([&] { rx(udp()); }), "");
    atc_api_set_debug_start(&host, 9);
    EXPECT_EQ(printed([&] { rx(udp().src_ip("10.0.0.3")); }), "");
    EXPECT_NE(printed([&] { rx(udp()); }), "");
    EXPECT_EQ(atc_api_set_debug_stop(), 0);
    EXPECT_EQ(printed([&] { rx(udp()); }), "");
}

TEST(Output, CutsLongText) {
    for (const size_t len : {0U, 254U, 255U, 256U, 300U}) {
        const std::string text(len, 'x');
        EXPECT_EQ(printed([&] { EXPECT_EQ(atc_output("%s", text.c_str()), static_cast<int>(len)); }),
                  text.substr(0, 255));
    }
    EXPECT_EQ(printed([] { EXPECT_EQ(atc_output("%d%%%s", 7, "%s"), 4); }), "7%%s") << "text is no format";
}

}  // namespace
