// SPDX-License-Identifier: Apache-2.0
// flood.cpp: flood INTERFACE FRAMES SECONDS [PROCESSOR]
//
// Sends the frames of a file (two bytes of length, big endian, before each) over and over, as fast as one processor
// can, without a queue in between; prints how many were sent.
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

constexpr std::size_t BATCH = 256;

int fail(const char *what) {
    std::fprintf(stderr, "flood: %s: %s\n", what, std::strerror(errno));
    return 1;
}

std::vector<iovec> split(std::vector<char> &bytes) {
    std::vector<iovec> frames;
    for (std::size_t at = 0; at + 2 <= bytes.size();) {
        const auto high = static_cast<std::uint8_t>(bytes[at]), low = static_cast<std::uint8_t>(bytes[at + 1]);
        const std::size_t len = std::size_t{high} * 256 + low;
        at += 2;
        if (len == 0 || len > bytes.size() - at) {
            return {};
        }
        frames.push_back({&bytes[at], len});
        at += len;
    }
    return frames;
}

int open_port(const char *interface) {
    const int descriptor = socket(AF_PACKET, SOCK_RAW, 0);
    const int on = 1;
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    if (descriptor < 0 || address.sll_ifindex == 0 ||
        setsockopt(descriptor, SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof(on)) != 0 ||
        bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        return -1;
    }
    return descriptor;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 4) {
        std::fputs("usage: flood INTERFACE FRAMES SECONDS [PROCESSOR]\n", stderr);
        return 2;
    }
    if (argc > 4) {
        cpu_set_t processors;
        CPU_ZERO(&processors);
        CPU_SET(static_cast<std::size_t>(std::atoi(argv[4])), &processors);
        if (sched_setaffinity(0, sizeof(processors), &processors) != 0) {
            return fail(argv[4]);
        }
    }
    std::ifstream file(argv[2], std::ios::binary);
    std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    std::vector<iovec> frames = split(bytes);
    if (frames.empty()) {
        std::fprintf(stderr, "flood: %s: expected frames with their lengths in front\n", argv[2]);
        return 1;
    }
    // Whole batches only, so that a small file costs as little a frame as a large one.
    for (std::size_t i = 0; frames.size() % BATCH != 0; i++) {
        frames.push_back(frames[i]);
    }
    std::vector<mmsghdr> messages(frames.size());
    for (std::size_t i = 0; i < frames.size(); i++) {
        messages[i].msg_hdr.msg_iov = &frames[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int port = open_port(argv[1]);
    if (port < 0) {
        return fail(argv[1]);
    }
    using clock = std::chrono::steady_clock;
    const auto end = clock::now() + std::chrono::duration<double>(std::atof(argv[3]));
    unsigned long long sent = 0;
    for (std::size_t at = 0; clock::now() < end; at = (at + BATCH) % messages.size()) {
        const int count = sendmmsg(port, &messages[at], BATCH, 0);
        if (count > 0) {
            sent += static_cast<unsigned>(count);
        } else if (errno != ENOBUFS && errno != EAGAIN && errno != EINTR) {
            return fail("send");
        }
    }
    return std::printf("%llu\n", sent) > 0 ? 0 : 1;
}
