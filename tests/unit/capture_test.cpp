// capture_test.cpp: capture files in memory: their bytes, their limits, their life.
#include "atc/capture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
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
        if (atc_api_get_port_capture(direction, vlan, port, protocol, 0, nullptr, &data, &len) != 0) {
            return {};
        }
        const auto *bytes = static_cast<const uint8_t *>(data);
        Bytes copy(bytes, bytes + len);
        atc_api_free_buffer(data);
        return copy;
    }

    // Limits of one packet a second over periods of ten seconds, so that the eleventh packet is too many.
    static void limit(uint32_t protocol) {
        atc_api_set_fast_period_time(10);
        atc_api_set_protocol_fp_limit(protocol, 1);
        atc_api_set_protocol_src_fp_limit(protocol, 1);
    }
};

// ---- Manual

TEST_F(Capture, ManualFileToTheByte) {
    fake().set_realtime(1630554380);
    EXPECT_EQ(atc_api_set_cap_start(&any, 3), 0);
    EXPECT_EQ(file(), file_header);
    const Frame second = udp().resize(61);
    rx(packet);
    fake().advance_ns(1'000'002'999);  // nanoseconds are cut
    tx(second);

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
    } const rows[] = {{0, 0, 1}, {1, 1, 0}, {3, 3, 0}, {4, 4, 0}, {5, 4, 1}, {65536, 4, 1}};
    for (const auto &row : rows) {
        atc_api_set_cap_clear();
        atc_api_set_cap_start(&any, row.count);
        rx_n(4, packet);
        EXPECT_EQ(state()->cap_len, 24 + row.recorded * 76) << row.count;
        EXPECT_EQ(state()->cap_enable, row.on) << row.count;
    }
    EXPECT_EQ(logs(), Strings{});
}

TEST_F(Capture, ManualEndsWhenFull) {
    struct {
        uint32_t second;  // bytes of the second packet; the first has 1000
        bool fits;
    } const rows[] = {
        {101342, true},   // 102398 used
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
        EXPECT_EQ(state()->cap_count, row.fits ? 8U : 0U) << row.second;
        EXPECT_EQ(logs(), row.fits ? Strings{} : overflow) << row.second;
        rx(packet);  // none of the buffers has room for it
        EXPECT_EQ(logs(), row.fits ? overflow : Strings{}) << row.second << ": reported once";
        EXPECT_EQ(state()->cap_enable, 0) << row.second;
    }
    // Lengths whose sum with the header does not fit in 32 bits.
    for (const uint32_t len : {0xFFFFFFFFU, 0xFFFFFFFFU - 15, 0xFFFFFFFFU - 16, 0xFFFFFFFFU - 39, 0xFFFFFFFFU - 40}) {
        atc_api_set_cap_clear();
        atc_api_set_cap_start(&any, 1);
        const atc_guard_t guard;
        EXPECT_EQ(atc_capture_manual(packet.data(), len), 0);
        EXPECT_EQ(g_atc_global.cap_len, 24U) << len;
        EXPECT_EQ(g_atc_global.cap_enable, 0) << len;
    }
}

TEST_F(Capture, ManualLife) {
    EXPECT_EQ(atc_api_set_cap_start(nullptr, 1), -1);
    EXPECT_EQ(atc_api_get_cap_is_exist(), 0);
    fake().fail(Call::alloc, 1, true);
    EXPECT_EQ(atc_api_set_cap_start(&any, 1), 0);
    EXPECT_EQ(atc_api_get_cap_is_exist(), 0);
    EXPECT_EQ(rx(packet), -1) << "no memory for the buffer";
    EXPECT_EQ(state()->rx_stat.count, 0U) << "neither counted nor filtered";
    fake().fail_none();
    rx_n(2, packet);
    EXPECT_EQ(atc_api_get_cap_is_exist(), 1);
    EXPECT_EQ(file().size(), 24U + 76);
    atc_api_set_cap_start(&any, 5);
    rx(packet);
    EXPECT_EQ(file().size(), 24U + 2 * 76) << "a restart appends";
    EXPECT_EQ(atc_api_set_cap_disable(), 0);
    rx(packet);
    EXPECT_EQ(file().size(), 24U + 2 * 76) << "the file is kept, nothing is added";
    atc_api_set_cap_start(&any, 5);
    EXPECT_EQ(atc_api_set_cap_clear(), 0);
    EXPECT_EQ(atc_api_get_cap_is_exist(), 0);
    EXPECT_EQ(state()->cap_len, 0U);
    rx(packet);
    EXPECT_EQ(file().size(), 24U + 76) << "a running capture begins a new file";
    EXPECT_EQ(state()->cap_count, 4U) << "on what is left of its budget";
}

TEST_F(Capture, ManualFilterChooses) {
    atc_filter_rule_t host = {};
    host.src_ipv4 = 0x0A000001;
    host.pkt_len = 4000;  // takes no part
    atc_api_set_cap_start(&host, 10);
    rx(udp().src_ip("10.0.0.3"));
    EXPECT_EQ(file(), file_header);
    rx(udp().resize(60));
    EXPECT_EQ(file().size(), 24U + 76);
}

