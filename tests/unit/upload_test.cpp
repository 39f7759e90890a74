// upload_test.cpp: capture files on their way out: their names, copies for the host, uploads on demand and by the task.
#include "atc/upload.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "fixture.h"
#include "frames.h"

namespace {

using Strings = std::vector<std::string>;
using Name = atc_capture_name_t;

// 60 bytes, so that a record of it has 76.
const Frame packet = arp().pad(60);
constexpr size_t FULL = 24 + 2 * 50016;  // bytes of a file of two packets, in which a third has no room

const uint8_t sender_mac[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const uint32_t sender_ipv4[4] = {0x0A000001};  // processor byte order
const uint8_t sender_ipv6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

constexpr Name manual = {0, 0, 0, 0, ATC_SRC_NONE, nullptr};
constexpr Name arp_flow = {ATC_DIRECTION_RX, 9, 7, ATC_ARP, ATC_SRC_NONE, nullptr};
constexpr Name arp_source = {ATC_DIRECTION_RX, 9, 7, ATC_ARP, ATC_SRC_MAC, sender_mac};

class UploadTest : public ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        atc_api_set_upload_server_ip(0xC0000201);
        atc_api_set_upload_ftp_type(2);
        atc_api_set_upload_server_user("card");
        atc_api_set_upload_server_passwd("pw");
        atc_api_set_upload_server_enable(1);
        atc_api_set_fast_period_time(10);
    }

    static int upload(const Name &n) {
        return atc_api_capture_upload(n.direction, n.vlan, n.port, n.protocol, n.src_type, n.src_addr, "192.0.2.1:2121",
                                      "user", "secret", 3);
    }

    static Bytes copy(const Name &n) {
        void *data = nullptr;
        uint32_t len = 0;
        if (atc_api_get_port_capture(n.direction, n.vlan, n.port, n.protocol, n.src_type, n.src_addr, &data, &len) !=
            0) {
            EXPECT_EQ(data, nullptr);
            return {};
        }
        const auto *bytes = static_cast<const uint8_t *>(data);
        Bytes file(bytes, bytes + len);
        atc_api_free_buffer(data);
        return file;
    }

    static void capture_manually() {
        const atc_filter_rule_t any = {};
        atc_api_set_cap_start(&any, 2);
    }

    // The flow of 'frame' on port 7, VLAN 9, and its source, are over their limits; both record.
    void capture_automatically(uint32_t protocol = ATC_ARP, const Frame &frame = packet) {
        atc_api_set_protocol_fp_limit(protocol, 1);
        atc_api_set_protocol_src_fp_limit(protocol, 1);
        atc_api_set_protocol_cap_enable(protocol, 1);
        atc_api_set_protocol_src_cap_enable(protocol, 1);
        rx_n(30, frame, 7, 9);
        pass_seconds(10);
        alarms();
    }

    // Then both buffers are full at the same packet, and the automatic uploads are posted.
    void fill(Frame frame = packet) { rx_n(3, frame.resize(50000), 7, 9); }
};

TEST(CaptureFileName, Table) {
    struct {
        Name name;
        const char *expected;
    } const rows[] = {
        {{0, 0, 0, 0, ATC_SRC_MAC, sender_mac}, "atc-manual.cap"},
        {{1, 100, 5, ATC_LLDP, ATC_SRC_NONE, nullptr}, "atc-rx-5-100-lldp.cap"},
        {{2, 0, 0, ATC_ARP, ATC_SRC_NONE, nullptr}, "atc-tx-0-0-arp.cap"},
        {{3, 4094, 6, ATC_UNKNOWN_IP_FRAGMENT, ATC_SRC_NONE, nullptr}, "atc-tx-6-4094-unknown-ip-fragment.cap"},
        {{0, 5, 0, 0, ATC_SRC_NONE, nullptr}, "atc-tx-0-5-unknown-packet.cap"},
        {arp_source, "atc-rx-7-9-arp-(00-11-22-33-44-55).cap"},
        {{1, 9, 7, ATC_DNS, ATC_SRC_IPV4, reinterpret_cast<const uint8_t *>(sender_ipv4)},
         "atc-rx-7-9-dns-(10.0.0.1).cap"},
        {{1, 9, 7, ATC_DNS, ATC_SRC_IPV6, sender_ipv6}, "atc-rx-7-9-dns-(2001:db8::1).cap"},
        {{1, 9, 7, ATC_DNS, 4, sender_ipv6}, ""},
    };
    for (const auto &row : rows) {
        char text[ATC_FILE_NAME_SIZE] = "left over";
        atc_capture_file_name(&row.name, text, sizeof(text));
        EXPECT_STREQ(text, row.expected);
    }
}

// ---- On demand

