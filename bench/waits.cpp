// SPDX-License-Identifier: Apache-2.0
// waits.cpp: what a packet waits for while something walks everything that the module remembers.
//
// One thread hands over packets of known flows all the time and times each; the main thread lets passes end, sweeps,
// clears, sets and reports. Links the module's objects, to call the passes where the monitor task calls them. The calls
// that take and give the mutex are wrapped (see CMakeLists.txt): what the main thread does under it is measured in its
// own processor time, so what the machine's scheduler adds to a wait can be told from what the module does.
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <numeric>
#include <thread>
#include <vector>

#include "anti_cpu/anti_cpu.h"
#include "atc/evaluation.h"
#include "atc/trunk.h"
#include "card.h"
#include "clock/clock.h"
#include "workloads.h"

namespace {

constexpr char kUsage[] =
    "bench_waits [--rows] [--quick]\n"
    "\n"
    "How long a packet takes, wait included, while each of the things that walk everything happens, at 10,000 and at\n"
    "1,000,000 flows (--quick: at 10,000 only): the packet in the middle, at 99, 99.9 and 99.999 %, and the longest, "
    "in\n"
    "microseconds; and the longest hold of the mutex in processor time of who held it. Two minutes, on two idle "
    "cores.\n"
    "--rows prints \"what|flows|figure|value\" lines only.\n";

constexpr uint64_t kGoalNs = 50'000;  // packets that take longer are counted
constexpr uint32_t kPort = 1;
constexpr uint32_t kFloodVlan = 4000;  // of a flow with all the sources that one can have

uint64_t now_ns() {
    return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

uint64_t thread_ns() {
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

// Nanoseconds in steps of 3 %.
class Histogram {
public:
    void see(uint64_t ns) {
        counts_[slot(ns)]++;
        seen_++;
        longest_ = std::max(longest_, ns);
    }
    uint64_t seen() const { return seen_; }
    uint64_t over(uint64_t ns) const {
        return std::accumulate(counts_.begin() + static_cast<ptrdiff_t>(slot(ns)), counts_.end(), uint64_t{0});
    }
    double longest_us() const { return static_cast<double>(longest_) / 1e3; }
    // What this share of all do not exceed.
    double share_us(double share) const {
        uint64_t left = static_cast<uint64_t>(static_cast<double>(seen_) * share);
        for (size_t i = 0; i < counts_.size(); ++i) {
            if (counts_[i] > left) {
                return std::min(static_cast<double>(upper(i)) / 1e3, longest_us());
            }
            left -= counts_[i];
        }
        return longest_us();
    }

private:
    static constexpr int kBits = 5;
    static size_t slot(uint64_t ns) {
        const int shift = std::max(0, static_cast<int>(std::bit_width(ns)) - kBits - 1);
        return (static_cast<size_t>(shift) << kBits) + static_cast<size_t>(ns >> shift);
    }
    static uint64_t upper(size_t slot) {
        const size_t shift = slot < (2u << kBits) ? 0 : (slot >> kBits) - 1;
        return ((slot - (shift << kBits)) + 1) << shift;
    }
    std::array<uint64_t, 64 << kBits> counts_{};
    uint64_t seen_ = 0;
    uint64_t longest_ = 0;
};

// Holds of the mutex by the main thread.
struct Holds {
    bool is_on = false;
    uint64_t start = 0;
    Histogram times;
};
thread_local constinit Holds *holds = nullptr;

// The thread that sends. It records while there is somewhere to record to.
class Sender {
public:
    explicit Sender(const bench::Workload &workload) : thread_([this, &workload] { run(workload); }) {}
    ~Sender() {
        stop_ = true;
        thread_.join();
    }
    void record(Histogram *into) {
        into_ = into;
        while (seen_ != into) {  // the packet before belongs to what was before
            std::this_thread::yield();
        }
    }

private:
    void run(const bench::Workload &workload) {
        const card::RealTimeScope measured_by_the_systems_clock;
        for (size_t next = 0; !stop_; next = (next + 1) % workload.packets.size()) {
            Histogram *into = into_;
            seen_ = into;
            const bench::Packet &packet = workload.packets[next];
            const uint64_t start = now_ns();
            atc_api_receive_packet(workload.bytes.data() + packet.offset, packet.len, packet.port, packet.vlan);
            if (into != nullptr) {
                into->see(now_ns() - start);
            }
        }
    }
    std::atomic<bool> stop_ = false;
    std::atomic<Histogram *> into_ = nullptr;
    std::atomic<Histogram *> seen_ = nullptr;
    std::thread thread_;
};

int report(int (*get)(char **text)) {
    char *text = nullptr;
    const int result = get(&text);
    atc_api_free_buffer(text);
    return result;
}

void pass(int (*expire)(uintptr_t, uintptr_t, uintptr_t)) {
    const atc_guard_t guard;
    expire(0, 0, 0);
}

void list_sources() {
    static uint32_t types[ATC_SOURCES_PER_FLOW];
    static atc_src_stat_t records[ATC_SOURCES_PER_FLOW];
    uint32_t count = 0;
    atc_api_get_src_statistic(ATC_DIRECTION_RX, kFloodVlan, kPort, ATC_TCP_SYN, types, &count, records);
}

// A flow that has all its sources, and nothing counted: the sweep takes it.
void make_flood(const bench::Workload &flood) {
    for (const bench::Packet &packet : flood.packets) {
        atc_api_receive_packet(flood.bytes.data() + packet.offset, packet.len, kPort, kFloodVlan);
    }
}

void clear_flood() {
    atc_api_clear_statistic(ATC_DIRECTION_RX, kFloodVlan, kPort, ATC_TCP_SYN, ATC_SRC_NONE, nullptr);
}

// 100 rules on one port, for a trunk to move.
void make_rules(const bench::Workload &flood) {
    atc_api_set_protocol_hw_deny_enable(ATC_TCP_SYN, 1);
    for (uint32_t vlan = 1; vlan <= 100; ++vlan) {
        for (int i = 0; i < 3; ++i) {
            atc_api_receive_packet(flood.bytes.data(), flood.packets[0].len, 900, vlan);
        }
    }
    atc_api_set_protocol_hw_deny_enable(ATC_TCP_SYN, 2);  // no more of them
}

void move_rules() {
    static uint32_t member = 1;
    const atc_guard_t guard;
    atc_trunk_add_pro(900, member++ % 8 + 1);
    atc_trunk_del_pro(900, (member + 5) % 8 + 1);
}

struct Case {
    const char *what;
    int times;
    std::function<void()> prepare;
    std::function<void()> run;
};

void nothing() {}

// About as long as a pass of a million flows, without the mutex: shows what the machine adds to a packet.
void be_busy() {
    for (const uint64_t end = now_ns() + 200'000'000; now_ns() < end;) {
    }
}

std::vector<Case> cases(const bench::Workload &flood) {
    const auto flood_again = [&flood] { make_flood(flood); };
    const auto limits = [](uint32_t pps) {
        return [pps] {
            for (uint32_t id = 1; id <= 4; ++id) {
                atc_api_set_protocol_fp_limit(id, pps);
            }
        };
    };
    return {
        {"nothing", 5, nothing, be_busy},
        {"fast pass", 10, nothing, [] { pass(atc_fp_expire); }},
        {"long pass", 10, nothing, [] { pass(atc_lp_expire); }},
        {"fast pass, 7 % over the limit", 3, limits(1), [] { pass(atc_fp_expire); }},
        {"alarm listing", 3, nothing, [] { report(atc_api_get_alarm_info); }},
        {"fast pass, 7 % restored", 3, limits(1'000'000'000), [] { pass(atc_fp_expire); }},
        {"flow table", 5, nothing, [] { report(atc_api_get_stat_brief); }},
        {"port table", 50, nothing, [] { report(atc_api_get_rx_port_stat_brief); }},
        {"VLAN table", 50, nothing, [] { report(atc_api_get_rx_vlan_stat_brief); }},
        {"protocol table", 50, nothing, [] { report(atc_api_get_rx_protocol_stat_brief); }},
        {"fast period set", 5, nothing, [] { atc_api_set_fast_period_time(1); }},
        {"deny switched off", 5, nothing, [] { atc_api_set_protocol_deny_enable(ATC_ARP, 0); }},
        {"listing of 2,048 sources", 50, flood_again, list_sources},
        {"clear of a flow with 2,048 sources", 50, flood_again, clear_flood},
        {"sweep, such a flow goes", 3,
         [&flood] {
             make_flood(flood);
             clear_flood();
         },
         [] { pass(atc_24h_expire); }},
        {"100 rules moved with a trunk", 5, [&flood] { make_rules(flood); }, move_rules},
        {"listing of 100 rules", 20, nothing, [] { report(atc_api_get_hw_deny_info); }},
        {"clear of 100 rules", 1, nothing, [] { atc_api_clear_hw_deny_info(0); }},
        {"clear all", 1, nothing, [] { atc_api_clear_statistic_all(); }},
        {"new flows behind it", 1, nothing, [] { std::this_thread::sleep_for(std::chrono::seconds(2)); }},
    };
}

void measure(uint32_t flows, bool rows) {
    const bench::Workload workload = bench::flows(flows);
    const bench::Workload flood = bench::sources(ATC_SOURCES_PER_FLOW);
    bench::warm(workload);
    atc_api_set_protocol_fp_limit(ATC_TCP_SYN, 1);
    atc_api_set_protocol_src_fp_limit(ATC_TCP_SYN, 1'000'000'000);
    Sender sender(workload);
    for (const Case &one : cases(flood)) {
        Histogram packets;
        Holds held;
        double seconds = 0;
        for (int i = 0; i < one.times; ++i) {
            one.prepare();
            sender.record(&packets);
            holds = &held;
            const uint64_t start = now_ns();
            one.run();
            seconds += static_cast<double>(now_ns() - start) / 1e9;
            holds = nullptr;
            sender.record(nullptr);
        }
        const std::pair<const char *, double> figures[] = {
            {"p50", packets.share_us(0.5)},          {"p99", packets.share_us(0.99)},
            {"p99.9", packets.share_us(0.999)},      {"p99.999", packets.share_us(0.99999)},
            {"longest", packets.longest_us()},       {"over", static_cast<double>(packets.over(kGoalNs)) / seconds},
            {"held-p99", held.times.share_us(0.99)}, {"held", held.times.longest_us()},
        };
        if (rows) {
            for (const auto &[name, value] : figures) {
                std::printf("%s|%u|%s|%.1f\n", one.what, flows, name, value);
            }
        } else {
            std::printf("| %s | %u |", one.what, flows);
            for (const auto &[name, value] : figures) {
                std::printf(value < 10 ? " %.2f |" : " %.0f |", value);
            }
            std::printf(" %llu | %.1f |\n", static_cast<unsigned long long>(packets.seen()), seconds * 1e3 / one.times);
        }
        std::fflush(stdout);
    }
}

}  // namespace

extern "C" {

int __real_bep_semTakeEx(uint32_t sem, int timeout, const char *file, int line);
int __real_bep_semGiveEx(uint32_t sem, const char *file, int line);

int __wrap_bep_semTakeEx(uint32_t sem, int timeout, const char *file, int line) {
    const int result = __real_bep_semTakeEx(sem, timeout, file, line);
    if (holds != nullptr) {
        holds->is_on = true;
        holds->start = thread_ns();
    }
    return result;
}

int __wrap_bep_semGiveEx(uint32_t sem, const char *file, int line) {
    if (holds != nullptr && holds->is_on) {
        holds->is_on = false;
        holds->times.see(thread_ns() - holds->start);
    }
    return __real_bep_semGiveEx(sem, file, line);
}

}  // extern "C"

int main(int argc, char **argv) {
    bool rows = false;
    bool quick = false;
    for (int i = 1; i < argc; ++i) {
        rows = rows || std::strcmp(argv[i], "--rows") == 0;
        quick = quick || std::strcmp(argv[i], "--quick") == 0;
        if (std::strcmp(argv[i], "--rows") != 0 && std::strcmp(argv[i], "--quick") != 0) {
            const bool help = std::strcmp(argv[i], "--help") == 0;
            std::fprintf(help ? stdout : stderr, "%s", kUsage);
            return help ? 0 : 2;
        }
    }
    bench::start_module();
    if (!rows) {
        std::puts(
            "| while | flows | p50, us | p99 | p99.9 | p99.999 | longest | over 50 us, a second | hold p99 | longest "
            "hold "
            "| packets | ms each |\n|:--|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|");
    }
    for (const uint32_t flows : {10'000u, 1'000'000u}) {
        if (flows == 10'000 || !quick) {
            measure(flows, rows);
        }
    }
    return 0;
}
