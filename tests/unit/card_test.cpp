// card_test.cpp: the card against what platform.h promises: mutexes, queues, log, ports, transfer.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "anti_cpu/platform.h"
#include "card_verbs.h"
#include "services/services.h"
#include "transfer/server_address.h"

namespace {

using namespace card_verbs;
using card::kNanosecondsPerSecond;

// ---- Mutex, queue ---------------------------------------------------------------------------------------

TEST(CardMutex, ExcludesOtherThreads) {
    const uint32_t mutex = bep_semMCreateEx(1, __FILE__, __LINE__);
    ASSERT_NE(mutex, 0u);
    uint32_t count = 0;  // unprotected but for the mutex
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 5000; ++round) {
                EXPECT_EQ(take(mutex, -1), 0);
                ++count;
                EXPECT_EQ(give(mutex), 0);
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(count, 20000u);
}

TEST(CardMutex, RefusesWhatCannotBe) {
    const uint32_t mutex = bep_semMCreateEx(1, __FILE__, __LINE__);
    ASSERT_EQ(take(mutex, -1), 0);
    std::thread([mutex] {
        EXPECT_EQ(take(mutex, 0), -1) << "held by another thread";
        EXPECT_EQ(take(mutex, 1), -1) << "held by another thread for a tick";
        EXPECT_EQ(give(mutex), -1) << "not its own";
    }).join();
    EXPECT_EQ(take(mutex, -1), -1) << "already its own";
    EXPECT_EQ(give(mutex), 0);
    for (const uint32_t none : {0u, mutex + 1000, 4294967295u}) {
        EXPECT_EQ(take(none, -1), -1) << none;
        EXPECT_EQ(give(none), -1) << none;
    }
}

TEST(CardQueue, KeepsOrderAndBounds) {
    const uint32_t queue = new_queue(4);
    EXPECT_EQ(receive(queue), -1);
    for (const uint32_t round : {10u, 20u}) {  // slots are used again
        for (uint32_t i = 1; i <= 4; ++i) {
            EXPECT_EQ(send(queue, round + i, i <= 2 ? 1 : 7), 0);
        }
        EXPECT_NE(send(queue, 99), 0) << "full";
        for (const int64_t expected : {3, 4, 1, 2}) {
            EXPECT_EQ(receive(queue), round + expected);
        }
    }
}

TEST(CardQueue, RefusesWrongSizesAndHandles) {
    const uint32_t queue = new_queue(2, 8);
    uint8_t message[16] = {};
    for (const uint32_t size : {0u, 7u, 9u}) {
        EXPECT_NE(bep_msgQSendEx(queue, message, size, 0, 1, __FILE__, __LINE__), 0) << size;
    }
    ASSERT_EQ(bep_msgQSendEx(queue, message, 8, 0, 1, __FILE__, __LINE__), 0);
    EXPECT_LE(bep_msgQReceiveEx(queue, message, 7, 0, __FILE__, __LINE__), 0) << "would be cut";
    EXPECT_EQ(bep_msgQReceiveEx(queue, message, 8, 0, __FILE__, __LINE__), 8);
    EXPECT_EQ(new_queue(0), 0u);
    EXPECT_EQ(new_queue(4, 0), 0u);
    EXPECT_NE(send(queue + 1000, 1), 0);
    EXPECT_EQ(receive(queue + 1000), -1);
}

// The card's messages while it lives.
class Logged {
public:
    Logged() {
        card::set_log_sink([this](const card::LogMessage &message) {
            lines.push_back(std::to_string(message.level) + " " + std::string(message.text));
            times.push_back(message.realtime_ns);
        });
    }
    ~Logged() { card::set_log_sink(nullptr); }
    std::vector<std::string> lines;
    std::vector<int64_t> times;
};

// ---- Log, ports ---------------------------------------------------------------------------------------

TEST(CardLog, CarriesLevelTimeAndWholeText) {
    the_clock().simulate(kStart);
    Logged log;
    run(2 * kNanosecondsPerSecond);
    const std::string lengthy(5000, 'x');
    EXPECT_EQ(ulogPrintf(1, 11, "port %d over\r\n", 3), 0);
    ulogPrintf(1, 13, "%s|\r\n", lengthy.c_str());
    ulogPrintf(1, 13, "%s", lengthy.substr(0, 511).c_str());
    ulogPrintf(1, 13, "%s", lengthy.substr(0, 512).c_str());
    ulogPrintf(1, 13, "\r\n");
    EXPECT_EQ(log.lines,
              (std::vector<std::string>{"11 port 3 over", "13 " + lengthy + "|", "13 " + lengthy.substr(0, 511),
                                        "13 " + lengthy.substr(0, 512), "13 "}));
    EXPECT_EQ(log.times, std::vector<int64_t>(5, kStart + 2 * kNanosecondsPerSecond));

    std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::tmpfile(), std::fclose);
    ASSERT_NE(file, nullptr);
    card::print_log_line(file.get(), {kStart + 1, 11, "text"});
    std::rewind(file.get());
    char line[64] = "";
    EXPECT_EQ(std::fread(line, 1, sizeof(line), file.get()), std::strlen("2021-09-02 03:46:20 11 text\n"));
    EXPECT_STREQ(line, "2021-09-02 03:46:20 11 text\n");
}