TEST_F(UploadTest, HandsEverythingToTheTransfer) {
    capture_manually();
    capture_automatically();
    rx(packet, 7, 9);
    struct {
        Name name;
        const char *file_name;
        uint32_t size;
    } const rows[] = {
        {manual, "atc-manual.cap", 24 + 2 * 76},
        {{1, 5, 0, 0, 0, nullptr}, "atc-rx-0-5-unknown-packet.cap", 24 + 2 * 76},  // port and protocol 0: manual
        {arp_flow, "atc-rx-7-9-arp.cap", 24 + 76},
        {arp_source, "atc-rx-7-9-arp-(00-11-22-33-44-55).cap", 24 + 76},
    };
    for (const auto &row : rows) {
        const size_t blocks = fake().live_blocks();
        ASSERT_EQ(upload(row.name), 0) << row.file_name;
        const Upload &sent = fake().uploads.back();
        EXPECT_EQ((Strings{sent.server, sent.user, sent.passwd, sent.file_name}),
                  (Strings{"192.0.2.1:2121", "user", "secret", row.file_name}));
        EXPECT_EQ(sent.ftp_type, 3U);
        EXPECT_EQ(sent.data.size(), row.size) << row.file_name;
        EXPECT_EQ(sent.data, copy(row.name)) << "the capture stays as it was, and the host's copy is the same file";
        EXPECT_EQ(fake().live_blocks(), blocks);
    }
}

TEST_F(UploadTest, NothingThere) {
    capture_automatically();
    rx(lldp(), 7, 9);
    for (const Name &name : {manual, Name{ATC_DIRECTION_RX, 9, 7, ATC_LLDP, ATC_SRC_NONE, nullptr},
                             Name{ATC_DIRECTION_RX, 7, 9, ATC_ARP, ATC_SRC_NONE, nullptr},
                             Name{ATC_DIRECTION_TX, 9, 7, ATC_ARP, ATC_SRC_NONE, nullptr},
                             Name{ATC_DIRECTION_RX, 9, 7, ATC_LLDP, ATC_SRC_MAC, sender_mac},
                             Name{ATC_DIRECTION_RX, 9, 7, ATC_ARP, 4, sender_mac}}) {
        EXPECT_EQ(upload(name), 2);
        EXPECT_EQ(copy(name), Bytes{});
    }
    // Without an address there is no knowing whose it is.
    EXPECT_EQ(upload({ATC_DIRECTION_RX, 9, 7, ATC_ARP, ATC_SRC_MAC, nullptr}), -1);
    EXPECT_EQ(copy({ATC_DIRECTION_RX, 9, 7, ATC_ARP, ATC_SRC_MAC, nullptr}), Bytes{});
    EXPECT_TRUE(fake().uploads.empty());
}

TEST_F(UploadTest, OnDemandFails) {
    capture_manually();
    void *data = &data;
    uint32_t len = 0;
    EXPECT_EQ(atc_api_capture_upload(0, 0, 0, 0, 0, nullptr, nullptr, "u", "p", 0), -1);
    EXPECT_EQ(atc_api_capture_upload(0, 0, 0, 0, 0, nullptr, "s", nullptr, "p", 0), -1);
    EXPECT_EQ(atc_api_capture_upload(0, 0, 0, 0, 0, nullptr, "s", "u", nullptr, 0), -1);
    EXPECT_EQ(atc_api_get_port_capture(0, 0, 0, 0, 0, nullptr, nullptr, &len), -1);
    EXPECT_EQ(atc_api_get_port_capture(0, 0, 0, 0, 0, nullptr, &data, nullptr), -1);
    EXPECT_EQ(data, &data);
    fake().fail(Call::alloc, 1);
    EXPECT_EQ(atc_api_get_port_capture(0, 0, 0, 0, 0, nullptr, &data, &len), -1);
    EXPECT_EQ(data, nullptr);
    fake().fail(Call::alloc, 1);
    EXPECT_EQ(upload(manual), -1) << "no memory for the copy";
    EXPECT_TRUE(fake().uploads.empty());
    fake().upload_result = 5;
    EXPECT_EQ(upload(manual), -1);
}

TEST_F(UploadTest, TransfersACopyThatLaterPacketsDoNotChange) {
    capture_manually();
    fake().on_upload = [this] { rx(packet); };
    ASSERT_EQ(upload(manual), 0);
    EXPECT_EQ(fake().uploads.at(0).data.size(), 24U);
    EXPECT_EQ(copy(manual).size(), 24U + 76);
}

