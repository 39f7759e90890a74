// capture_test.cpp: capture files in memory: their bytes, their limits, their life.
#include "atc/capture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fixture.h"
#include "frames.h"

namespace {

using Strings = std::vector<std::string>;

// 60 bytes, so that a record of it has 76.
const Frame packet = arp().pad(60);

const Bytes file_header = {0xD4, 0xC3, 0xB2, 0xA1, 2, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0, 0, 1, 0, 0, 0};

void put_record(Bytes *file, uint32_t seconds, uint32_t microseconds, const Frame &frame) {
    for (const uint32_t value : {seconds, microseconds, frame.size(), frame.size()}) {
        for (int shift = 0; shift < 32; shift += 8) {
            file->push_back(static_cast<uint8_t>(value >> shift));
        }
    }
    file->insert(file->end(), frame.data(), frame.data() + frame.size());
}

class Capture : public ModuleTest {
protected:
    static constexpr atc_filter_rule_t any = {};

    // A flow's file as the host gets it, or that of the manual capture; empty when there is none.
    static Bytes file(uint32_t port = 0, uint32_t vlan = 0, uint32_t protocol = 0) {
        void *data = nullptr;
        uint32_t len = 0;
        const uint32_t direction = protocol == 0 ? 0 : ATC_DIRECTION_RX;
        atc_api_get_port_capture(direction, vlan, port, protocol, 0, nullptr, &data, &len);
        const auto *bytes = static_cast<const uint8_t *>(data);
        Bytes copy(bytes, bytes + len);
        atc_api_free_buffer(data);
        return copy;
    }

