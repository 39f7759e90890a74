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

using LinkAttributes = std::array<const rtattr *, IFLA_MAX + 1>;

// What an attribute of text says; nothing where it is not there.
std::string text_of(const rtattr *attribute) {
    if (attribute == nullptr) {
        return {};
    }
    const auto *text = static_cast<const char *>(RTA_DATA(attribute));
    return {text, strnlen(text, RTA_PAYLOAD(attribute))};
}

// "bond", "veth", ...
std::string kind_of(const rtattr *info) {
    int left = info != nullptr ? static_cast<int>(RTA_PAYLOAD(info)) : 0;
    for (const auto *one = info != nullptr ? static_cast<const rtattr *>(RTA_DATA(info)) : nullptr; RTA_OK(one, left);
         one = RTA_NEXT(one, left)) {
        if (one->rta_type == IFLA_INFO_KIND) {
            return text_of(one);
        }
    }
    return {};
}

using LinkTaker = std::function<void(const ifinfomsg &head, const LinkAttributes &attributes)>;

// False: that was the last message.
bool take_links(const char *bytes, int64_t size, const LinkTaker &take) {
    const auto *message = reinterpret_cast<const nlmsghdr *>(bytes);
    for (; NLMSG_OK(message, size); message = NLMSG_NEXT(message, size)) {
        if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR) {
            return false;
        }
        const auto *head = static_cast<const ifinfomsg *>(NLMSG_DATA(message));
        LinkAttributes attributes{};
        int left = static_cast<int>(IFLA_PAYLOAD(message));
        for (const rtattr *one = IFLA_RTA(head); RTA_OK(one, left); one = RTA_NEXT(one, left)) {
            if (one->rta_type <= IFLA_MAX) {
                attributes[one->rta_type] = one;
            }
        }
        take(*head, attributes);
    }
    return true;
}

// Asked of netlink: /sys shows the interfaces of whoever has mounted it.
void each_link(const LinkTaker &take) {
    const int socket = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    struct {
        nlmsghdr head;
        ifinfomsg body;
    } request{};
    request.head.nlmsg_len = sizeof(request);
    request.head.nlmsg_type = RTM_GETLINK;
    request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    if (socket >= 0 && send(socket, &request, sizeof(request), 0) == static_cast<ssize_t>(sizeof(request))) {
        std::vector<char> bytes(65536);
        ssize_t size = 0;
        do {
            size = recv(socket, bytes.data(), bytes.size(), 0);
        } while (size > 0 && take_links(bytes.data(), size, take));
    }
    if (socket >= 0) {
        close(socket);
    }
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
    each_link([&](const ifinfomsg &head, const LinkAttributes &attributes) {
        Interface interface {};
        interface.index = static_cast<uint32_t>(head.ifi_index);
        interface.is_up = (head.ifi_flags & IFF_UP) != 0;
        interface.name = text_of(attributes[IFLA_IFNAME]);
        if (const rtattr *mac = attributes[IFLA_ADDRESS]; mac != nullptr && RTA_PAYLOAD(mac) == interface.mac.size()) {
            std::memcpy(interface.mac.data(), RTA_DATA(mac), interface.mac.size());
        }
        if (const rtattr *master = attributes[IFLA_MASTER]; master != nullptr) {
            std::memcpy(&interface.master, RTA_DATA(master), sizeof(interface.master));
        }
        interface.is_bond = kind_of(attributes[IFLA_LINKINFO]) == "bond";
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
