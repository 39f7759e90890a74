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
#include <cstdint>
#include <string>
#include <thread>

#include "anti_cpu/anti_cpu.h"
#include "services/services.h"
#include "transfer/transfer.h"

namespace {

constexpr uint16_t kFtpPort = 21;  // automatic uploads go to the well-known one: run by support.py
constexpr uint32_t kPort = 3;
constexpr uint32_t kVlan = 100;

// Accepts connections and says nothing.
class SilentServer {
public:
    SilentServer() {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(kFtpPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
        EXPECT_EQ(::listen(listener_, 1), 0);
    }

    // Whether an upload is there; does not wait.
    bool accept() {
        connection_ = ::accept(listener_, nullptr, nullptr);
        return connection_ >= 0;
    }

    // The upload has not given up: its side of the connection is open.
    bool is_waited_for() const {
        char byte;
        return ::recv(connection_, &byte, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
    }

    void release() { ::close(connection_); }

private:
    int listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    int connection_ = -1;
};

// An ARP request, broadcast, so many times.
void send(uint32_t count) {
    uint8_t frame[60] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 2, 0, 0, 0, 0, 7, 0x08, 0x06, 0, 1, 0x08, 0, 6, 4, 0, 1};
    for (uint32_t i = 0; i < count; ++i) {
        atc_api_receive_packet(frame, sizeof(frame), kPort, kVlan);
    }
}

TEST(StalledUpload, DelaysNoPacket) {
    constexpr uint32_t patience_seconds = 600;  // longer than this test may take
    card::set_transfer_options({patience_seconds, patience_seconds, patience_seconds, "", "", false});
    std::atomic<int> failures = 0;
    card::set_log_sink([&](const card::LogMessage &message) {
        if (message.text.find("Failed to upload diagnose to server 127.0.0.1") != std::string::npos) {
            ++failures;
            failures.notify_all();
        }
    });
    SilentServer server;
    ASSERT_FALSE(HasFailure());
    uint32_t arp = 0;
    atc_protocol_name_to_id(&arp, "arp", 3);
    ASSERT_EQ(atc_init(), 0);
    atc_api_set_global_enable(1);
    atc_api_set_fast_period_time(1);
    atc_api_set_protocol_fp_limit(arp, 1);
    atc_api_set_protocol_cap_enable(arp, 1);
    atc_api_set_upload_server_ip(INADDR_LOOPBACK);
    atc_api_set_upload_server_user("user");
    atc_api_set_upload_server_enable(1);

    for (int round = 1; round <= 2; ++round) {  // the monitor task survives, and uploads again
        while (!server.accept()) {              // until a capture is full and its upload has reached the server
            send(100);
        }
        std::thread one([] { send(50'000); });
        std::thread other([] { send(50'000); });
        // Settings and captures change under the upload's feet, which works on copies.
        atc_api_set_upload_server_user("another");
        atc_api_set_upload_server_passwd("secret");
        atc_api_set_auto_cap_clear();
        one.join();
        other.join();
        EXPECT_TRUE(server.is_waited_for()) << "the upload had ended before the packets did";
        EXPECT_EQ(failures, round - 1) << "the upload had failed before the server let go";
        server.release();
        failures.wait(round - 1);
    }
    atc_api_set_upload_server_enable(0);
    card::set_log_sink(nullptr);
}

}  // namespace
