// SPDX-License-Identifier: Apache-2.0
// evaluation.cpp: what the end of a fast period costs, and how long the packet path has to wait for it.
//
// Links the module's objects, so that a pass is called where the monitor task calls it: with the mutex held. The
// records were made in random order, so they lie scattered as they do after a day on a card.
#include "atc/evaluation.h"
#include "anti_cpu/anti_cpu.h"
#include "card.h"
#include "report.h"
#include "workloads.h"

namespace {

constexpr char kUsage[] =
    "bench_evaluation [--rows] [--benchmark_filter=REGEX] [--benchmark_...]\n"
    "\n"
    "The evaluation at the end of a fast period: nanoseconds a flow or source (ns) and how long the mutex is held\n"
    "(held-ms), each the smallest of many passes.\n"
    "  quiet-100000   100,000 flows without a packet in the period; quiet-1000000 alike\n"
    "  peak-100000    100,000 flows as busy as they ever were: every time of peak is written anew\n"
    "  sources-100352 49 flows with 2048 sources each, all quiet\n"
    "--rows prints \"input.figure value\" lines only.\n";

enum Traffic {
    QUIET,
    PEAK,
};

// Runs one pass. Returns the seconds for which it holds the mutex while nothing takes its processor away.
double pass() {
    const atc_guard_t guard;
    const double start = bench::thread_seconds();
    atc_fp_expire();
    return bench::thread_seconds() - start;
}

// 'records': the flows, or flows and sources, that a pass visits one by one.
void evaluation(benchmark::State &state, const bench::Workload &workload, uint32_t records, Traffic traffic) {
    const uint32_t packets = static_cast<uint32_t>(workload.packets.size());
    bench::reset(workload);
    bench::send(workload, 0, packets, atc_api_receive_packet);
    pass();  // notes every record's peak and raises the alarms
    pass();  // ends the alarms
    bench::Smallest held;
    for (auto _ : state) {
        if (traffic == PEAK) {
            bench::send(workload, 0, packets, atc_api_receive_packet);
        }
        const double seconds = pass();
        held.see(seconds);
        state.SetIterationTime(seconds);
    }
    bench::reset(workload);
    state.counters["ns"] = held.value() * 1e9 / records;
    state.counters["held-ms"] = held.value() * 1e3;
}

void of_flows(benchmark::State &state, uint32_t count, Traffic traffic) {
    evaluation(state, bench::flows(count), count, traffic);
}

void of_sources(benchmark::State &state, uint32_t flows) {
    evaluation(state, bench::sources_of_flows(flows), flows * (1 + ATC_SOURCES_PER_FLOW), QUIET);
}

BENCHMARK_CAPTURE(of_flows, quiet, 100'000, QUIET)->Name("quiet-100000")->UseManualTime()->Iterations(50);
BENCHMARK_CAPTURE(of_flows, quiet, 1'000'000, QUIET)->Name("quiet-1000000")->UseManualTime()->Iterations(10);
BENCHMARK_CAPTURE(of_flows, peak, 100'000, PEAK)->Name("peak-100000")->UseManualTime()->Iterations(10);
BENCHMARK_CAPTURE(of_sources, quiet, 49)->Name("sources-100352")->UseManualTime()->Iterations(50);

}  // namespace

int main(int argc, char **argv) {
    bench::start_module();
    return bench::run_program(argc, argv, kUsage);
}