TEST(CardLog, TimeText) {
    the_clock().simulate(kStart);
    EXPECT_EQ(card::time_text(kStart + kNanosecondsPerSecond - 1), "2021-09-02 03:46:20");
    EXPECT_EQ(card::time_text(0), "1970-01-01 00:00:00");
    EXPECT_EQ(card::time_text(-1), "1969-12-31 23:59:59");
    EXPECT_EQ(card::time_text(-kNanosecondsPerSecond), "1969-12-31 23:59:59");
    for (const auto &[size, expected] : {std::pair(32u, "2021-09-02 03:46:20"),
                                         {20u, "2021-09-02 03:46:20"},
                                         {19u, "2021-09-02 03:46:2"},
                                         {1u, ""},
                                         {0u, "~"}}) {
        char text[33] = "~";
        syslog_get_timestamp(text, size);
        EXPECT_STREQ(text, expected) << size;
    }
}

TEST(CardServices, PortsAndAddresses) {
    uint32_t slot = 0;
    uint32_t slot_port = 0;
    for (const auto &[port, expected_slot, expected_port] :
         {std::tuple(0u, 1u, 0u), {63u, 1u, 63u}, {64u, 2u, 0u}, {4294967295u, 67108864u, 63u}}) {
        EXPECT_EQ(br_comm_transfer_portindex_2slotport(port, &slot, &slot_port), 0);
        EXPECT_EQ(std::pair(slot, slot_port), std::pair(expected_slot, expected_port)) << port;
    }
    card::set_port_map([](uint32_t port, uint32_t *, uint32_t *) { return port < 10; });
    EXPECT_EQ(br_comm_transfer_portindex_2slotport(9, &slot, &slot_port), 0);
    EXPECT_NE(br_comm_transfer_portindex_2slotport(10, &slot, &slot_port), 0);
    card::set_port_map(nullptr);

    const uint8_t address[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    char text[16] = "";
    EXPECT_STREQ(inet_ntop6(address, text, 12), "2001:db8::1");
    EXPECT_EQ(inet_ntop6(address, text, 11), nullptr);
}

// ---- File transfer ----------------------------------------------------------------------------------------------

TEST(CardTransfer, ServerAddresses) {
    const std::pair<const char *, const char *> rows[] = {
        {"10.0.0.1", "10.0.0.1"},         {"files.example:2121", "files.example:2121"},
        {"2001:db8::1", "[2001:db8::1]"}, {"[::1]", "[::1]"},
        {"[::1]:65535", "[::1]:65535"},
    };
    for (const auto &[server, expected] : rows) {
        EXPECT_EQ(card::url_authority(server), expected) << server;
    }
    for (const char *bad : {"",       ":",     ":21",  "a:",     "a:0", "a:65536", "a:21x",  "a:+1",
                            "a:-1",   "a:1:2", "[::1", "[]",     "[a]", "[::1]21", "[::1]:", "::1]",
                            "user@a", "a/b",   "a b",  "a\r\nb", "a?b", "a#b",     "-a",     "a%41"}) {
        EXPECT_EQ(card::url_authority(bad), std::nullopt) << bad;
    }
}

// A port of loopback where nobody listens, for as long as it lives.
class ClosedPort {
public:
    ClosedPort() : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr *>(&address), length), 0);
        EXPECT_EQ(::getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &length), 0);
        server = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    }
    ~ClosedPort() { ::close(socket_); }
    std::string server;

private:
    int socket_;
};

TEST(CardTransfer, FailuresSayWhy) {
    the_clock().simulate(kStart);
    const ClosedPort closed;
    const struct {
        uint32_t type;
        std::string server;
        const char *file;
        const char *reason;
    } rows[] = {
        {0, closed.server, "atc-manual.cap", "Couldn't connect to server: "},
        {2, closed.server, "a.cap", "Couldn't connect to server: "},
        {3, closed.server, "a.cap", "Couldn't connect to server: "},
        {4, closed.server, "a.cap", "unknown transfer type 4"},
        {0, "user@" + closed.server, "a.cap", "not a server address"},
        {0, closed.server, "", "no file name"},
    };
    for (const auto &[type, server, file, reason] : rows) {
        Logged log;
        EXPECT_NE(xftp_upload_base(server.c_str(), "user", "secret", file, "data", 4, type, nullptr), 0);
        ASSERT_EQ(log.lines.size(), 1u) << reason;
        EXPECT_TRUE(log.lines[0].starts_with("13 upload of \"" + std::string(file) + "\" to \"" + server +
                                             "\" failed: " + reason))
            << log.lines[0];
        EXPECT_EQ(log.lines[0].find("secret"), std::string::npos);
        EXPECT_EQ(log.times[0], kStart) << "the log is not on simulated time";
    }
}

}  // namespace
