// SPDX-License-Identifier: Apache-2.0
// packet_path.cpp: nanoseconds a packet, of the module and of the floor under it, on the inputs of workloads.h.
//
// One benchmark an input. An iteration times a chunk of packets through the floor and the same number through the
// module, in turns, so that both sides of a ratio have seen the same machine. Both are shared libraries, called once a
// packet. Where two threads send, the floor is the mutex alone: what they cannot help but wait for each other.
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "anti_cpu/anti_cpu.h"
#include "card.h"
#include "floor.h"
#include "report.h"
#include "workloads.h"

namespace {

constexpr uint32_t kChunk = 65'536;  // packets; some milliseconds, longer than what most disturbances leave untouched

constexpr char kUsage[] =
    "bench_packet_path [--rows] [--benchmark_filter=REGEX] [--benchmark_...]\n"
    "\n"
    "Nanoseconds a packet of the packet path (ns) and of its floor (floor-ns: mutex, parser, four counters), each the\n"
    "smallest of many chunks of packets, and their ratio.\n"
    "  one-flow     one flow flooding\n"
    "  mix          all 58 classes over 200 VLANs, 11,600 flows\n"
    "  half-mix     the same with every second class on each VLAN, 5,800 flows\n"
    "  sources      2048 sources of one flow over their limit\n"
    "  new-flow     every packet a new flow, in memory fresh from the system\n"
    "  new-flow-warm  the same in memory that the process has had before\n"
    "  million      1,000,000 flows in random order; besides (trees-ns) with entries found by walking the indexes\n"
    "  two-threads  a flow each of two threads at once; the floor is the mutex alone, taken by both, and the figures "
    "are\n"
    "               those in the middle, not the smallest\n"
    "The Time column is the mean of a chunk through the module. --rows prints \"input.figure value\" lines only.\n";

void packet_path(benchmark::State &state, const char *input) {
    const bench::Workload workload = bench::packet_workload(input);
    const uint32_t chunk = workload.creates ? static_cast<uint32_t>(workload.packets.size()) : kChunk;
    bench::warm(workload);
    bench::Smallest floor;
    bench::Smallest path;
    uint32_t at_floor = 0;
    uint32_t at_path = 0;
    for (auto _ : state) {
        double start = bench::thread_seconds();
        at_floor = bench::send(workload, at_floor, chunk, atc_bench_floor);
        floor.see(bench::thread_seconds() - start);

        start = bench::thread_seconds();
        at_path = bench::send(workload, at_path, chunk, atc_api_receive_packet);
        const double seconds = bench::thread_seconds() - start;
        path.see(seconds);
        state.SetIterationTime(seconds);
        if (workload.creates) {
            bench::reset(workload);
        }
    }
    bench::reset(workload);
    state.counters["floor-ns"] = floor.value() * 1e9 / chunk;
    state.counters["ns"] = path.value() * 1e9 / chunk;
    state.counters["ratio"] = path.value() / floor.value();
}

// What is freed stays the process's, so that from the second round on no page comes from the system. Else a third of
// the time is the system's, which fills pages with zeros.
void warm_new_flow(benchmark::State &state) {
    constexpr int kAll = 1 << 30;
    mallopt(M_MMAP_THRESHOLD, kAll);
    mallopt(M_TRIM_THRESHOLD, kAll);
    packet_path(state, "new-flow");
    mallopt(M_MMAP_THRESHOLD, 128 << 10);
    mallopt(M_TRIM_THRESHOLD, 128 << 10);
    malloc_trim(0);
}

// A million known flows besides with their entries found by walking the indexes, in the same turns.
void million(benchmark::State &state) {
    const bench::Workload workload = bench::packet_workload("million");
    bench::warm(workload);
    bench::send(workload, 0, static_cast<uint32_t>(workload.packets.size()), atc_bench_trees);
    constexpr bench::PacketCall calls[] = {atc_bench_floor, atc_bench_trees, atc_api_receive_packet};
    constexpr const char *names[] = {"floor-ns", "trees-ns", "ns"};
    bench::Smallest times[3];
    uint32_t at[3] = {};
    double seconds = 0;
    for (auto _ : state) {
        for (int side = 0; side < 3; ++side) {
            const double start = bench::thread_seconds();
            at[side] = bench::send(workload, at[side], kChunk, calls[side]);
            seconds = bench::thread_seconds() - start;
            times[side].see(seconds);
        }
        state.SetIterationTime(seconds);
    }
    bench::reset(workload);
    for (int side = 0; side < 3; ++side) {
        state.counters[names[side]] = times[side].value() * 1e9 / kChunk;
    }
    state.counters["ratio"] = times[2].value() / times[0].value();
}

// Wall-clock seconds in which two threads send a chunk each.
double seconds_of_two(const bench::Workload (&workloads)[2], bench::PacketCall call) {
    std::atomic<bool> go = false;
    std::atomic<int> ready = 0;
    const auto sender = [&](const bench::Workload &workload) {
        ++ready;
        while (!go) {
        }
        bench::send(workload, 0, kChunk, call);
    };
    std::thread first(sender, std::cref(workloads[0]));
    std::thread second(sender, std::cref(workloads[1]));
    while (ready != 2) {
        std::this_thread::yield();
    }
    const auto start = std::chrono::steady_clock::now();
    go = true;
    first.join();
    second.join();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void two_threads(benchmark::State &state) {
    bench::Workload workloads[2] = {bench::one_flow(), bench::one_flow()};
    for (bench::Packet &packet : workloads[1].packets) {
        ++packet.port;
    }
    bench::warm(workloads[0]);
    bench::send(workloads[1], 0, kChunk, atc_api_receive_packet);
    bench::Middle lock;
    bench::Middle path;
    for (auto _ : state) {
        lock.see(seconds_of_two(workloads, atc_bench_lock));
        const double seconds = seconds_of_two(workloads, atc_api_receive_packet);
        path.see(seconds);
        state.SetIterationTime(seconds);
    }
    bench::reset(workloads[0]);
    const double floor_seconds = lock.value();
    const double path_seconds = path.value();
    state.counters["floor-ns"] = floor_seconds * 1e9 / (2 * kChunk);
    state.counters["ns"] = path_seconds * 1e9 / (2 * kChunk);
    state.counters["ratio"] = path_seconds / floor_seconds;
}

BENCHMARK_CAPTURE(packet_path, one - flow, "one-flow")->Name("one-flow")->UseManualTime()->Iterations(400);
BENCHMARK_CAPTURE(packet_path, mix, "mix")->Name("mix")->UseManualTime()->Iterations(200);
BENCHMARK_CAPTURE(packet_path, half - mix, "half-mix")->Name("half-mix")->UseManualTime()->Iterations(200);
BENCHMARK_CAPTURE(packet_path, sources, "sources")->Name("sources")->UseManualTime()->Iterations(200);
BENCHMARK_CAPTURE(packet_path, new - flow, "new-flow")->Name("new-flow")->UseManualTime()->Iterations(10);
BENCHMARK(warm_new_flow)->Name("new-flow-warm")->UseManualTime()->Iterations(10);
BENCHMARK(million)->Name("million")->UseManualTime()->Iterations(30);
BENCHMARK(two_threads)->Name("two-threads")->UseManualTime()->Iterations(50);

}  // namespace

int main(int argc, char **argv) {
    bench::start_module();
    atc_bench_floor_start();
    return bench::run_program(argc, argv, kUsage);
}
