// SPDX-License-Identifier: Apache-2.0
// draw_denies.cpp: prints the rows of deny_widths.h, while the program is built.
//
// For every sample frame the module is flooded with it until it has installed its rule in the switching chip; the chip
// then tells which fields the rule carries, and which other samples it stops. A sample that the module puts into
// another class than the table does ends the build.
#include <cstdio>
#include <set>
#include <string>

#include "addresses.h"
#include "anti_cpu/anti_cpu.h"
#include "atc/parser.h"
#include "atc/protocol.h"
#include "chip/chip.h"
#include "clock/clock.h"
#include "sample_frames.h"
#include "services/services.h"

namespace {

using namespace host;

constexpr uint32_t kPort = 3;
constexpr uint32_t kVlan = 100;
constexpr int kFlood = 10;  // packets; a rule comes with the third at the latest
constexpr size_t kSourceOffset = 6;
constexpr size_t kIpv4Source = 26;
constexpr size_t kIpv6Source = 22;

bool stops(const SampleFrame &sample, uint32_t vlan) {
    return card::Chip::instance().denies(sample.bytes.data(), static_cast<uint32_t>(sample.bytes.size()), kPort, vlan);
}

// The same from another station.
SampleFrame from_elsewhere(SampleFrame sample) {
    const auto change = [&sample](size_t last) { sample.bytes[last] ^= 0x80; };
    change(kSourceOffset + 5);
    const uint32_t type =
        static_cast<uint32_t>(sample.bytes.size() < 14 ? 0 : sample.bytes[12] << 8 | sample.bytes[13]);
    if (type == 0x0800) {
        change(kIpv4Source + 3);
    } else if (type == 0x86dd) {
        change(kIpv6Source + 15);
    }
    return sample;
}

// "deny port 3 vlan 100 eth-type 0x0800 src-ip 10.0.0.1" -> "vlan, eth-type 0x0800, src-ip": what is the packet's own
// (VLAN, source) without its value.
std::string fields_of(const std::string &description) {
    char word[64];
    int at = 0;
    int used = 0;
    std::sscanf(description.c_str(), "deny port %*s%n", &at);
    std::string fields;
    std::string name;
    for (; std::sscanf(description.c_str() + at, "%63s%n", word, &used) == 1; at += used) {
        if (name.empty()) {
            name = word;
            fields += (fields.empty() ? "" : ", ") + name;
        } else {
            fields += name == "vlan" || name == "src-mac" || name == "src-ip" ? "" : std::string(" ") + word;
            name.clear();
        }
    }
    return fields;
}

std::string names_of(const std::set<uint16_t> &classes) {
    if (classes.size() == ATC_PROTOCOL_COUNT - 1) {
        return "all others";
    }
    std::string text;
    for (const uint16_t id : classes) {
        text += (text.empty() ? "" : ", ") + protocol_name(id);
    }
    return text;
}

class Drawing {
public:
    Drawing() : samples_(sample_frames()) {
        card::Clock::instance().simulate(0);
        card::set_log_sink([](const card::LogMessage &) {});
        atc_init();
        atc_api_set_fast_period_time(1);
        for (uint32_t id = 1; id <= ATC_PROTOCOL_COUNT; id++) {
            atc_api_set_protocol_fp_limit(id, 1);
            atc_api_set_protocol_src_fp_limit(id, 1);
        }
        for (std::vector<SampleFrame> *frames : {&samples_, &derived_}) {
            for (SampleFrame &sample : *frames) {
                const uint16_t meant = sample.protocol;
                sample.protocol = class_of(sample);
                if (meant != 0 && meant != sample.protocol) {
                    std::fprintf(stderr, "the sample of %s %s is %s for the module\n", protocol_name(meant).c_str(),
                                 sample.kind, protocol_name(sample.protocol).c_str());
                    is_good_ = false;
                }
            }
        }
    }

    bool print() const {
        for (const SampleFrame &sample : samples_) {
            const Width flow = width(sample, kVlan, false);
            const Width source = width(sample, kVlan, true);
            const Width in_vlan_0 = width(sample, 0, false);
            std::printf("{%u, \"%s\", %s, %s, %s, \"%s\"},\n", sample.protocol, sample.kind, flow.text().c_str(),
                        source.text().c_str(), source.is_there ? "true" : "false", in_vlan_0.fields.c_str());
        }
        return is_good_;
    }

private:
    struct Width {
        bool is_there = false;  // the module installs such a rule
        std::string fields;
        std::string others;
        size_t other_count = 0;
        bool stops_other_source = false;

        std::string text() const {
            return "{\"" + fields + "\", \"" + others + "\", " + std::to_string(other_count) +
                   (stops_other_source ? ", true}" : ", false}");
        }
    };

    static uint16_t class_of(const SampleFrame &sample) {
        constexpr MacAddress device = {2, 0, 0, 0, 0, 1};
        if (std::equal(device.begin(), device.end(), sample.bytes.begin() + kSourceOffset)) {
            return ATC_SELF;
        }
        atc_pkt_info_t info;
        atc_packet_begin(&info, ATC_DIRECTION_RX, kPort, kVlan);
        atc_packet_parser(sample.bytes.data(), static_cast<uint32_t>(sample.bytes.size()), &info);
        return info.protocol;
    }

    Width width(const SampleFrame &sample, uint32_t vlan, bool per_source) const {
        const auto set = per_source ? atc_api_set_protocol_src_hw_deny_enable : atc_api_set_protocol_hw_deny_enable;
        set(sample.protocol, 1);
        for (int i = 0; i < kFlood && card::Chip::instance().rules().empty(); i++) {
            atc_api_receive_packet(sample.bytes.data(), static_cast<uint32_t>(sample.bytes.size()), kPort, vlan);
        }
        Width width;
        if (const auto rules = card::Chip::instance().rules(); !rules.empty()) {
            const std::set<uint16_t> others = others_stopped(sample, vlan);
            width = {true, fields_of(rules[0].description), names_of(others), others.size(),
                     stops(from_elsewhere(sample), vlan)};
        }
        set(sample.protocol, 0);
        atc_api_clear_statistic_all();
        return width;
    }

    std::set<uint16_t> others_stopped(const SampleFrame &sample, uint32_t vlan) const {
        std::set<uint16_t> classes;
        for (const std::vector<SampleFrame> *frames : {&samples_, &derived_}) {
            for (const SampleFrame &other : *frames) {
                if (other.protocol != sample.protocol && stops(other, vlan)) {
                    classes.insert(other.protocol);
                }
            }
        }
        return classes;
    }

    std::vector<SampleFrame> samples_;
    std::vector<SampleFrame> derived_ = derived_frames();
    bool is_good_ = true;
};

}  // namespace

int main() {
    return Drawing().print() ? 0 : 1;
}
