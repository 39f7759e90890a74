// SPDX-License-Identifier: Apache-2.0
// addresses.h: addresses as people write them, and as the module keeps them.
//
// Used by: main, the console, module_tables, captures_folder. Pure.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "anti_cpu/types.h"

namespace host {

using MacAddress = std::array<uint8_t, 6>;
using SourceBytes = std::array<uint8_t, ATC_SRC_ADDR_SIZE>;

// A sender's address as the module keeps it: by its type 6 bytes of MAC, an IPv4 number in processor order in the first
// four, or 16 of IPv6; zeros behind it.
struct Source {
    uint32_t type = ATC_SRC_NONE;
    SourceBytes bytes{};
    auto operator<=>(const Source &) const = default;

    // As the module's operations take it: null where there is none.
    const void *address() const { return type == ATC_SRC_NONE ? nullptr : bytes.data(); }
};

// An address, perhaps with the length of a prefix in bits.
struct Prefix {
    Source address;
    uint32_t length = 0;  // 0 = none given
};

// "00:11:22:33:44:55", with ':' or '-'.
std::optional<MacAddress> parse_mac(std::string_view text);

// MAC, IPv4 or IPv6, by its form.
std::optional<Source> parse_source(std::string_view text);

// The same with an optional "/length" that is within the address.
std::optional<Prefix> parse_prefix(std::string_view text);

// Decimal, the whole text, within 0..'highest'.
std::optional<uint32_t> parse_number(std::string_view text, uint32_t highest);

// Without a word in front: "10.0.0.1".
std::string source_text(const Source &source);

uint32_t ipv4_number(const Source &source);

// As people list addresses: by type, then by number. The module lists IPv4 addresses by their bytes in memory, which is
// the order of operator<=>.
bool comes_before(const Source &a, const Source &b);

// Bits of an address of this type of source.
uint32_t address_bits(uint32_t type);

// What atc_protocol_id_to_name gives.
std::string protocol_name(uint32_t id);

// By name, alias or number; 0 = none of these.
uint32_t parse_protocol(std::string_view text);

}  // namespace host
