// SPDX-License-Identifier: Apache-2.0
// Traces to the character, and capture files in memory: their bytes, their limits.
#include "atc/capture.h"

#include "atc/trace.h"
#include "fixture.h"
#include "frames.h"

namespace {

using Capture = ModuleTest;
using Trace = ModuleTest;

constexpr atc_filter_rule_t any = {};

TEST_F(Trace, DumpsSixtyFourBytesAtMost) {
    const std::string line = "05 05 05 05 05 05 05 05 05 05 05 05 05 05 05 05 \r\n";
    const std::string part = line.substr(0, 45) + "\r\n";
    const std::string full = line + line + line + line;
    const std::pair<int32_t, std::string> rows[] = {
        {-1, ""}, {1, "05 \r\n"}, {15, part}, {16, line}, {17, line + "05 \r\n"}, {64, full}, {65, full}};
    const Bytes data(64, 5);
    for (const auto &[len, expected] : rows) {
        EXPECT_EQ(printed([&, size = len] { atc_debug_out(data.data(), size); }), expected) << len;
    }
    for (const size_t len : {0U, 255U, 256U}) {
        const std::string text(len, '%');
        EXPECT_EQ(printed([&] { EXPECT_EQ(atc_output("%s", text.c_str()), static_cast<int>(len)); }),
                  text.substr(0, 255));
    }
}

TEST_F(Trace, PrintsWithinItsBudgetWhatItsFilterChooses) {
    atc_filter_rule_t host = {};
    host.src_ipv4 = 0x0A000001;
    host.pkt_len = 4000;  // takes no part
    const std::string packet = "\r\n++receive unknown-udp packet from port 3 vlan 100 len 42++\r\n";
    for (const auto &[count, shown, armed] :
         {std::array{0U, 0U, 1U}, {3U, 3U, 0U}, {4U, 4U, 0U}, {5U, 4U, 1U}, {65537U, 1U, 0U}}) {
        EXPECT_EQ(atc_api_set_debug_start(&host, count), 0);
        uint32_t found = 0;
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(printed([&] { rx(udp().src_ip("10.0.0.3")); }), "");
            found += printed([&] { rx(udp().resize(42), 3, 100); }).starts_with(packet) ? 1 : 0;
        }
        EXPECT_EQ(found, shown) << count;
        EXPECT_EQ(state()->debug_enable, armed) << count;
    }
}

TEST_F(Capture, ManualFileToTheByte) {
    Bytes expected = {0xD4, 0xC3, 0xB2, 0xA1, 2, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0, 0, 1, 0, 0, 0};
    const auto record = [&expected](uint32_t seconds, uint32_t microseconds, const Frame &frame) {
        for (const uint32_t value : {seconds, microseconds, frame.size(), frame.size()}) {
            expected.insert(expected.end(), {low(value), high(value), low(value >> 16), low(value >> 24)});
        }
        expected.insert(expected.end(), frame.data(), frame.data() + frame.size());
    };
    atc_filter_rule_t port_1 = {};
    port_1.port = 1;
    port_1.pkt_len = 4000;  // takes no part
    EXPECT_EQ(atc_api_set_cap_start(&port_1, 3), 0);
    rx(arp(), 2);
    EXPECT_EQ(state()->cap_len, 24U);
    rx(arp());
    fake().advance_ns(1'000'002'999);  // nanoseconds are cut
    rx(udp());
    record(1630554380, 0, arp());
    record(1630554381, 2, udp());
    EXPECT_EQ(state()->cap_len, expected.size());
    expected.resize(ATC_CAPTURE_SIZE);
    const uint8_t *buffer = state()->cap_buf;
    EXPECT_EQ(Bytes(buffer, buffer + ATC_CAPTURE_SIZE), expected) << "zeros behind the last record";
}

TEST_F(Capture, ManualEndsWhenFull) {
    const Lines overflow = {"13 anti-cpu manual diagnose buffer is overflow "};
    const std::pair<uint32_t, bool> rows[] = {
        // The second packet; the first has 1000 bytes.
        {101343, true},   // 102399 used
        {101344, false},  // 102400 used
        {200000, false},  // more than any buffer has
    };
    for (const auto &[size, fits] : rows) {
        atc_api_set_cap_clear();
        atc_api_set_cap_start(&any, 10);
        rx(arp().resize(1000));
        EXPECT_EQ(rx(arp().resize(size)), 0) << size;
        EXPECT_EQ(state()->cap_len, 24 + 1016 + (fits ? 16 + size : 0)) << size;
        EXPECT_EQ(alarms(), fits ? Lines{} : overflow) << size;
        rx(arp());  // none of the buffers has room for it
        EXPECT_EQ(alarms(), fits ? overflow : Lines{}) << size << ": reported once";
        EXPECT_EQ(state()->cap_enable, 0) << size;
    }
    atc_api_set_cap_clear();
    EXPECT_EQ(atc_capture_manual(arp().data(), 0xFFFFFFFFU - 39), 0) << "the sum does not fit in 32 bits";
    EXPECT_EQ(state()->cap_len, 24U);
}

// Without memory for the manual capture a packet ends there; an automatic one begins with a later period.
TEST_F(Capture, FailuresLeaveNothingBehind) {
    sweep({Call::alloc}, [this] {
        set(ATC_ARP, 1, {atc_api_set_protocol_fp_limit, atc_api_set_protocol_cap_enable});
        EXPECT_EQ(atc_api_set_cap_start(&any, 5), 0);
        bool all = true;
        for (uint32_t n = 0; n < 2; ++n) {
            const uint32_t counted = state()->rx_stat.count;
            const int verdict = rx(arp());
            all = (verdict == 0) && all;
            EXPECT_EQ(state()->cap_buf == nullptr, state()->rx_stat.count == counted) << verdict;
            EXPECT_TRUE(state()->cap_buf != nullptr || verdict == -1);
        }
        const bool recorded = state()->cap_count == 3;
        rx_n(20, arp());
        pass_seconds(10);
        const atc_entry_t *flow = entry(1, 1, ATC_ARP);
        return flow != nullptr && flow->stat.fp_alarm == 1 && flow->stat.cap_on == 1 && recorded && all;
    });
}

}  // namespace