// The host asks for the file while another thread records, clears and starts anew.
TEST_F(Capture, ManualBesidePackets) {
    std::atomic<bool> done{false};
    std::thread recorder([&] {
        for (int round = 0; round < 200; ++round) {
            atc_api_set_cap_start(&any, 3);
            rx_n(4, packet);
            atc_api_set_cap_clear();
        }
        done = true;
    });
    do {
        const int exists = atc_api_get_cap_is_exist();
        EXPECT_TRUE(exists == 0 || exists == 1);
        const Bytes seen = file();
        EXPECT_TRUE(seen.empty() || (seen.size() - 24) % 76 == 0) << seen.size();
    } while (!done);
    recorder.join();
    EXPECT_EQ(atc_api_get_cap_is_exist(), 0);
}

// ---- Automatic

TEST_F(Capture, AutomaticFileOfAFlow) {
    limit(ATC_ARP);
    atc_api_set_protocol_cap_enable(ATC_ARP, 1);
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
    rx(packet, 3, 100);
    EXPECT_EQ(file(3, 100, ATC_ARP), expected) << "kept, and nothing added";
    rx_n(11, packet, 3, 100);
    pass_seconds(10);
    rx(packet, 3, 100);
    EXPECT_EQ(file(3, 100, ATC_ARP), expected) << "no new start while the buffer is held";
    atc_api_set_auto_cap_clear();
    rx_n(10, packet, 3, 100);
    pass_seconds(10);
    EXPECT_EQ(file(3, 100, ATC_ARP), file_header) << "a new file";
}

TEST_F(Capture, TenAutomaticBuffersAtATime) {
    limit(ATC_ARP);
    atc_api_set_protocol_cap_enable(ATC_ARP, 1);
    for (uint32_t port = 1; port <= 11; ++port) {
        rx_n(11, packet, port);
    }
    pass_seconds(10);
    for (uint32_t port = 1; port <= 11; ++port) {
        EXPECT_EQ(file(port, 1, ATC_ARP).empty(), port == 11) << port;
    }
    EXPECT_EQ(atc_api_clear_statistic(ATC_DIRECTION_RX, 1, 4, ATC_ARP, 0, nullptr), 0);
    rx_n(11, packet, 11);
    pass_seconds(10);
    EXPECT_EQ(file(11, 1, ATC_ARP), file_header) << "in the place of the one that was cleared";
    EXPECT_EQ(state()->protocol_cap_cnt, 10U);
}

// Full buffers of flows and of their sources, without an upload: the log line, and the file stays.
TEST_F(Capture, AutomaticEndsWhenFull) {
    const uint8_t mac[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    const uint32_t ipv4[4] = {0x0A000001};
    const uint8_t ipv6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    struct {
        const char *expected;
        Frame frame;
        uint32_t protocol;
        uint32_t src_type;
        const void *address;
    } const rows[] = {
        {"port 7 vlan 9 protocol arp diagnose", arp(), ATC_ARP, ATC_SRC_NONE, nullptr},
        {"port 7 vlan 9 protocol arp src mac 00:11:22:33:44:55 diagnose", arp(), ATC_ARP, ATC_SRC_MAC, mac},
        {"port 7 vlan 9 protocol unknown-udp src ip 10.0.0.1 diagnose", udp(), ATC_UNKNOWN_UDP, ATC_SRC_IPV4, ipv4},
        {"port 7 vlan 9 protocol unknown-udp src ipv6 2001:db8::1 diagnose", udp6(), ATC_UNKNOWN_UDP, ATC_SRC_IPV6,
         ipv6},
    };
    for (const auto &row : rows) {
        clear();
        limit(row.protocol);
        atc_api_set_protocol_cap_enable(row.protocol, row.src_type == ATC_SRC_NONE);
        atc_api_set_protocol_src_cap_enable(row.protocol, row.src_type != ATC_SRC_NONE);
        rx_n(30, row.frame, 7, 9);
        pass_seconds(10);
        alarms();

        Frame large = row.frame;
        rx_n(2, large.resize(51171), 7, 9);  // 24 + 2 x 51187 = 102398
        const atc_stat_t &stat = row.src_type == ATC_SRC_NONE
                                     ? entry(7, 9, row.protocol)->stat
                                     : source(7, 9, row.protocol, row.src_type, row.address)->stat;
        EXPECT_EQ(stat.cap_len, 102398U) << row.expected;
        EXPECT_EQ(stat.cap_on, 1) << row.expected;
        EXPECT_EQ(alarms(), Strings{}) << row.expected;
        rx_n(2, row.frame, 7, 9);
        EXPECT_EQ(alarms(), (Strings{std::string("anti-cpu ") + row.expected + " buffer is overflow"}));
        EXPECT_EQ(stat.cap_len, 102398U) << row.expected;
        EXPECT_EQ(stat.cap_on, 0) << row.expected;
        EXPECT_EQ(state()->protocol_cap_cnt, 1U) << row.expected;
        EXPECT_EQ(fake().queued(), 0U) << row.expected;
        EXPECT_EQ(atc_api_set_auto_cap_clear(), 0);
        EXPECT_EQ(state()->protocol_cap_cnt, 0U) << row.expected;
    }
}

TEST_F(Capture, WithoutMemory) {
    limit(ATC_ARP);
    atc_api_set_protocol_cap_enable(ATC_ARP, 1);
    atc_api_set_protocol_src_cap_enable(ATC_ARP, 1);
    sweep(Call::alloc, [this] {
        atc_api_set_cap_start(&any, 1);
        rx_n(30, packet);
        pass_seconds(10);
        const size_t captured = file().size() + file(1, 1, ATC_ARP).size() + state()->protocol_cap_cnt;
        return captured == 24 + 76 + 24 + 2;
    });
}

}  // namespace
