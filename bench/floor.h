// SPDX-License-Identifier: Apache-2.0
// floor.h: what no packet path can go below: take the mutex, parse the frame, count in four words, give the mutex back.
//
// Used by the benchmarks as the other side of every ratio. A shared library of its own, so that a packet costs the
// same call as atc_api_receive_packet; it uses the card's mutex and the module's own parser.
#pragma once

#include <cstdint>

extern "C" {

// Creates the floor's mutex and indexes. Once, before the first packet.
void atc_bench_floor_start();

// As atc_api_receive_packet, which finds its counters where this has them at hand. Returns 0.
int atc_bench_floor(const uint8_t *buf, uint32_t len, uint32_t port, uint32_t vlan);

// The floor with its counters found by walking four ordered indexes: what remembering entries saves. It has indexes of
// its own, which grow with what they are shown. Returns 0, or -1 without memory.
int atc_bench_trees(const uint8_t *buf, uint32_t len, uint32_t port, uint32_t vlan);

// The mutex alone, taken and given back.
int atc_bench_lock(const uint8_t *buf, uint32_t len, uint32_t port, uint32_t vlan);
}