    // Limits of one packet a second over periods of ten seconds, so that the eleventh packet is too many.
    static void limit(uint32_t protocol) {
        atc_api_set_fast_period_time(10);
        for (auto *set : {atc_api_set_protocol_fp_limit, atc_api_set_protocol_src_fp_limit,
                          atc_api_set_protocol_cap_enable, atc_api_set_protocol_src_cap_enable}) {
            set(protocol, 1);
        }
    }
};

TEST_F(Capture, ManualFileToTheByte) {
    fake().set_realtime(1630554380);
    atc_filter_rule_t port_1 = {};
    port_1.port = 1;
    port_1.pkt_len = 4000;  // takes no part
    EXPECT_EQ(atc_api_set_cap_start(&port_1, 3), 0);
    rx(packet, 2);
    EXPECT_EQ(file(), file_header);
    const Frame second = udp().resize(61);
    rx(packet);
    fake().advance_ns(1'000'002'999);  // nanoseconds are cut
    rx(second);

    Bytes expected = file_header;
    put_record(&expected, 1630554380, 0, packet);
    put_record(&expected, 1630554381, 2, second);
    EXPECT_EQ(file(), expected);
    expected.resize(ATC_CAPTURE_SIZE);
    const uint8_t *buffer = state()->cap_buf;
    EXPECT_EQ(Bytes(buffer, buffer + ATC_CAPTURE_SIZE), expected) << "zeros behind the last record";
}

TEST_F(Capture, ManualEndsWithItsBudget) {
    struct {
        uint32_t count;
        uint32_t recorded;  // of four packets
        uint8_t on;         // afterwards
    } const rows[] = {{0, 0, 1}, {3, 3, 0}, {4, 4, 0}, {5, 4, 1}, {65536, 4, 1}};
    for (const auto &row : rows) {
        atc_api_set_cap_clear();
        atc_api_set_cap_start(&any, row.count);
        rx_n(4, packet);
        EXPECT_EQ(state()->cap_len, 24 + row.recorded * 76) << row.count;
        EXPECT_EQ(state()->cap_enable, row.on) << row.count;
    }
}

TEST_F(Capture, ManualEndsWhenFull) {
    struct {
        uint32_t second;  // bytes of the second packet; the first has 1000
        bool fits;
    } const rows[] = {
        {101343, true},   // 102399 used
        {101344, false},  // 102400 used
        {200000, false},  // more than any buffer has
    };
    const Strings overflow = {"13 anti-cpu manual diagnose buffer is overflow "};
    for (const auto &row : rows) {
        atc_api_set_cap_clear();
        atc_api_set_cap_start(&any, 10);
        rx(arp().resize(1000));
        EXPECT_EQ(rx(arp().resize(row.second)), 0) << row.second;
        EXPECT_EQ(file().size(), 24 + 1016 + (row.fits ? 16 + row.second : 0)) << row.second;
        EXPECT_EQ(logs(), row.fits ? Strings{} : overflow) << row.second;
        rx(packet);  // none of the buffers has room for it
        EXPECT_EQ(logs(), row.fits ? overflow : Strings{}) << row.second << ": reported once";
        EXPECT_EQ(state()->cap_enable, 0) << row.second;
    }
    atc_api_set_cap_clear();
    const atc_guard_t guard;
    EXPECT_EQ(atc_capture_manual(packet.data(), 0xFFFFFFFFU - 39), 0) << "the sum does not fit in 32 bits";
    EXPECT_EQ(g_atc_global.cap_len, 24U);
}

TEST_F(Capture, ManualFileIsKeptUntilCleared) {
    atc_api_set_cap_start(&any, 1);
    rx_n(2, packet);
    EXPECT_EQ(file().size(), 24U + 76);
    atc_api_set_cap_start(&any, 5);
    rx(packet);
    EXPECT_EQ(file().size(), 24U + 2 * 76) << "a restart appends";
    atc_api_set_cap_disable();
    rx(packet);
    EXPECT_EQ(file().size(), 24U + 2 * 76) << "nothing is added";
    atc_api_set_cap_start(&any, 5);
    atc_api_set_cap_clear();
    EXPECT_EQ(atc_api_get_cap_is_exist(), 0);
    rx(packet);
    EXPECT_EQ(file().size(), 24U + 76) << "a running capture begins a new file";
    EXPECT_EQ(state()->cap_count, 4U) << "on what is left of its budget";
}

TEST_F(Capture, AutomaticFileOfAFlow) {
    limit(ATC_ARP);
    rx_n(11, packet, 3, 100);
    EXPECT_EQ(file(3, 100, ATC_ARP), Bytes{}) << "not before the period ends";
    fake().set_realtime(1630554380);
    pass_seconds(10);
    EXPECT_EQ(file(3, 100, ATC_ARP), file_header);
    rx(packet, 3, 100);
    Bytes expected = file_header;
    put_record(&expected, 1630554390, 0, packet);
    EXPECT_EQ(file(3, 100, ATC_ARP), expected);

    pass_seconds(10);  // one packet in this period: restored
    rx_n(11, packet, 3, 100);
    pass_seconds(10);
    rx(packet, 3, 100);
    EXPECT_EQ(file(3, 100, ATC_ARP), expected) << "kept; no new start while the buffer is held";
    atc_api_set_auto_cap_clear();
    rx_n(10, packet, 3, 100);
    pass_seconds(10);
    EXPECT_EQ(file(3, 100, ATC_ARP), file_header) << "a new file";
}

// Full buffers of a flow and of its source, without an upload: the log lines, and the files stay.
TEST_F(Capture, AutomaticEndsWhenFull) {
    limit(ATC_UNKNOWN_UDP);
    rx_n(30, udp6(), 7, 9);
    pass_seconds(10);
    alarms();
    rx_n(2, udp6().resize(51171), 7, 9);  // 24 + 2 x 51187 = 102398
    EXPECT_EQ(alarms(), Strings{});
    rx_n(2, udp6(), 7, 9);
    const std::string flow = "anti-cpu port 7 vlan 9 protocol unknown-udp";
    EXPECT_EQ(alarms(), (Strings{flow + " diagnose buffer is overflow",
                                 flow + " src ipv6 2001:db8::1 diagnose buffer is overflow"}));
    EXPECT_EQ(file(7, 9, ATC_UNKNOWN_UDP).size(), 102398U);
    EXPECT_EQ(fake().queued(), 0U);
}

}  // namespace
