// SPDX-License-Identifier: Apache-2.0
#include "addresses.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstdio>
#include <cstring>

#include "anti_cpu/anti_cpu.h"

namespace host {

std::optional<MacAddress> parse_mac(std::string_view text) {
    constexpr size_t mac_text_size = 17;
    MacAddress mac{};
    if (text.size() != mac_text_size) {
        return std::nullopt;
    }
    for (size_t i = 0; i < mac.size(); i++) {
        const char *digits = text.data() + 3 * i;
        const auto [end, error] = std::from_chars(digits, digits + 2, mac[i], 16);
        const bool ends_well = i + 1 == mac.size() || digits[2] == ':' || digits[2] == '-';
        if (error != std::errc() || end != digits + 2 || !ends_well) {
            return std::nullopt;
        }
    }
    return mac;
}

std::optional<Source> parse_source(std::string_view text) {
    Source source;
    if (const auto mac = parse_mac(text)) {
        source.type = ATC_SRC_MAC;
        std::memcpy(source.bytes.data(), mac->data(), mac->size());
        return source;
    }
    const std::string terminated(text);
    in_addr ipv4{};
    if (inet_pton(AF_INET, terminated.c_str(), &ipv4) == 1) {
        const uint32_t number = ntohl(ipv4.s_addr);
        source.type = ATC_SRC_IPV4;
        std::memcpy(source.bytes.data(), &number, sizeof(number));
        return source;
    }
    if (inet_pton(AF_INET6, terminated.c_str(), source.bytes.data()) == 1) {
        source.type = ATC_SRC_IPV6;
        return source;
    }
    return std::nullopt;
}

std::optional<Prefix> parse_prefix(std::string_view text) {
    const size_t slash = text.find('/');
    const auto address = parse_source(text.substr(0, slash));
    if (!address) {
        return std::nullopt;
    }
    Prefix prefix{*address, 0};
    if (slash != std::string_view::npos) {
        const auto length = parse_number(text.substr(slash + 1), address_bits(address->type));
        if (!length || *length == 0) {
            return std::nullopt;
        }
        prefix.length = *length;
    }
    return prefix;
}

std::optional<uint32_t> parse_number(std::string_view text, uint32_t highest) {
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number > highest) {
        return std::nullopt;
    }
    return number;
}

std::string source_text(const Source &source) {
    char text[INET6_ADDRSTRLEN] = "";
    const uint8_t *b = source.bytes.data();
    if (source.type == ATC_SRC_MAC) {
        std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4], b[5]);
    } else if (source.type == ATC_SRC_IPV4) {
        const in_addr ipv4{htonl(ipv4_number(source))};
        inet_ntop(AF_INET, &ipv4, text, sizeof(text));
    } else if (source.type == ATC_SRC_IPV6) {
        inet_ntop(AF_INET6, b, text, sizeof(text));
    }
    return text;
}

uint32_t ipv4_number(const Source &source) {
    uint32_t number = 0;
    std::memcpy(&number, source.bytes.data(), sizeof(number));
    return number;
}

bool comes_before(const Source &a, const Source &b) {
    return a.type == ATC_SRC_IPV4 && b.type == ATC_SRC_IPV4 ? ipv4_number(a) < ipv4_number(b) : a < b;
}

uint32_t address_bits(uint32_t type) {
    return type == ATC_SRC_MAC ? 48 : type == ATC_SRC_IPV4 ? 32 : 128;
}

std::string protocol_name(uint32_t id) {
    char name[ATC_NAME_SIZE] = "";
    atc_protocol_id_to_name(id, name, sizeof(name));
    return name;
}

uint32_t parse_protocol(std::string_view text) {
    if (const auto number = parse_number(text, ATC_PROTOCOL_COUNT)) {
        return *number;
    }
    const std::string terminated(text);
    uint32_t id = 0;
    if (!terminated.empty()) {
        // The terminator is compared too: only a whole name matches.
        atc_protocol_name_to_id(&id, terminated.c_str(), static_cast<uint32_t>(terminated.size() + 1));
    }
    return id;
}

}  // namespace host
