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

using Trace = ModuleTest;

const Frame short_lldp(std::vector<uint8_t>{0x01, 0x80, 0xc2, 0x00, 0x00, 0x0e, 0x00, 0x11, 0x22, 0x33,
                                            0x44, 0x55, 0x88, 0xcc, 0x02, 0x07, 0xab, 0xff, 0x10, 0x09});

constexpr char dump[] = "01 80 c2 00 00 0e 00 11 22 33 44 55 88 cc 02 07 \r\nab ff 10 09 \r\n";
constexpr char end[] = "++++++++++++++++++++++end++++++++++++++++++++++++\r\n\n";

TEST_F(Trace, PrintsAPacketToTheCharacter) {
    const atc_filter_rule_t any = {};
    atc_api_set_debug_start(&any, 2);
    EXPECT_EQ(printed([&] { EXPECT_EQ(rx(short_lldp, 3, 100), 0); }),
              std::string("\r\n++receive lldp packet from port 3 vlan 100 len 20++\r\n") + dump + end);
    EXPECT_EQ(printed([&] { EXPECT_EQ(tx(short_lldp), 0); }),
              std::string("\r\n++send lldp packet from port 0 vlan 0 len 20++\r\n") + dump + end);
}

TEST_F(Trace, DumpsSixtyFourBytesAtMost) {
    const std::string line = "05 05 05 05 05 05 05 05 05 05 05 05 05 05 05 05 \r\n";
    const std::string part = line.substr(0, 45) + "\r\n";
    const std::string full = line + line + line + line;
    const std::pair<int32_t, std::string> rows[] = {
        {-1, ""}, {1, "05 \r\n"}, {15, part}, {16, line}, {17, line + "05 \r\n"}, {64, full}, {65, full}};
    const std::vector<uint8_t> data(64, 5);
    for (const auto &[len, expected] : rows) {
        EXPECT_EQ(printed([&] { atc_debug_out(data.data(), len); }), expected) << len;
    }
}

TEST_F(Trace, EndsWithItsBudgetAndChoosesByItsFilter) {
    atc_filter_rule_t host = {};
    host.src_ipv4 = 0x0A000001;
    host.pkt_len = 4000;  // takes no part
    struct {
        uint32_t count;
        size_t printed;  // of four packets of the host
        uint8_t armed;   // afterwards
    } const rows[] = {{0, 0, 1}, {3, 3, 0}, {4, 4, 0}, {5, 4, 1}, {65537, 1, 0}};
    for (const auto &row : rows) {
        EXPECT_EQ(atc_api_set_debug_start(&host, row.count), 0);
        size_t found = 0;
        for (int packet = 0; packet < 4; ++packet) {
            EXPECT_EQ(printed([&] { rx(udp().src_ip("10.0.0.3")); }), "");
            found += printed([&] { rx(udp()); }).empty() ? 0 : 1;
        }
        EXPECT_EQ(found, row.printed) << row.count;
        EXPECT_EQ(state()->debug_enable, row.armed) << row.count;
    }
}

TEST(Output, CutsLongText) {
    for (const size_t len : {254U, 255U, 256U}) {
        const std::string text(len, '%');
        EXPECT_EQ(printed([&] { EXPECT_EQ(atc_output("%s", text.c_str()), static_cast<int>(len)); }),
                  text.substr(0, 255));
    }
}

}  // namespace
