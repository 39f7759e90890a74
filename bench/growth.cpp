// SPDX-License-Identifier: Apache-2.0
// growth.cpp: how the cost of a packet and of a period grows with what the module remembers, and what a flood that
// varies all that it can costs under a memory budget.
//
// Prints one Markdown table a question; growth.sh runs it. Links the module's objects, as evaluation.cpp does, to call
// the passes where the monitor task calls them: with the mutex held. Every time is the smallest of several.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "anti_cpu/anti_cpu.h"
#include "atc/evaluation.h"
#include "card.h"
#include "floor.h"
#include "os/os.h"
#include "report.h"
#include "workloads.h"

namespace {

constexpr char kUsage[] =
    "bench_growth\n"
    "\n"
    "Prints what a packet, a period and a flood cost by the number of flows, sources, software rules and the memory\n"
    "budget. About two minutes.\n";

constexpr uint32_t kChunk = 65'536;  // packets
constexpr int kChunks = 15;
constexpr int kPasses = 5;
constexpr uint64_t kBytesPerMegabyte = 1'000'000;

using Pass = int (*)(uintptr_t, uintptr_t, uintptr_t);

// Nanoseconds a packet of 'packets' packets from the workload's first on, over and over.
double packet_ns(const bench::Workload &workload, uint32_t packets, bench::PacketCall call) {
    bench::Smallest smallest;
    bench::Workload part = workload;
    part.packets.resize(packets);
    uint32_t next = 0;
    for (int i = 0; i < kChunks; ++i) {
        const double start = bench::thread_seconds();
        next = bench::send(part, next, kChunk, call);
        smallest.see(bench::thread_seconds() - start);
    }
    return smallest.value() * 1e9 / kChunk;
}

double packet_ns(const bench::Workload &workload, bench::PacketCall call) {
    return packet_ns(workload, static_cast<uint32_t>(workload.packets.size()), call);
}

// Milliseconds for which a pass holds the mutex.
double pass_ms(Pass pass) {
    const atc_guard_t guard;
    const double start = bench::thread_seconds();
    pass(0, 0, 0);
    return (bench::thread_seconds() - start) * 1e3;
}

double smallest_pass_ms(Pass pass) {
    bench::Smallest smallest;
    for (int i = 0; i < kPasses; ++i) {
        smallest.see(pass_ms(pass));
    }
    return smallest.value();
}

void by_flows() {
    std::printf(
        "| flows | ns a packet | floor | fast period, ms | long period, ms | day, ms | clear all, ms |\n"
        "|------:|------------:|------:|----------------:|----------------:|--------:|--------------:|\n");
    for (uint32_t count = 1; count <= 1'000'000; count *= 10) {
        const bench::Workload workload = bench::flows(count);
        bench::warm(workload);
        const double floor = packet_ns(workload, atc_bench_floor);
        const double path = packet_ns(workload, atc_api_receive_packet);
        const double fast = smallest_pass_ms(atc_fp_expire);
        const double of_long = smallest_pass_ms(atc_lp_expire);
        const double day = smallest_pass_ms(atc_24h_expire);
        const double start = bench::thread_seconds();
        atc_api_clear_statistic_all();
        const double clear = (bench::thread_seconds() - start) * 1e3;
        std::printf("| %u | %.1f | %.1f | %.3f | %.3f | %.3f | %.3f |\n", count, path, floor, fast, of_long, day,
                    clear);
        std::fflush(stdout);
    }
}

void by_sources() {
    std::printf(
        "\n| sources of a flow | ns a packet | floor | fast period, ms | long period that ages all, ms |\n"
        "|------------------:|------------:|------:|----------------:|------------------------------:|\n");
    for (const uint32_t count : {1u, 16u, 128u, 1024u, 2048u}) {
        const bench::Workload workload = bench::sources(count);
        bench::warm(workload);
        const double floor = packet_ns(workload, atc_bench_floor);
        const double path = packet_ns(workload, atc_api_receive_packet);
        pass_ms(atc_fp_expire);  // raises the alarm, under which sources are told apart
        const double fast = smallest_pass_ms(atc_fp_expire);
        pass_ms(atc_lp_expire);
        const double aged = pass_ms(atc_lp_expire);
        std::printf("| %u | %.1f | %.1f | %.3f | %.3f |\n", count, path, floor, fast, aged);
        std::fflush(stdout);
    }
}

// Rules of which none matches what bench::sources(1) sends: TCP SYN from 10.0.0.0 to 10.0.0.2, received on port 3.
using RuleMaker = atc_filter_rule_t (*)(uint32_t number);

atc_filter_rule_t of_one_address(uint32_t number) {
    atc_filter_rule_t rule = {};
    rule.src_ipv4 = 0x0B000000 + number;
    rule.src_ipv4_masklen = 32;
    return rule;
}

atc_filter_rule_t of_a_prefix(uint32_t number) {
    constexpr uint32_t kLengths = 25;  // 8 to 32 bits
    atc_filter_rule_t rule = {};
    rule.src_ipv4 = (128 + number / kLengths) << 24;
    rule.src_ipv4_masklen = static_cast<uint8_t>(8 + number % kLengths);
    return rule;
}

// What matches first in the record is all that does not: a walk is done with such a rule at once, and an index that
// asks for everything that a rule compares is not.
atc_filter_rule_t of_another_shape(uint32_t number) {
    atc_filter_rule_t rule = {};
    rule.direction = ATC_DIRECTION_TX;
    rule.port = 3;
    rule.vlan = 100;
    rule.protocol = ATC_TCP_SYN;
    rule.src_ipv4 = 0x0A000000;
    rule.dst_ipv4 = 0x0A000002;
    rule.src_ipv4_masklen = static_cast<uint8_t>(1 + number % 32);
    rule.dst_ipv4_masklen = static_cast<uint8_t>(1 + number / 32);
    rule.src_port = 40000;
    rule.dst_port = 80;
    return rule;
}

// Nanoseconds a packet with 'count' such rules, with their index or, when 'is_walked', without.
double rules_ns(const bench::Workload &workload, RuleMaker make, uint32_t count, bool is_walked) {
    for (uint32_t number = 0; number < count; ++number) {
        atc_filter_rule_t rule = make(number);
        rule.action = ATC_ACTION_DENY;
        if (atc_api_filter_rule_add(&rule) != 0) {
            std::fprintf(stderr, "bench: rule %u is refused\n", number);
            std::exit(1);
        }
    }
    const auto miss = [](uint32_t rules) {  // an index that lacks a rule is not asked
        const atc_guard_t guard;
        g_atc_global.deny_rules.rules += rules;
    };
    miss(is_walked ? 1 : 0);
    const double ns = packet_ns(workload, atc_api_receive_packet);
    miss(is_walked ? -1U : 0);
    for (uint32_t id = 1; id <= count; ++id) {
        atc_api_filter_rule_del(id);
    }
    return ns;
}

void by_rules() {
    std::printf(
        "\n| software rules, none of which matches | one address each | walked | prefixes of 25 lengths | walked | "
        "every rule another shape | walked |\n"
        "|--------------------------------------:|-----------------:|-------:|-----------------------:|-------:|"
        "-------------------------:|-------:|\n");
    const bench::Workload workload = bench::sources(1);
    bench::warm(workload);
    for (const uint32_t count : {0u, 1u, 10u, 100u, 1000u}) {
        std::printf("| %u |", count);
        for (const RuleMaker make : {of_one_address, of_a_prefix, of_another_shape}) {
            std::printf(" %.1f | %.1f |", rules_ns(workload, make, count, false),
                        rules_ns(workload, make, count, true));
            std::fflush(stdout);
        }
        std::printf("\n");
    }
}

// A flood of new flows or sources under a budget: until the first packet is refused, behind it, and what goes on.
void flood(const char *what, const bench::Workload &workload, uint64_t budget) {
    const uint32_t packets = static_cast<uint32_t>(workload.packets.size());
    bench::reset(workload);
    card::set_memory_budget(budget);
    const int64_t blocks = card::live_blocks();
    const double start = bench::thread_seconds();
    uint32_t taken = 0;
    const bench::Packet *packet = workload.packets.data();
    for (; taken < packets; ++taken, ++packet) {
        if (atc_api_receive_packet(workload.bytes.data() + packet->offset, packet->len, packet->port, packet->vlan) !=
            0) {
            break;
        }
    }
    const double new_ns = (bench::thread_seconds() - start) * 1e9 / taken;
    const double used = static_cast<double>(card::memory_use().bytes) / static_cast<double>(kBytesPerMegabyte);
    const int64_t records = card::live_blocks() - blocks;
    char refused[16] = "";
    if (taken < packets) {
        bench::Workload rest = workload;
        rest.packets.erase(rest.packets.begin(), rest.packets.begin() + taken);
        std::snprintf(refused, sizeof(refused), "%.1f", packet_ns(rest, atc_api_receive_packet));
    }
    const double known = packet_ns(workload, taken, atc_api_receive_packet);
    pass_ms(atc_fp_expire);
    const double fast = smallest_pass_ms(atc_fp_expire);
    if (static_cast<double>(card::memory_use().bytes) / static_cast<double>(kBytesPerMegabyte) > used) {
        std::fprintf(stderr, "bench: memory grew behind the budget\n");
        std::exit(1);
    }
    std::printf("| %s | %s | %.1f | %lld | %.0f | %s | %.1f | %.1f |\n", what,
                budget == 0 ? "none" : std::to_string(budget / kBytesPerMegabyte).c_str(), used,
                static_cast<long long>(records), new_ns, refused, known, fast);
    std::fflush(stdout);
    card::set_memory_budget(0);
    bench::reset(workload);
}

void by_budget() {
    std::printf(
        "\n| a packet each of | budget, MB | used, MB | records | ns a new record | ns a refused packet | "
        "ns a known one | fast period, ms |\n"
        "|:-----------------|-----------:|---------:|--------:|----------------:|--------------------:|"
        "---------------:|----------------:|\n");
    const bench::Workload flows = bench::flows(1'000'000);
    const bench::Workload sources = bench::sources_of_flows(488);
    for (const uint32_t megabytes : {16u, 64u, 256u, 0u}) {
        flood("1,000,000 flows", flows, megabytes * kBytesPerMegabyte);
        flood("488 flows of 2048 sources", sources, megabytes * kBytesPerMegabyte);
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc > 1) {
        const bool help = std::strcmp(argv[1], "--help") == 0;
        std::fprintf(help ? stdout : stderr, "%s", kUsage);
        return help ? 0 : 2;
    }
    bench::start_module();
    atc_bench_floor_start();
    by_flows();
    by_sources();
    by_rules();
    by_budget();
    return 0;
}
