// SPDX-License-Identifier: Apache-2.0
#include "live/port_option.h"

#include <charconv>
#include <cstdio>
#include <string_view>

namespace host {

namespace {

bool read_number(std::string_view text, uint32_t least, uint32_t most, uint32_t *number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
    return error == std::errc() && end == text.data() + text.size() && *number >= least && *number <= most;
}

}  // namespace

bool read_port(const std::string &text, std::set<uint32_t> &taken, card::PortSpec &spec) {
    const size_t equals = text.rfind('=');
    spec.interface = text.substr(0, equals);
    uint32_t port = taken.empty() ? 1 : *taken.rbegin() + 1;
    uint32_t vlan = 1;
    if (equals != std::string::npos) {
        const std::string numbers = text.substr(equals + 1);
        const size_t colon = numbers.find(':');
        if (!read_number(std::string_view(numbers).substr(0, colon), 1, 59999, &port) ||
            (colon != std::string::npos && !read_number(std::string_view(numbers).substr(colon + 1), 0, 4095, &vlan))) {
            std::fprintf(stderr, "anti-cpu: --port %s: expected IFACE[=PORT[:VLAN]], a port of 1 to 59999\n",
                         text.c_str());
            return false;
        }
    }
    if (spec.interface.empty() || !taken.insert(port).second) {
        std::fprintf(stderr, "anti-cpu: --port %s: %s\n", text.c_str(),
                     spec.interface.empty() ? "no interface is named" : "two interfaces have this port number");
        return false;
    }
    spec.port = port;
    spec.vlan = static_cast<uint16_t>(vlan);
    return true;
}

}  // namespace host
