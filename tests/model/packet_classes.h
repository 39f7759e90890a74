// packet_classes.h: the packets of the model check, and how the chip's rules for them read.
//
// Each row tells what the module must make of a frame: class, default limits, kind of source, and the match list of its
// automatic rule in the words of chip_text.h. Two classes share a rule on purpose, two name no source in theirs, one
// has a destination that changes with the source, and one has no source at all.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "anti_cpu/types.h"
#include "frames.h"

constexpr uint32_t SOURCES = 4;  // of each flow, numbered from 0

struct PacketClass {
    uint16_t id;
    uint32_t fp_limit;  // packets per second, of flows and of sources alike
    uint32_t lp_limit;
    uint32_t src_type;      // ATC_SRC_*
    Frame (*frame)();       // without a source of its own
    const char *dst;        // destination MAC of even sources ...
    const char *dst_odd;    // ... and of odd ones
    bool names_mac;         // a source's rule names its MAC
    const char *eth_type;   // EtherType
    bool names_ip;          // a source's rule names its IP address
    const char *ip_and_l4;  // IP protocol, ports
    uint16_t sent_id;       // what a sent packet counts as
};

inline const PacketClass CLASSES[] = {
    // clang-format off
    {1, 12, 10, ATC_SRC_MAC, [] { return bpdu(0); }, "1=0180c2000000 ", "1=0180c2000000 ", true, "", false, "", 1},
    {2, 12, 10, ATC_SRC_MAC, [] { return bpdu(2); }, "1=0180c2000000 ", "1=0180c2000000 ", true, "", false, "", 2},
    {4, 12, 10, ATC_SRC_MAC, [] { return lldp(); }, "1=0180c200000e ", "1=0180c2000003 ", true, "", false, "", 4},
    {6, 100, 50, ATC_SRC_MAC, [] { return arp(); }, "", "", true, "5=2054 ", false, "", 6},
    {14, 100, 50, ATC_SRC_IPV4, [] { return ipv4(50); }, "", "", false, "5=2048 ", true, "6=50 ", 14},
    {34, 12, 10, ATC_SRC_IPV6, [] { return icmpv6(135); }, "", "", false, "5=34525 ", true, "6=58 9=34560 ", 34},
    {40, 30, 20, ATC_SRC_IPV4, [] { return udp(68, 67); }, "", "", false, "5=2048 ", true, "6=17 9=68 10=67 ", 40},
    {52, 12, 10, ATC_SRC_IPV4, [] { return tcp(40000, 80, SYN); }, "", "", false, "5=2048 ", true, "6=6 ", 52},
    {53, 100, 50, ATC_SRC_IPV4, [] { return tcp(40000, 179); }, "", "", false, "5=2048 ", true, "6=6 10=179 ", 53},
    {57, 10, 5, ATC_SRC_NONE, [] { return arp().from(OWN_MAC); }, "", "", false, "", false, "", 6},
    {58, 100, 50, ATC_SRC_MAC, [] { return eth(0x1234); }, "", "", false, "5=4660 ", false, "", 58},
    // clang-format on
};

// The frame of a class from one of its sources.
inline Frame frame_from(const PacketClass &cls, uint32_t source) {
    Frame frame = cls.frame();
    if (cls.id == 4 && source % 2 == 1) {
        frame.to("01:80:c2:00:00:03");
    }
    if (cls.src_type == ATC_SRC_MAC) {
        frame.from(source);
    } else if (cls.src_type != ATC_SRC_NONE) {
        frame.src_ip(source);
    }
    return frame;
}

// The match list of an automatic rule for a packet from 'source'; 'named' when the rule is that source's own. An
// address of all zeros is no item.
inline std::string match_text(const PacketClass &cls, uint32_t vlan, uint32_t source, bool named) {
    char address[64] = "";
    if (named && cls.names_mac) {
        std::snprintf(address, sizeof(address), "0=0600%08x ", source);
    } else if (named && cls.names_ip && cls.src_type == ATC_SRC_IPV6) {
        std::snprintf(address, sizeof(address), "2=20010db80000000000000000%08x ", source);
    } else if (named && cls.names_ip && source != 0) {
        std::snprintf(address, sizeof(address), "2=%08x ", source);
    }
    std::string text = source % 2 == 0 ? cls.dst : cls.dst_odd;
    text += cls.names_mac ? address : "";
    text += vlan != 0 ? "4=" + std::to_string(vlan) + " " : "";
    text += cls.eth_type;
    text += cls.names_mac ? "" : address;
    return text + cls.ip_and_l4;
}
