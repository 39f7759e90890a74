// SPDX-License-Identifier: Apache-2.0
// upload_test.cpp: capture files on their way out: their names, copies for the host, uploads on demand and by the task.
#include "atc/upload.h"

#include <tuple>

#include "fixture.h"
#include "frames.h"

namespace {

using Name = atc_capture_name_t;

constexpr size_t FULL = 24 + 2 * 50016;  // bytes of a file of two packets, in which a third has no room

const uint8_t sender_mac[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const uint32_t sender_ipv4[4] = {0x0A000001};  // processor byte order
const uint8_t sender_ipv6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

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
    }

    static int upload(const Name &n) {
        return atc_api_capture_upload(n.direction, n.vlan, n.port, n.protocol, n.src_type, n.src_addr, "192.0.2.1:2121",
                                      "user", "secret", 3);
    }

    static Bytes copy(const Name &n) {
        void *data = nullptr;
        uint32_t len = 0;
        atc_api_get_port_capture(n.direction, n.vlan, n.port, n.protocol, n.src_type, n.src_addr, &data, &len);
        const auto *bytes = static_cast<const uint8_t *>(data);
        Bytes file(bytes, bytes + len);
        atc_api_free_buffer(data);
        return file;
    }

    // The flow of the packet on port 7, VLAN 9, and its source, are over their limits; both record.
    void capture_automatically() {
        set(ATC_ARP, 1,
            {atc_api_set_protocol_fp_limit, atc_api_set_protocol_src_fp_limit, atc_api_set_protocol_cap_enable,
             atc_api_set_protocol_src_cap_enable});
        rx_n(30, arp(), 7, 9);
        pass_seconds(10);
        alarms();
    }

    // Then both buffers are full at the same packet, and the automatic uploads are posted.
    void fill() { rx_n(3, arp().resize(50000), 7, 9); }
};

TEST(CaptureFileName, Table) {
    const std::pair<Name, const char *> rows[] = {
        {{0, 0, 0, 0, ATC_SRC_MAC, sender_mac}, "atc-manual.cap"},
        {{3, 4094, 6, ATC_UNKNOWN_IP_FRAGMENT, ATC_SRC_NONE, nullptr}, "atc-tx-6-4094-unknown-ip-fragment.cap"},
        {{0, 5, 0, 0, ATC_SRC_NONE, nullptr}, "atc-tx-0-5-unknown-packet.cap"},
        {{0, 0, 7, 0, ATC_SRC_NONE, nullptr}, "atc-tx-7-0-unknown-packet.cap"},
        {{0, 0, 0, ATC_ARP, ATC_SRC_NONE, nullptr}, "atc-tx-0-0-arp.cap"},
        {{1, 9, 7, ATC_DNS, ATC_SRC_IPV4, reinterpret_cast<const uint8_t *>(sender_ipv4)},
         "atc-rx-7-9-dns-(10.0.0.1).cap"},
        {{1, 9, 7, ATC_DNS, ATC_SRC_IPV6, sender_ipv6}, "atc-rx-7-9-dns-(2001:db8::1).cap"},
        {{1, 9, 7, ATC_DNS, 4, sender_ipv6}, ""},
    };
    for (const auto &[name, expected] : rows) {
        char text[ATC_FILE_NAME_SIZE] = "left over";
        atc_capture_file_name(&name, text, sizeof(text));
        EXPECT_STREQ(text, expected);
    }
}

TEST_F(UploadTest, OnDemandHandsEverythingToTheTransfer) {
    const atc_filter_rule_t any = {};
    atc_api_set_cap_start(&any, 3);
    capture_automatically();
    fake().on_upload = [this] { rx(arp(), 7, 9); };
    const std::pair<Name, const char *> rows[] = {
        {{1, 5, 0, 0, 0, nullptr}, "atc-rx-0-5-unknown-packet.cap"},  // port and protocol 0: manual
        {arp_source, "atc-rx-7-9-arp-(00-11-22-33-44-55).cap"},
    };
    for (const auto &[name, file_name] : rows) {
        const Bytes file = copy(name);
        EXPECT_EQ(file.size(), name.port == 0 ? 24U + 3 * 58 : 24U + 58) << file_name;
        ASSERT_EQ(upload(name), 0) << file_name;
        const Upload &sent = fake().uploads.back();
        EXPECT_EQ((Lines{sent.server, sent.user, sent.passwd, sent.file_name}),
                  (Lines{"192.0.2.1:2121", "user", "secret", file_name}));
        EXPECT_EQ(sent.ftp_type, 3U);
        EXPECT_EQ(sent.data, file) << "a copy that later packets do not change";
    }
    for (const Name &absent : {Name{1, 7, 9, ATC_ARP, 0, nullptr}, {1, 9, 7, ATC_ARP, 4, sender_mac}}) {
        EXPECT_EQ(upload(absent), 2);
        EXPECT_EQ(copy(absent), Bytes{});
    }
    EXPECT_EQ(upload({1, 9, 7, ATC_ARP, ATC_SRC_MAC, nullptr}), -1) << "no knowing whose it is";
}

// 16 bits of the enable count, when a capture is full and again when it is sent.
TEST_F(UploadTest, FullCapturesReachTheServerIfEnabled) {
    for (const auto &[when_full, when_sent, queued, sent] :
         {std::array{65536U, 1U, 0U, 0U}, {2, 1, 0, 0}, {65537, 0, 2, 0}, {1, 65537, 2, 2}}) {
        clear();
        capture_automatically();
        atc_api_set_upload_server_enable(when_full);
        fill();
        EXPECT_EQ(fake().queued(), queued) << when_full;
        EXPECT_EQ(alarms().size(), 2U) << when_full;
        const Bytes file = copy(arp_flow);
        EXPECT_EQ(file.size(), FULL);
        atc_api_set_auto_cap_clear();  // the messages have copies of their own
        atc_api_set_upload_server_enable(when_sent);
        run_messages();
        ASSERT_EQ(fake().uploads.size(), sent) << when_full;
        for (const Upload &one : fake().uploads) {
            const char *source = &one == &fake().uploads[0] ? "" : "-(00-11-22-33-44-55)";
            EXPECT_EQ((Lines{one.server, one.user, one.passwd, one.file_name}),
                      (Lines{"192.0.2.1", "card", "pw", std::string("atc-rx-7-9-arp") + source + ".cap"}));
            EXPECT_EQ(one.ftp_type, 2U);
            EXPECT_EQ(one.data, file);
        }
    }
}

// The settings may change under a running transfer; it goes on with those that it began with.
TEST_F(UploadTest, FailureNamesTheServerThatWasTried) {
    capture_automatically();
    fill();
    alarms();
    fake().fail(Call::upload, 1, true);
    fake().on_upload = [] { atc_api_set_upload_server_ip(0x0A0B0C0D); };
    run_messages();
    EXPECT_EQ(alarms(), (Lines{"Failed to upload diagnose to server 192.0.2.1",
                               "Failed to upload diagnose to server 10.11.12.13"}));
}

// What the queue or the allocator refuses is lost; the captures end and are reported all the same.
TEST_F(UploadTest, Sweeps) {
    sweep({Call::alloc, Call::send, Call::upload}, [this] {
        fake().uploads.clear();
        capture_automatically();
        fill();
        run_messages();
        const size_t uploaded = fake().uploads.size();
        const int result = upload(arp_flow);
        const bool sent = told(result, fake().uploads.size() > uploaded);
        return copy(arp_source).size() == FULL && uploaded == 2 && sent;
    });
}

}  // namespace
