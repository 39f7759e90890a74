// SPDX-License-Identifier: Apache-2.0
// stalled_upload_test.cpp: packets go on while an upload waits for a server that never answers.
//
// The module and the card, live, with the real file transfer to a server of this test. The proof is an order of events:
// the server has accepted the upload's connection and says nothing; 100,000 packets are processed; only then does the
// server let go, and only then does the upload fail. Were a packet to wait for the upload, the test would never end.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "anti_cpu/anti_cpu.h"
#include "anti_cpu/protocols.h"
#include "services/services.h"
#include "transfer/transfer.h"

namespace {

// An ARP request, broadcast, so many times.
void send(uint32_t count) {
    uint8_t frame[60] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 2, 0, 0, 0, 0, 7, 0x08, 0x06, 0, 1, 0x08, 0, 6, 4, 0, 1};
    for (uint32_t i = 0; i < count; ++i) {
        atc_api_receive_packet(frame, sizeof(frame), 3, 100);
    }
}

TEST(StalledUpload, DelaysNoPacket) {
    constexpr uint32_t patience_s = 600;  // longer than this test may take
    card::set_transfer_options({patience_s, patience_s, patience_s, "", "", false});
    std::atomic<int> failures = 0;
    card::set_log_sink([&](const card::LogMessage &message) {
        failures += message.text.starts_with("Failed to upload diagnose to server 127.0.0.1") ? 1 : 0;
        failures.notify_all();
    });
    // Automatic uploads go to the well-known port: run by transfer_test.py.
    const sockaddr_in address = {AF_INET, htons(21), {htonl(INADDR_LOOPBACK)}, {}};
    const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ASSERT_EQ(::bind(server, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(server, 1), 0);
    ASSERT_EQ(atc_init(), 0);
    atc_api_set_fast_period_time(1);
    atc_api_set_protocol_fp_limit(ATC_ARP, 1);
    atc_api_set_protocol_cap_enable(ATC_ARP, 1);
    atc_api_set_upload_server_ip(INADDR_LOOPBACK);
    atc_api_set_upload_server_user("user");
    atc_api_set_upload_server_enable(1);

    for (int round = 0; round < 2; ++round) {  // the monitor task survives, and uploads again
        int upload = -1;
        while ((upload = ::accept(server, nullptr, nullptr)) < 0) {
            send(100);  // until a capture is full
        }
        std::thread one(send, 50'000);
        std::thread other(send, 50'000);
        // Settings and captures change under the upload's feet, which works on copies.
        atc_api_set_upload_server_user("another");
        atc_api_set_upload_server_passwd("secret");
        atc_api_set_auto_cap_clear();
        one.join();
        other.join();
        char byte;
        EXPECT_TRUE(::recv(upload, &byte, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN) << "it had ended before the packets";
        EXPECT_EQ(failures, round) << "it had failed before the server let go";
        ::close(upload);
        failures.wait(round);
    }
    atc_api_set_upload_server_enable(0);
    card::set_log_sink(nullptr);
}

}  // namespace
