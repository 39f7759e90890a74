// SPDX-License-Identifier: Apache-2.0
#include "ports/interfaces.h"

#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>

namespace card {

namespace {

constexpr uint32_t kMacFamily = 0;
constexpr uint32_t kIpv4Family = 4;
constexpr uint32_t kIpv6Family = 6;

void each_address(const std::function<void(const ifaddrs &)> &take) {
    ifaddrs *all = nullptr;
    if (getifaddrs(&all) != 0) {
        return;
    }
    for (const ifaddrs *one = all; one != nullptr; one = one->ifa_next) {
        if (one->ifa_addr != nullptr) {
            take(*one);
        }
    }
    freeifaddrs(all);
}

std::string master_of(const std::string &name) {
    std::error_code error;
    const auto target = std::filesystem::read_symlink("/sys/class/net/" + name + "/master", error);
    return error ? std::string() : target.filename().string();
}

bool is_bond(const std::string &name) {
    std::error_code error;
    return !name.empty() && std::filesystem::exists("/sys/class/net/" + name + "/bonding", error);
}

kernel_address address_of(uint32_t family, const void *bytes, size_t size) {
    kernel_address address{};
    std::memcpy(address.bytes, bytes, size);
    address.family = family;
    return address;
}

kernel_address ipv4_of(const sockaddr &address) {
    const auto &ipv4 = reinterpret_cast<const sockaddr_in &>(address);
    return address_of(kIpv4Family, &ipv4.sin_addr, sizeof(ipv4.sin_addr));
}

}  // namespace

std::vector<Interface> interfaces() {
    std::vector<Interface> found;
    each_address([&](const ifaddrs &one) {
        if (one.ifa_addr->sa_family != AF_PACKET) {
            return;
        }
        const auto &link = reinterpret_cast<const sockaddr_ll &>(*one.ifa_addr);
        Interface interface {};
        interface.index = static_cast<uint32_t>(link.sll_ifindex);
        interface.name = one.ifa_name;
        std::memcpy(interface.mac.data(), link.sll_addr, interface.mac.size());
        interface.is_up = (one.ifa_flags & IFF_UP) != 0;
        interface.master = master_of(interface.name);
        interface.is_bond = is_bond(interface.name);
        interface.master_is_bond = is_bond(interface.master);
        found.push_back(std::move(interface));
    });
    std::ranges::sort(found, {}, &Interface::index);
    return found;
}

AddressSet local_addresses() {
    AddressSet found;
    each_address([&](const ifaddrs &one) {
        switch (one.ifa_addr->sa_family) {
            case AF_PACKET: {
                const auto &link = reinterpret_cast<const sockaddr_ll &>(*one.ifa_addr);
                if (link.sll_halen == 6) {
                    found.insert(address_of(kMacFamily, link.sll_addr, link.sll_halen));
                }
                break;
            }
            case AF_INET:
                found.insert(ipv4_of(*one.ifa_addr));
                if ((one.ifa_flags & IFF_BROADCAST) != 0 && one.ifa_broadaddr != nullptr) {
                    found.insert(ipv4_of(*one.ifa_broadaddr));
                }
                break;
            case AF_INET6: {
                const auto &ipv6 = reinterpret_cast<const sockaddr_in6 &>(*one.ifa_addr);
                found.insert(address_of(kIpv6Family, &ipv6.sin6_addr, sizeof(ipv6.sin6_addr)));
                break;
            }
            default:
                break;
        }
    });
    const uint32_t everybody = INADDR_BROADCAST;
    found.insert(address_of(kIpv4Family, &everybody, sizeof(everybody)));
    return found;
}

bool InterfaceWatch::open() {
    socket_ = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    return socket_ >= 0 && bind(socket_, reinterpret_cast<const sockaddr *>(&local), sizeof(local)) == 0;
}

// Messages that found no room are a change too, and one that recv() reports by an error.
bool InterfaceWatch::has_changed() {
    bool changed = false;
    std::array<char, 8192> message{};
    ssize_t size = 0;
    do {
        size = recv(socket_, message.data(), message.size(), MSG_DONTWAIT);
        changed |= size > 0 || (size < 0 && errno == ENOBUFS);
    } while (size > 0 || (size < 0 && (errno == ENOBUFS || errno == EINTR)));
    return changed;
}

InterfaceWatch::~InterfaceWatch() {
    if (socket_ >= 0) {
        close(socket_);
    }
}

}  // namespace card
