#include "floor.h"

#include "atc/parser.h"
#include "atc/state/context.h"

// The symbols that floor.map lets out.
#define ATC_BENCH_EXPORT __attribute__((visibility("default")))

namespace {

// As many as a received packet is counted in: all packets, its VLAN, its port, its protocol. Volatile: each is stored.
volatile uint32_t counters[4];

}  // namespace

ATC_BENCH_EXPORT void atc_bench_floor_start() ATC_NO_THREAD_SAFETY_ANALYSIS {
    g_atc_global.sem = bep_semMCreateEx(1, __FILE__, __LINE__);
}

ATC_BENCH_EXPORT int atc_bench_floor(const uint8_t *buf, uint32_t len, uint32_t port, uint32_t vlan) {
    const atc_guard_t guard;
    atc_pkt_info_t info = {};
    info.direction = ATC_DIRECTION_RX;
    info.port = port;
    info.vlan = static_cast<uint16_t>(vlan);
    atc_packet_parser(buf, len, &info);
    for (volatile uint32_t &counter : counters) {
        counter = counter + 1;
    }
    return 0;
}

ATC_BENCH_EXPORT int atc_bench_lock(const uint8_t *, uint32_t, uint32_t, uint32_t) {
    const atc_guard_t guard;
    return 0;
}
