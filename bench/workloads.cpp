// SPDX-License-Identifier: Apache-2.0
#include "workloads.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <random>
#include <set>
#include <utility>

#include "anti_cpu/anti_cpu.h"
#include "frames.h"
#include "os/os.h"

namespace bench {
namespace {

constexpr uint32_t kNoLimit = 1'000'000'000;
constexpr uint32_t kPorts = 48;  // of a line card
constexpr uint32_t kSources = ATC_SOURCES_PER_FLOW;

// std::shuffle leaves its draws to the library; these are the same everywhere.
template <typename Item>
void shuffle(std::vector<Item> *items, std::mt19937 *random) {
    for (size_t left = items->size(); left > 1; --left) {
        std::swap((*items)[left - 1], (*items)[(*random)() % left]);
    }
}

std::vector<uint32_t> numbers(uint32_t count) {
    std::vector<uint32_t> all(count);
    for (uint32_t i = 0; i < count; ++i) {
        all[i] = i;
    }
    return all;
}

void add(Workload *workload, const Frame &frame, uint32_t port, uint32_t vlan) {
    workload->packets.push_back({static_cast<uint32_t>(workload->bytes.size()), frame.size(), port, vlan});
    workload->bytes.insert(workload->bytes.end(), frame.data(), frame.data() + frame.size());
}

// One packet of class 'protocol' per key. Returns how many ports, VLANs and classes there are: an entry each.
struct Key {
    uint32_t port;
    uint32_t vlan;
    uint16_t protocol;
};

int64_t add_keys(Workload *workload, const std::vector<Key> &keys) {
    std::set<uint32_t> ports;
    std::set<uint32_t> vlans;
    std::set<uint16_t> protocols;
    for (const Key &key : keys) {
        add(workload, frame_of_class(key.protocol), key.port, key.vlan);
        ports.insert(key.port);
        vlans.insert(key.vlan);
        protocols.insert(key.protocol);
    }
    return static_cast<int64_t>(ports.size() + vlans.size() + protocols.size());
}

Frame syn_from(uint32_t source) {
    return tcp(40000, 80, SYN).src_ip(0x0A000000 + source);
}

void check_records(int64_t found, int64_t expected) {
    if (found < expected || found > expected + expected / kRecordsABlock + kBlocksBeside) {
        std::fprintf(stderr, "bench: the module keeps %lld blocks after a workload that makes %lld records\n",
                     static_cast<long long>(found), static_cast<long long>(expected));
        std::exit(1);
    }
}

}  // namespace

Workload one_flow() {
    Workload workload;
    workload.limit = 1;
    for (int i = 0; i < 256; ++i) {
        add(&workload, arp(), 3, 100);
    }
    workload.records = 1 + 1 + 3;
    return workload;
}

Workload mix(Mix which) {
    constexpr uint32_t kVlans = 200;
    Workload workload;
    workload.limit = kNoLimit;
    std::mt19937 random(1);
    std::vector<uint32_t> order;
    for (uint32_t key = 0; key < kVlans * ATC_PROTOCOL_COUNT; ++key) {
        if (which == Mix::kFull || (key / ATC_PROTOCOL_COUNT + key % ATC_PROTOCOL_COUNT) % 2 == 0) {
            order.push_back(key);
        }
    }
    std::vector<Key> keys;
    for (int pass = 0; pass < 4; ++pass) {
        shuffle(&order, &random);
        for (uint32_t key : order) {
            const uint32_t vlan = 100 + key / ATC_PROTOCOL_COUNT;
            keys.push_back({1 + vlan % kPorts, vlan, static_cast<uint16_t>(1 + key % ATC_PROTOCOL_COUNT)});
        }
    }
    workload.records = static_cast<int64_t>(order.size()) + add_keys(&workload, keys);
    return workload;
}

Workload sources(uint32_t count) {
    Workload workload;
    workload.limit = 1;
    std::mt19937 random(2);
    std::vector<uint32_t> order = numbers(count);
    for (int pass = 0; pass < 8; ++pass) {
        shuffle(&order, &random);
        for (uint32_t source : order) {
            add(&workload, syn_from(source), 3, 100);
        }
    }
    workload.records = 1 + int64_t{count} + 3;
    return workload;
}

Workload flows(uint32_t count) {
    constexpr uint32_t kVlans = 360;
    Workload workload;
    workload.limit = kNoLimit;
    std::mt19937 random(3);
    std::vector<uint32_t> order = numbers(kPorts * kVlans * ATC_PROTOCOL_COUNT);
    shuffle(&order, &random);
    order.resize(count);
    std::vector<Key> keys;
    for (uint32_t key : order) {
        const uint32_t place = key / ATC_PROTOCOL_COUNT;
        keys.push_back({1 + place % kPorts, 1 + place / kPorts, static_cast<uint16_t>(1 + key % ATC_PROTOCOL_COUNT)});
    }
    workload.records = count + add_keys(&workload, keys);
    return workload;
}

Workload new_flows() {
    Workload workload = flows(100'000);
    workload.creates = true;
    return workload;
}

Workload sources_of_flows(uint32_t count) {
    Workload workload;
    workload.limit = 1;
    workload.creates = true;
    std::mt19937 random(4);
    std::vector<uint32_t> order = numbers(count * (kSources - 1));
    shuffle(&order, &random);
    for (uint32_t flow = 0; flow < count; ++flow) {
        add(&workload, syn_from(0), 3, 1 + flow);
    }
    for (uint32_t key : order) {
        add(&workload, syn_from(1 + key / count), 3, 1 + key % count);
    }
    workload.records = int64_t{count} * (1 + kSources) + 1 + count + 1;
    return workload;
}

Workload packet_workload(std::string_view name) {
    if (name == "one-flow") {
        return one_flow();
    }
    if (name == "mix") {
        return mix(Mix::kFull);
    }
    if (name == "half-mix") {
        return mix(Mix::kHalf);
    }
    if (name == "sources") {
        return sources(kSources);
    }
    if (name == "new-flow") {
        return new_flows();
    }
    if (name == "million") {
        return flows(1'000'000);
    }
    std::fprintf(stderr, "bench: no workload is called %.*s\n", static_cast<int>(name.size()), name.data());
    std::exit(2);
}

void reset(const Workload &workload) {
    atc_api_clear_statistic_all();
    atc_api_set_fast_period_time(1);
    for (uint32_t id = 1; id <= ATC_PROTOCOL_COUNT; ++id) {
        atc_api_set_protocol_fp_limit(id, workload.limit);
        atc_api_set_protocol_src_fp_limit(id, workload.limit);
    }
}

void warm(const Workload &workload) {
    reset(workload);
    if (workload.creates) {
        return;
    }
    const int64_t before = card::live_blocks();
    for (const Packet &packet : workload.packets) {
        atc_api_receive_packet(workload.bytes.data() + packet.offset, packet.len, packet.port, packet.vlan);
    }
    check_records(card::live_blocks() - before, workload.records);
}

uint32_t send(const Workload &workload, uint32_t first, uint32_t count, PacketCall call) {
    const uint32_t size = static_cast<uint32_t>(workload.packets.size());
    while (count > 0) {
        const uint32_t part = std::min(count, size - first);
        atc_bench_measured(workload.bytes.data(), workload.packets.data() + first, part, call);
        first = (first + part) % size;
        count -= part;
    }
    return first;
}

}  // namespace bench

[[gnu::noinline]] void atc_bench_measured(const uint8_t *bytes, const bench::Packet *packets, uint32_t count,
                                          bench::PacketCall call) {
    for (const bench::Packet *packet = packets; packet != packets + count; ++packet) {
        call(bytes + packet->offset, packet->len, packet->port, packet->vlan);
    }
}