TEST_F(UploadTest, SettingsKeepThirtyOneCharactersAndSixteenBits) {
    const std::string text = "0123456789abcdefghijklmnopqrstuvwxyzABCD";
    for (const size_t len : {40U, 32U, 31U, 30U, 0U}) {  // shorter ones over longer ones
        char expected[32] = {};
        text.copy(expected, std::min<size_t>(len, 31));
        EXPECT_EQ(atc_api_set_upload_server_user(text.substr(0, len).c_str()), 0);
        EXPECT_EQ(atc_api_set_upload_server_passwd(text.substr(0, len).c_str()), 0);
        EXPECT_EQ(std::memcmp(state()->server_user, expected, sizeof(expected)), 0) << len;
        EXPECT_EQ(std::memcmp(state()->server_passwd, expected, sizeof(expected)), 0) << len;
    }
    EXPECT_EQ(atc_api_set_upload_server_user(nullptr), -1);
    EXPECT_EQ(atc_api_set_upload_server_passwd(nullptr), -1);
    atc_api_set_upload_server_enable(65537);
    EXPECT_EQ(state()->upload_enable, 1);
}

// ---- By the monitor task

TEST_F(UploadTest, FullCapturesReachTheServer) {
    struct {
        uint32_t protocol;
        Frame frame;
        const char *flow_file;
        const char *source_file;
    } const rows[] = {
        {ATC_ARP, arp(), "atc-rx-7-9-arp.cap", "atc-rx-7-9-arp-(00-11-22-33-44-55).cap"},
        {ATC_UNKNOWN_UDP, udp(), "atc-rx-7-9-unknown-udp.cap", "atc-rx-7-9-unknown-udp-(10.0.0.1).cap"},
        {ATC_UNKNOWN_UDP, udp6(), "atc-rx-7-9-unknown-udp.cap", "atc-rx-7-9-unknown-udp-(2001:db8::1).cap"},
    };
    for (const auto &row : rows) {
        clear();
        fake().uploads.clear();
        capture_automatically(row.protocol, row.frame);
        const size_t blocks = fake().live_blocks();
        fill(row.frame);
        EXPECT_EQ(fake().live_blocks(), blocks + 2);
        const Bytes file = copy({ATC_DIRECTION_RX, 9, 7, row.protocol, ATC_SRC_NONE, nullptr});
        EXPECT_EQ(file.size(), FULL);
        atc_api_set_auto_cap_clear();  // the messages have copies of their own
        run_messages();
        ASSERT_EQ(fake().uploads.size(), 2U);
        for (const Upload &sent : fake().uploads) {
            const char *file_name = &sent == &fake().uploads[0] ? row.flow_file : row.source_file;
            EXPECT_EQ((Strings{sent.server, sent.user, sent.passwd, sent.file_name}),
                      (Strings{"192.0.2.1", "card", "pw", file_name}));
            EXPECT_EQ(sent.ftp_type, 2U);
            EXPECT_EQ(sent.data, file);
        }
        EXPECT_EQ(fake().live_blocks(), blocks - 2) << "messages and captures are gone";
    }
}

TEST_F(UploadTest, NothingIsSentUnlessEnabled) {
    for (const uint32_t enable : {0U, 2U, 65536U}) {
        clear();
        atc_api_set_upload_server_enable(enable);
        capture_automatically();
        fill();
        EXPECT_EQ(fake().queued(), 0U) << enable;
        EXPECT_EQ(alarms().size(), 2U) << enable;
        clear();
        atc_api_set_upload_server_enable(1);
        capture_automatically();
        fill();
        alarms();
        atc_api_set_upload_server_enable(enable);  // before the task comes to it
        run_messages();
        EXPECT_TRUE(fake().uploads.empty());
        EXPECT_EQ(alarms(), Strings{});
    }
}

// What the queue or the allocator refuses is lost; the captures end and are reported all the same.
TEST_F(UploadTest, RefusedMessagesLeaveNothing) {
    for (const Call refusing : {Call::send, Call::alloc}) {
        clear();
        capture_automatically();
        const size_t blocks = fake().live_blocks();
        fake().fail(refusing, 1, true);
        fill();
        fake().fail_none();
        EXPECT_EQ(fake().live_blocks(), blocks);
        EXPECT_EQ(fake().queued(), 0U);
        EXPECT_EQ(alarms().size(), 2U);
        EXPECT_EQ(copy(arp_flow).size(), FULL) << "still there on demand";
    }
}

// The settings may change under a running transfer; it goes on with those that it began with.
TEST_F(UploadTest, FailureNamesTheServerThatWasTried) {
    capture_automatically();
    fill();
    alarms();
    fake().upload_result = -1;
    fake().on_upload = [] { atc_api_set_upload_server_ip(0x0A0B0C0D); };
    run_messages();
    EXPECT_EQ(alarms(), (Strings{"Failed to upload diagnose to server 192.0.2.1",
                                 "Failed to upload diagnose to server 10.11.12.13"}));
}

TEST_F(UploadTest, Sweeps) {
    const auto scenario = [this] {
        fake().uploads.clear();
        capture_automatically();
        fill();
        run_messages();
        const bool uploaded = fake().uploads.size() == 2;
        return upload(arp_flow) == 0 && copy(arp_source).size() == FULL && uploaded;
    };
    for (const Call kind : {Call::alloc, Call::send, Call::upload}) {
        sweep(kind, scenario);
    }
}

}  // namespace
