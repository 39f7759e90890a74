// SPDX-License-Identifier: Apache-2.0
// capture.cpp: the input as a capture file, read to its end, and replayed when that takes little simulated time.
#include <sys/mman.h>
#include <unistd.h>

#include <numeric>
#include <string>

#include "card.h"
#include "clock/clock.h"

namespace {

constexpr int64_t kLongestReplay = 60 * card::kNanosecondsPerSecond;

// Everything that is handed out is looked at. The time from the first packet to the last, in nanoseconds.
int64_t read_all(host::CaptureFile &file) {
    int64_t first_ns = -1, last_ns = 0;
    for (host::Packet packet{}; file.next(packet); last_ns = packet.time_ns) {
        const uint32_t sum = std::accumulate(packet.data, packet.data + packet.len, 0U);
        require(packet.len <= host::CaptureFile::longest_frame && sum <= 255 * packet.len, "a frame too long");
        require(packet.time_ns >= last_ns, "time goes back");
        first_ns = first_ns < 0 ? packet.time_ns : first_ns;
    }
    return last_ns - std::max<int64_t>(first_ns, 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // A file in memory: captures are read by name.
    static const int fd = memfd_create("input", MFD_CLOEXEC);
    require(ftruncate(fd, 0) == 0 && pwrite(fd, data, size, 0) == static_cast<ssize_t>(size), "no file in memory");
    const std::string path = "/dev/fd/" + std::to_string(fd);
    host::Problems problems;
    host::CaptureFile first, again;
    if (!first.open(path, 1, problems) || read_all(first) >= kLongestReplay) {
        return 0;
    }
    host::CaptureSet captures;
    require(again.open(path, 1, problems), "opened once only");
    captures.add(std::move(again));
    host::EventLog events(nullptr, nullptr, host::EventLog::Keep::kNothing);
    host::Replay replay(captures, events, {});
    replay.start();
    replay.run_to_end();
    require(replay.at_end(), "not at the end");
    end_input();
    return 0;
}
