// SPDX-License-Identifier: Apache-2.0
// memory.cpp: bytes that a flow and a source cost, by what the allocator and the kernel say.
//
// Half of the records are made first, so that everything they share (ports, VLANs, the allocator's own) is there; the
// second half is measured. Allocator: mallinfo2, all bytes handed out with the overhead of their chunks. Kernel: the
// growth of the resident set.
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "anti_cpu/anti_cpu.h"
#include "card.h"
#include "os/os.h"
#include "workloads.h"

namespace {

constexpr char kUsage[] =
    "bench_memory [--rows]\n"
    "\n"
    "Bytes of a flow and of a source, the allocator's share included (bytes), and by the growth of the resident set\n"
    "(rss-bytes). --rows prints \"record.figure value\" lines only.\n";

struct Use {
    double allocated;  // bytes
    double resident;   // bytes
    int64_t blocks;
};

Use use_now() {
    const struct mallinfo2 info = mallinfo2();
    long pages = 0;
    if (FILE *file = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(file, "%*d %ld", &pages) != 1) {
            pages = 0;
        }
        std::fclose(file);
    }
    return {static_cast<double>(info.uordblks + info.hblkhd),
            static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE)), card::live_blocks()};
}

// Makes 'records' records by the packets behind the first 'shared', which made all else that there is to make.
void measure(const char *name, const bench::Workload &workload, uint32_t shared, bool rows) {
    const uint32_t records = static_cast<uint32_t>(workload.packets.size()) - shared;
    bench::reset(workload);
    malloc_trim(0);  // what was freed before must not be handed out again uncounted
    bench::send(workload, 0, shared, atc_api_receive_packet);
    const Use before = use_now();
    bench::send(workload, shared, records, atc_api_receive_packet);
    const Use after = use_now();
    const int64_t blocks = after.blocks - before.blocks;
    if (blocks < records || blocks > records + records / bench::kRecordsABlock + bench::kBlocksBeside) {
        std::fprintf(stderr, "bench: %u records of '%s' took %lld blocks\n", records, name,
                     static_cast<long long>(blocks));
        std::exit(1);
    }
    std::printf(rows ? "%s.bytes %.1f\n%s.rss-bytes %.1f\n" : "%-8s %8.1f bytes allocated\n%-8s %8.1f bytes resident\n",
                name, (after.allocated - before.allocated) / records, name,
                (after.resident - before.resident) / records);
}

}  // namespace

int main(int argc, char **argv) {
    const bool rows = argc == 2 && std::strcmp(argv[1], "--rows") == 0;
    if (argc > 1 && !rows) {
        const bool help = std::strcmp(argv[1], "--help") == 0;
        std::fprintf(help ? stdout : stderr, "%s", kUsage);
        return help ? 0 : 2;
    }
    bench::start_module();
    measure("flow", bench::flows(200'000), 100'000, rows);
    measure("source", bench::sources_of_flows(64), 64, rows);
    return 0;
}
