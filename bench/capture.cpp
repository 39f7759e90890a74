// SPDX-License-Identifier: Apache-2.0
// capture.cpp: writes the packets of an input as a capture file, for whole processes to be measured on.
//
// Run by replay.sh. The file has one port and no VLANs beside its frames, so every frame gets the tag of its VLAN; the
// packets follow each other at 10 microseconds, 100,000 a second.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "workloads.h"

namespace {

constexpr char kUsage[] =
    "bench_capture INPUT PACKETS FILE\n"
    "\n"
    "Writes PACKETS packets of INPUT (one-flow, mix, sources, new-flow, million) to FILE, a pcap file.\n";

constexpr uint32_t kAddresses = 12;  // bytes in front of the tag
constexpr uint32_t kTag = 4;         // bytes
constexpr uint32_t kSpacing = 10;    // microseconds
constexpr uint32_t kStart = 1'630'554'380;

struct FileHeader {
    uint32_t magic = 0xA1B2C3D4;  // microseconds
    uint16_t major = 2;
    uint16_t minor = 4;
    uint32_t zone = 0;
    uint32_t accuracy = 0;
    uint32_t longest = 65535;
    uint32_t link_type = 1;  // Ethernet
};

struct PacketHeader {
    uint32_t seconds;
    uint32_t microseconds;
    uint32_t captured;  // bytes
    uint32_t len;       // bytes
};

void write(const void *bytes, size_t size, FILE *file) {
    if (std::fwrite(bytes, 1, size, file) != size) {
        std::perror("bench_capture");
        std::exit(1);
    }
}

void write_packet(const bench::Workload &workload, uint32_t number, FILE *file) {
    const bench::Packet &packet = workload.packets[number % workload.packets.size()];
    const uint8_t *frame = workload.bytes.data() + packet.offset;
    const uint64_t time = uint64_t{number} * kSpacing;
    const uint32_t len = packet.len + kTag;
    const PacketHeader header = {kStart + static_cast<uint32_t>(time / 1'000'000),
                                 static_cast<uint32_t>(time % 1'000'000), len, len};
    const uint8_t tag[kTag] = {0x81, 0x00, static_cast<uint8_t>(packet.vlan >> 8), static_cast<uint8_t>(packet.vlan)};
    write(&header, sizeof(header), file);
    write(frame, kAddresses, file);
    write(tag, sizeof(tag), file);
    write(frame + kAddresses, packet.len - kAddresses, file);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 4) {
        const bool help = argc == 2 && std::strcmp(argv[1], "--help") == 0;
        std::fprintf(help ? stdout : stderr, "%s", kUsage);
        return help ? 0 : 2;
    }
    const bench::Workload workload = bench::packet_workload(argv[1]);
    const uint32_t packets = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));
    FILE *file = std::fopen(argv[3], "wb");
    if (file == nullptr) {
        std::perror(argv[3]);
        return 1;
    }
    const FileHeader header;
    write(&header, sizeof(header), file);
    for (uint32_t number = 0; number < packets; ++number) {
        write_packet(workload, number, file);
    }
    if (std::fclose(file) != 0) {
        std::perror(argv[3]);
        return 1;
    }
    return 0;
}
