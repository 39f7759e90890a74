// The packet trace, to the character.
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

size_t occurrences(const std::string &text, const std::string &part) {
    size_t found = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++found;
    }
    return found;
}

class Trace : public ModuleTest {};

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
    const atc_filter_rule_t any = {};
    for (const auto &row : rows) {
        EXPECT_EQ(atc_api_set_debug_start(&any, row.count), 0);
        const std::string text = printed([&] { rx(arp()), tx(lldp()), rx(udp()), rx(arp()); });
        EXPECT_EQ(occurrences(text, " packet from port "), row.printed) << row.count;
        EXPECT_EQ(occurrences(text, end), row.printed) << row.count;
        EXPECT_EQ(state()->debug_enable, row.armed) << row.count;
    }
}

TEST_F(Trace, FilterChooses) {
    atc_filter_rule_t sent = {};
    sent.direction = ATC_DIRECTION_TX;
    atc_filter_rule_t host = {};
    host.src_ipv4 = 0x0A000001;
    host.pkt_len = 4000;  // takes no part
    atc_filter_rule_t long_mask = host;
    long_mask.src_ipv4_masklen = 33;
    struct {
        const char *name;
        const atc_filter_rule_t &filter;
        Frame frame;
        bool matches;
    } const rows[] = {
        {"sent only", sent, udp(), false},
        {"its address, whatever the length", host, udp(), true},
        {"another address", host, udp().src_ip("10.0.0.3"), false},
        {"a mask longer than the address", long_mask, udp(), false},
    };
    EXPECT_EQ(atc_api_set_debug_start(nullptr, 1), -1);
    for (const auto &row : rows) {
        atc_api_set_debug_start(&row.filter, 1);
        EXPECT_EQ(!printed([&] { rx(row.frame); }).empty(), row.matches) << row.name;
    }
}

TEST_F(Trace, StopsAtOnce) {
    const atc_filter_rule_t any = {};
    atc_api_set_debug_start(&any, 10);
    EXPECT_EQ(atc_api_set_debug_stop(), 0);
    EXPECT_EQ(printed([&] { rx(arp()); }), "");
    atc_filter_rule_t none = {};
    none.aux_match = 1;
    atc_api_set_debug_start(&none, 10);
    EXPECT_EQ(printed([&] { rx(arp()); }), "") << "no packet carries it";
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
