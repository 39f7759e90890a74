// SPDX-License-Identifier: Apache-2.0
// rule_mask.h: which bits of a packet a rule compares.
//
// Pure. Used by: rule_match, the rules' indexes, the buffers of the operator's hardware filters, and the host, which
// has the kernel compare the same.
#pragma once

#include <cstdint>

#include "anti_cpu/types.h"

// Writes the bits of its members that a rule compares with a packet as ones, all others of the record as zeros: a
// packet that is the same under this mask matches, when it is long enough and the rule's masks fit.
void atc_rule_mask(const atc_filter_rule_t *rule, atc_filter_rule_t *mask);

// Writes 'bits' one bits, then zeros to the end of the byte behind the last whole one: 'mask' has bits / 8 + 1 bytes.
// Returns 0, or -1 for null.
int atc_masklen_to_mask(uint8_t *mask, uint32_t bits);

// The mask of the bits that are left over behind the whole bytes: 0x00, 0x80, 0xC0 ... 0xFE.
inline uint8_t atc_partial_mask(uint32_t bits) {
    return static_cast<uint8_t>(0xFF00U >> (bits % 8));
}
