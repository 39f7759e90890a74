// SPDX-License-Identifier: Apache-2.0
// instructions.cpp: sends one input through the module or the floor, for callgrind to count what that takes.
//
// Run by instructions.sh, a process a figure. Callgrind collects inside of atc_bench_measured only: start-up and the
// first packets of known flows stay out of the count.
#include <cstdio>
#include <cstring>
#include <string_view>

#include "anti_cpu/anti_cpu.h"
#include "card.h"
#include "floor.h"
#include "workloads.h"

namespace {

constexpr uint32_t kPackets = 16'384;  // of an input that is shorter; others are sent once as a whole

constexpr char kUsage[] =
    "bench_instructions INPUT path|floor|lock\n"
    "\n"
    "Warms INPUT (one-flow, mix, half-mix, sources, new-flow, million) up, sends its packets once through the module's "
    "packet "
    "path\n"
    "or through the floor or the mutex alone, and prints how many there were. Meant to run under callgrind: see "
    "bench/instructions.sh.\n";

}  // namespace

int main(int argc, char **argv) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::printf("%s", kUsage);
        return 0;
    }
    const std::string_view side = argc == 3 ? argv[2] : "";
    const bench::PacketCall call = side == "path"    ? atc_api_receive_packet
                                   : side == "floor" ? atc_bench_floor
                                   : side == "lock"  ? atc_bench_lock
                                                     : nullptr;
    if (call == nullptr) {
        std::fprintf(stderr, "%s", kUsage);
        return 2;
    }
    bench::start_module();
    atc_bench_floor_start();
    const bench::Workload workload = bench::packet_workload(argv[1]);
    const uint32_t size = static_cast<uint32_t>(workload.packets.size());
    const uint32_t packets = size < kPackets ? kPackets : size;
    // The first packet of a process pays the dynamic linker.
    const bench::Packet &first = workload.packets.front();
    atc_bench_floor(workload.bytes.data(), first.len, first.port, first.vlan);
    atc_bench_lock(nullptr, 0, 0, 0);
    atc_api_receive_packet(workload.bytes.data(), first.len, first.port, first.vlan);

    bench::warm(workload);
    bench::send(workload, 0, packets, call);
    std::printf("packets %u\n", packets);
    return 0;
}
