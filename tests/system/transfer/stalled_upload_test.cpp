// stalled_upload_test.cpp: packets go on while an upload waits for a server that never answers.
//
// The module and the card, live, with the real file transfer to a server of this test. The proof is an order of events:
// the server has accepted the upload's connection and says nothing; 100,000 packets are processed; only then does the
// server let go, and only then does the upload fail. Were a packet to wait for the upload, the test would never end.
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "anti_cpu/anti_cpu.h"
#include "services/services.h"
#include "transfer/transfer.h"

namespace {

constexpr uint16_t kFtpPort = 21;  // automatic uploads go to the well-known one
constexpr uint32_t kPort = 3;
constexpr uint32_t kVlan = 100;

// A network of this process's own, where port 21 is free and loopback is all there is.
bool enter_own_network() {
    if (unshare(CLONE_NEWNET) != 0) {
        return false;
    }
    ifreq request = {};
    std::strcpy(request.ifr_name, "lo");
    const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
    request.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
    const bool up = ioctl(socket, SIOCSIFFLAGS, &request) == 0;
    ::close(socket);
    return up;
}

// Accepts connections and says nothing.
class SilentServer {
public:
    SilentServer() : listener_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(kFtpPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
        EXPECT_EQ(::listen(listener_, 1), 0);
    }
    ~SilentServer() {
        release();
        ::close(listener_);
    }

    // Whether an upload is there; does not wait.
    bool accept() {
        pollfd waiting = {listener_, POLLIN, 0};
        if (::poll(&waiting, 1, 0) == 1) {
            connection_ = ::accept(listener_, nullptr, nullptr);
        }
        return connection_ >= 0;
    }

    // The upload has not given up: its side of the connection is open.
    bool is_waited_for() const {
        char byte;
        return ::recv(connection_, &byte, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
    }

    void release() {
        if (connection_ >= 0) {
            ::close(connection_);
            connection_ = -1;
        }
    }

private:
    int listener_;
    int connection_ = -1;
};

// The card's log while it lives.
class Log {
public:
    Log() {
        card::set_log_sink([this](const card::LogMessage &message) {
            const std::lock_guard lock(mutex_);
            lines_.emplace_back(message.text);
            changed_.notify_all();
        });
    }
    ~Log() { card::set_log_sink(nullptr); }

    int count(const std::string &text) {
        const std::lock_guard lock(mutex_);
        return count_locked(text);
    }
    void wait_for(const std::string &text, int times) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return count_locked(text) >= times; });
    }

private:
    int count_locked(const std::string &text) const {
        int found = 0;
        for (const std::string &line : lines_) {
            found += line.find(text) != std::string::npos ? 1 : 0;
        }
        return found;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
};

// An ARP request, broadcast.
std::vector<uint8_t> flood_frame() {
    std::vector<uint8_t> frame(60, 0);
    std::fill_n(frame.begin(), 6, uint8_t{0xff});
    const uint8_t rest[] = {2, 0, 0, 0, 0, 7, 0x08, 0x06, 0, 1, 0x08, 0, 6, 4, 0, 1};
    std::copy(std::begin(rest), std::end(rest), frame.begin() + 6);
    return frame;
}

void send(uint32_t count) {
    const std::vector<uint8_t> frame = flood_frame();
    for (uint32_t i = 0; i < count; ++i) {
        atc_api_receive_packet(frame.data(), static_cast<uint32_t>(frame.size()), kPort, kVlan);
    }
}

uint32_t received() {
    uint32_t count = 0;
    uint32_t other[22] = {};
    EXPECT_EQ(atc_api_get_port_statistic(ATC_DIRECTION_RX, kPort, &count, &other[0], &other[1], &other[2], &other[3],
                                         &other[4], &other[5], &other[6], &other[7], &other[8], &other[9], &other[10],
                                         nullptr, &other[11], &other[12], &other[13], &other[14], &other[15],
                                         &other[16], &other[17], &other[18], &other[19], &other[20], nullptr),
              0);
    return count;
}

// Floods until a capture is full and its upload has reached the server.
void flood_until_upload(SilentServer *server) {
    while (!server->accept()) {
        send(100);
    }
}

TEST(StalledUpload, DelaysNoPacket) {
    if (!enter_own_network()) {
        GTEST_SKIP() << "no network of its own: " << std::strerror(errno);
    }
    constexpr const char *failure = "Failed to upload diagnose to server 127.0.0.1";
    constexpr uint32_t patience_seconds = 600;  // longer than this test may take
    card::set_transfer_options({patience_seconds, patience_seconds, patience_seconds, "", "", false});
    Log log;
    SilentServer server;
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
        flood_until_upload(&server);
        const uint32_t before = received();
        std::thread one([] { send(50'000); });
        std::thread other([] { send(50'000); });
        // Settings and captures change under the upload's feet, which works on copies.
        atc_api_set_upload_server_user("another");
        atc_api_set_upload_server_passwd("secret");
        atc_api_set_auto_cap_clear();
        one.join();
        other.join();
        EXPECT_EQ(received(), before + 100'000);
        EXPECT_TRUE(server.is_waited_for()) << "the upload had ended before the packets did";
        EXPECT_EQ(log.count(failure), round - 1) << "the upload had failed before the server let go";
        server.release();
        log.wait_for(failure, round);
    }
    atc_api_set_upload_server_enable(0);
    EXPECT_EQ(log.count("upload of \"atc-rx-3-100-arp.cap\" to \"127.0.0.1\" failed: "), 2);
    EXPECT_EQ(log.count(failure), 2);
}

}  // namespace
