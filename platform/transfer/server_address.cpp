// SPDX-License-Identifier: Apache-2.0
// server_address.cpp: see server_address.h. Called by transfer.cpp and its test; keeps nothing.
#include "transfer/server_address.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace card {
namespace {

constexpr size_t kLongestName = 253;  // RFC 1035, 2.3.4, as text without the last dot

bool is_name(std::string_view text) {
    const auto allowed = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
               c == '_';
    };
    return !text.empty() && text.size() <= kLongestName && text.front() != '-' && std::ranges::all_of(text, allowed);
}

bool is_ipv6(std::string_view text) {
    in6_addr address;
    return inet_pton(AF_INET6, std::string(text).c_str(), &address) == 1 && text.find('\0') == text.npos;
}

bool is_port(std::string_view text) {
    uint32_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() && port >= 1 && port <= 65535;
}

}  // namespace

std::optional<std::string> url_authority(std::string_view server) {
    if (is_ipv6(server)) {
        return "[" + std::string(server) + "]";
    }
    const bool bracketed = server.starts_with('[');
    const size_t host_end = bracketed ? server.find(']') : server.find(':');
    const std::string_view host = server.substr(bracketed ? 1 : 0, bracketed ? host_end - 1 : host_end);
    const size_t rest_at = std::min(server.size(), host_end == server.npos ? host_end : host_end + (bracketed ? 1 : 0));
    const std::string_view rest = server.substr(rest_at);
    const bool host_ok = bracketed ? host_end != server.npos && is_ipv6(host) : is_name(host);
    const bool rest_ok = rest.empty() || (rest.front() == ':' && is_port(rest.substr(1)));
    return host_ok && rest_ok ? std::optional(std::string(server)) : std::nullopt;
}

}  // namespace card
