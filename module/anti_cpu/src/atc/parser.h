// SPDX-License-Identifier: Apache-2.0
// parser.h: from a frame to its descriptor and its protocol class.
//
// Used by the pipeline, once a packet. Uses the catalogue's ids only. Each function reads the headers of its layer in
// place and hands on to the next. Nothing is read at or behind buf + len: where the bytes that a rule reads are
// missing, the packet takes the class of the layer that was cut, and the members read so far stay. Lock: none needed;
// buf and info are the caller's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "anti_cpu/types.h"

// Begins the description of a packet: everything zero but for what came with the frame. 'vlan' has 12 bits.
inline void atc_packet_begin(atc_pkt_info_t *info, uint32_t direction, uint32_t port, uint32_t vlan) {
    // In two parts, because compilers clear 104 bytes by a string instruction, which takes as long as the parser.
    constexpr uint32_t PART = offsetof(atc_pkt_info_t, src_ipv6);
    memset(static_cast<void *>(info), 0, PART);
    memset(reinterpret_cast<uint8_t *>(info) + PART, 0, sizeof(*info) - PART);
    info->direction = static_cast<uint8_t>(direction);
    info->port = port;
    info->vlan = static_cast<uint16_t>(vlan);
}

// Fills 'info', which atc_packet_begin began, from the frame. Returns 0, or -1 for more than four VLAN tags
// or more than four MPLS labels (addresses, src_type and perhaps vlan are then set, protocol is 0).
int atc_packet_parser(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info);

// The layers: each reads at info->hdr_offset, stores the class in info->protocol and returns it (the IP layer returns 0
// and leaves protocol alone for a version other than 4 and 6).
uint16_t atc_packet_parser_eth(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info);
uint16_t atc_packet_parser_ip(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info);
uint16_t atc_packet_parser_tcp(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info);
uint16_t atc_packet_parser_udp(const uint8_t *buf, uint32_t len, atc_pkt_info_t *info);
