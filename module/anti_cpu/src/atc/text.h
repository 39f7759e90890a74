// SPDX-License-Identifier: Apache-2.0
// text.h: bounded text, and the one place that words a source address.
//
// Used by the alarms, reports, listings, capture file names. Uses the C library and the card's inet_ntop6. Nothing is
// written at or behind the end of a buffer, and every text is terminated. Lock: none; buffers are the caller's.
#pragma once

#include <cstdint>

#include "anti_cpu/platform.h"

// A text growing at the end of a buffer. Invariant: len < size and buf[len] is the terminator.
struct atc_text_t {
    char *buf;
    uint32_t size;  // bytes of buf, at least 1
    uint32_t len;   // characters written
};

// Starts an empty text in 'buf' of 'size' bytes.
void atc_text_init(atc_text_t *text, char *buf, uint32_t size);

// Appends formatted text; what does not fit is cut. Returns false when it was cut.
bool atc_text_append(atc_text_t *text, const char *format, ...) ATC_PRINTF(2, 3);

// Appends formatted text whole, or nothing when it does not fit. Returns whether it did.
bool atc_text_append_whole(atc_text_t *text, const char *format, ...) ATC_PRINTF(2, 3);

// Writes a source as "mac 00:11:22:33:44:55", "ip 10.0.0.1" or "ipv6 2001:db8::1" by its type (ATC_SRC_*); any other
// type gives an empty text. 'addr' holds the address as a source entry keeps it. 64 bytes hold every text.
void atc_src_text(uint32_t src_type, const uint8_t *addr, char *buf, uint32_t size);

// The same for a file name, without the leading word and with '-' between the bytes of a MAC address.
void atc_src_file_text(uint32_t src_type, const uint8_t *addr, char *buf, uint32_t size);

// Writes an IPv4 address in processor byte order as dotted text; INET_ADDRSTRLEN bytes hold it.
void atc_ipv4_text(uint32_t address, char *buf, uint32_t size);
