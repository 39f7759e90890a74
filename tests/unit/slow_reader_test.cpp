// SPDX-License-Identifier: Apache-2.0
// Events on their way to readers that do not read, read late, or have renamed the file meanwhile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>

#include "events/event_file.h"
#include "events/syslog.h"

namespace {

using host::CaptureEntry;
using host::Delivery;
using host::JournalEntry;
using host::LineCounts;

constexpr uint64_t kMany = host::LineQueue::kBytesAtMost / 1024;  // more than a queue and a pipe have room for

JournalEntry entry(uint64_t number) {
    return {0, CaptureEntry{CaptureEntry::Kind::kWritten, {}, std::to_string(number) + std::string(1500, '_'), 0, {}}};
}

// The number behind 'mark' in a line.
std::optional<uint64_t> number_behind(const std::string &line, const std::string &mark) {
    const size_t at = line.find(mark);
    return at == std::string::npos ? std::nullopt : std::optional(std::stoull(line.substr(at + mark.size())));
}

class Folder {
public:
    Folder() : path_((std::filesystem::temp_directory_path() / "slow_reader_XXXXXX").string()) {
        EXPECT_NE(mkdtemp(path_.data()), nullptr);
    }
    ~Folder() { std::filesystem::remove_all(path_); }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;
    std::string file(const char *name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// What events go to, and who reads it.
struct Way {
    std::function<void(const JournalEntry &)> take;
    std::function<LineCounts()> counts;
    std::function<std::string()> read;  // the next line
};

struct SlowReader {
    const char *name;
    const char *number_mark;
    const char *lost_mark;
    std::function<Way(const Folder &)> open;
};

Way fifo(const Folder &folder) {
    const std::string path = folder.file("fifo");
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    auto file = std::make_shared<host::EventFile>();
    std::string error;
    EXPECT_TRUE(file->open(path, Delivery::kNoWaiting, error)) << error;
    auto reader = std::make_shared<std::ifstream>(path);
    return {[file](const JournalEntry &one) { file->take(one); }, [file] { return file->counts(); },
            [reader] {
                std::string line;
                std::getline(*reader, line);
                return line;
            }};
}

Way log_daemon(const Folder &folder) {
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    folder.file("log").copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    auto daemon = std::make_shared<host::Syslog>();
    std::string error;
    EXPECT_TRUE(daemon->open(folder.file("log"), Delivery::kNoWaiting, error)) << error;
    return {[daemon](const JournalEntry &one) { daemon->take(one); }, [daemon] { return daemon->counts(); },
            [socket] {
                std::array<char, 4096> bytes;
                const ssize_t size = recv(socket, bytes.data(), bytes.size(), 0);
                return std::string(bytes.data(), size < 0 ? 0 : static_cast<size_t>(size));
            }};
}

// Nobody reads until all has been told; then every event has arrived, or is told to be missing where it would stand.
void read_late(const SlowReader &reader) {
    const Folder folder;
    const Way way = reader.open(folder);
    for (uint64_t number = 0; number < kMany; number++) {
        way.take(entry(number));
    }
    const LineCounts before = way.counts();
    EXPECT_GT(before.lost, 0U);
    EXPECT_GT(before.waiting, 0U);
    EXPECT_EQ(before.written + before.waiting + before.lost, kMany);
    uint64_t next = 0;
    uint64_t told = 0;
    for (std::string line; next < kMany && !(line = way.read()).empty();) {
        if (const auto lost = number_behind(line, reader.lost_mark)) {
            next += *lost;
            told += *lost;
        } else {
            ASSERT_EQ(number_behind(line, reader.number_mark), next) << line;
            next++;
        }
    }
    EXPECT_EQ(next, kMany);
    EXPECT_EQ(told, way.counts().lost);
}

TEST(SlowReader, HoldsNobodyUpAndIsToldWhatIsMissing) {
    const SlowReader readers[] = {{"fifo", "\"file\":\"", "\"lost\":", fifo},
                                  {"syslog", " file=\"", " lost=\"", log_daemon}};
    for (const SlowReader &reader : readers) {
        SCOPED_TRACE(reader.name);
        read_late(reader);
    }
}

std::string content(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A full disk takes nothing, and ends nothing.
TEST(EventFile, CountsWhatAFullDiskRefuses) {
    for (const Delivery delivery : {Delivery::kWhole, Delivery::kNoWaiting}) {
        host::EventFile file;
        std::string error;
        ASSERT_TRUE(file.open("/dev/full", delivery, error)) << error;
        file.take(entry(1));
        file.take(entry(2));
        file.close();
        EXPECT_EQ(file.counts().lost, 2U);
    }
}

// Renamed, or gone: the next line opens the name anew, without a signal; and a process that comes again empties
// nothing.
TEST(EventFile, FollowsItsName) {
    const Folder folder;
    const std::string path = folder.file("events");
    std::ofstream(path) << "before\n";
    host::EventFile file;
    std::string error;
    ASSERT_TRUE(file.open(path, Delivery::kNoWaiting, error)) << error;
    file.take(entry(1));
    while (file.counts().written == 0) {
        std::this_thread::yield();
    }
    std::filesystem::rename(path, folder.file("events.1"));
    file.take(entry(2));
    file.close();
    EXPECT_EQ(content(folder.file("events.1")).substr(0, 7), "before\n");
    EXPECT_NE(content(folder.file("events.1")).find("\"file\":\"1_"), std::string::npos);
    EXPECT_EQ(content(folder.file("events.1")).find("\"file\":\"2_"), std::string::npos);
    EXPECT_NE(content(path).find("\"file\":\"2_"), std::string::npos);
}

}  // namespace
