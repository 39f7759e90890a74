// card_test.cpp: the card against what platform.h promises: memory, mutexes, queues, log, registry, ports, transfer.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "anti_cpu/platform.h"
#include "card_verbs.h"
#include "os/os.h"
#include "services/services.h"
#include "transfer/server_address.h"

namespace {

using namespace card_verbs;
using card::kNanosecondsPerSecond;

// ---- Memory, mutex, queue ---------------------------------------------------------------------------------------

TEST(CardMemory, CountsLiveBlocks) {
    const int64_t before = card::live_blocks();
    void *raw = bep_mallocEx(100, __FILE__, __LINE__);
    auto *zeroed = static_cast<uint8_t *>(bep_callocEx(3, 5, __FILE__, __LINE__));
    EXPECT_EQ(card::live_blocks(), before + 2);
    EXPECT_EQ(std::vector<uint8_t>(zeroed, zeroed + 15), std::vector<uint8_t>(15, 0));
    bep_freeEx(nullptr, __FILE__, __LINE__);
    bep_freeEx(raw, __FILE__, __LINE__);
    bep_freeEx(zeroed, __FILE__, __LINE__);
    EXPECT_EQ(card::live_blocks(), before);
}

TEST(CardMutex, ExcludesOtherThreads) {
    const uint32_t mutex = bep_semMCreateEx(1, __FILE__, __LINE__);
    ASSERT_NE(mutex, 0u);
    uint32_t count = 0;  // unprotected but for the mutex
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 5000; ++round) {
                EXPECT_EQ(bep_semTakeEx(mutex, -1, __FILE__, __LINE__), 0);
                ++count;
                EXPECT_EQ(bep_semGiveEx(mutex, __FILE__, __LINE__), 0);
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
    ASSERT_EQ(bep_semTakeEx(mutex, -1, __FILE__, __LINE__), 0);
    std::thread([mutex] {
        EXPECT_EQ(bep_semTakeEx(mutex, 0, __FILE__, __LINE__), -1) << "held by another thread";
        EXPECT_EQ(bep_semTakeEx(mutex, 1, __FILE__, __LINE__), -1) << "held by another thread for a tick";
        EXPECT_EQ(bep_semGiveEx(mutex, __FILE__, __LINE__), -1) << "not its own";
    }).join();
    EXPECT_EQ(bep_semTakeEx(mutex, -1, __FILE__, __LINE__), -1) << "already its own";
    EXPECT_EQ(bep_semGiveEx(mutex, __FILE__, __LINE__), 0);
    for (const uint32_t none : {0u, mutex + 1000, 4294967295u}) {
        EXPECT_EQ(bep_semTakeEx(none, -1, __FILE__, __LINE__), -1) << none;
        EXPECT_EQ(bep_semGiveEx(none, __FILE__, __LINE__), -1) << none;
    }
}

TEST(CardQueue, KeepsOrderAndBounds) {
    const uint32_t queue = new_queue(4);
    ASSERT_NE(queue, 0u);
    EXPECT_EQ(receive(queue), -1);
    for (uint32_t round = 0; round < 3; ++round) {  // slots are used again
        for (uint32_t i = 1; i <= 4; ++i) {
            EXPECT_EQ(send(queue, 10 * round + i), 0);
        }
        EXPECT_NE(send(queue, 99), 0) << "full";
        for (uint32_t i = 1; i <= 4; ++i) {
            EXPECT_EQ(receive(queue), 10 * round + i);
        }
    }
    for (const auto &[message, priority] : {std::pair(1u, 1u), {2u, 1u}, {3u, 7u}, {4u, 7u}}) {
        send(queue, message, priority);
    }
    for (const int64_t expected : {3, 4, 1, 2, -1}) {
        EXPECT_EQ(receive(queue), expected);
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
    EXPECT_NE(send(0, 1), 0);
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

// ---- Log, registry, ports ---------------------------------------------------------------------------------------

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

TEST(CardServices, RegistryPortsAndAddresses) {
    const uint32_t first = modInitRegister("atc-mon", 0, 0, 0, 0);
    const uint32_t second = modInitRegister("other", 0, 0, 0, 0);
    EXPECT_NE(first, second);
    EXPECT_EQ(setModVersion(first, 1, "Sep  2 2021 03:46:20"), 0);
    EXPECT_EQ(card::module_version(first), "Sep  2 2021 03:46:20");
    EXPECT_EQ(card::module_version(second), "");
    EXPECT_NE(setModVersion(0, 1, "x"), 0);
    EXPECT_EQ(card::module_version(second + 1), "");

    struct Row {
        uint32_t port, slot, slot_port;
    };
    uint32_t slot = 0;
    uint32_t slot_port = 0;
    for (const Row &row : {Row{0, 1, 0}, {63, 1, 63}, {64, 2, 0}, {4294967295u, 67108864, 63}}) {
        EXPECT_EQ(br_comm_transfer_portindex_2slotport(row.port, &slot, &slot_port), 0);
        EXPECT_EQ(slot, row.slot) << row.port;
        EXPECT_EQ(slot_port, row.slot_port) << row.port;
    }
    card::set_port_map([](uint32_t port, uint32_t *to_slot, uint32_t *to_port) {
        *to_slot = 9;
        *to_port = port + 1;
        return port < 10;
    });
    EXPECT_EQ(br_comm_transfer_portindex_2slotport(9, &slot, &slot_port), 0);
    EXPECT_EQ(slot_port, 10u);
    EXPECT_NE(br_comm_transfer_portindex_2slotport(10, &slot, &slot_port), 0);
    card::set_port_map(nullptr);

    card::set_backup_core_card(3);
    EXPECT_EQ(get_bakup_core_card_cardnumber(), 3u);
    std::array<uint8_t, 6> mac = {};
    hss_get_device_mac(mac.data());
    EXPECT_EQ(mac, (std::array<uint8_t, 6>{2, 0, 0, 0, 0, 1}));

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
    struct Row {
        uint32_t type;
        std::string server;
        const char *file;
        const char *reason;
    };
    const Row rows[] = {
        {0, closed.server, "atc-manual.cap", "Couldn't connect to server: "},
        {2, closed.server, "a.cap", "Couldn't connect to server: "},
        {3, closed.server, "a.cap", "Couldn't connect to server: "},
        {4, closed.server, "a.cap", "unknown transfer type 4"},
        {4294967295u, closed.server, "a.cap", "unknown transfer type 4294967295"},
        {0, "user@" + closed.server, "a.cap", "not a server address"},
        {0, closed.server, "", "no file name"},
    };
    for (const Row &row : rows) {
        Logged log;
        EXPECT_NE(xftp_upload_base(row.server.c_str(), "user", "secret", row.file, "data", 4, row.type, nullptr), 0);
        ASSERT_EQ(log.lines.size(), 1u) << row.reason;
        EXPECT_EQ(log.lines[0].find("13 upload of \"" + std::string(row.file) + "\" to \"" + row.server +
                                    "\" failed: " + row.reason),
                  0u)
            << log.lines[0];
        EXPECT_EQ(log.lines[0].find("secret"), std::string::npos);
        EXPECT_EQ(log.times[0], kStart) << "the log is not on simulated time";
    }
}

}  // namespace
