// SPDX-License-Identifier: Apache-2.0
// live_card.h: the card on the machine that it runs on: packets of its ports, judged by the module.
//
// Reads copies from the kernel, hands them to the module, turns its verdicts into software denies, follows interfaces
// and shows itself to the kernel. Whoever drives it calls look() again and again; a query of the module that measures
// for a second goes on looking meanwhile. Used by: live_command. Uses: run, guard, live_ports, soft_denies. Thread: the
// driving one.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>

#include "chip/chip.h"
#include "live/class_traffic.h"
#include "live/recent_peak.h"
#include "live/soft_denies.h"
#include "ports/live_ports.h"
#include "run.h"

namespace host {

class LiveCard : public Run {
public:
    // 'say' gets a line for people: ports that come and go, copies that are lost.
    LiveCard(EventLog &events, card::Guard &guard, card::LivePorts &ports, const MacAddress &device_mac,
             std::function<void(const std::string &)> say);
    ~LiveCard() override;

    // Starts the module, and attaches the ports that are there. Returns how many.
    size_t start();

    // Deals with what there is. Returns how many copies there were.
    size_t look();
    // Called at the end of each look, also of those while a query measures: something short.
    void set_meanwhile(std::function<void()> meanwhile) { meanwhile_ = std::move(meanwhile); }

    void run_for(int64_t length_ns);

    const std::map<uint32_t, PortCounts> &ports() const override;
    std::vector<PortState> port_states() const override;
    PortState port_state(const card::LivePort &port) const;
    void settle() override;
    void filters_changed() override;
    bool trunk_change(uint32_t trunk, uint32_t member, bool joins) override;

    const card::LivePorts &live_ports() const { return live_ports_; }
    const card::Guard &guard() const { return guard_; }
    const SoftDenies &soft_denies() const { return denies_; }
    const ClassTraffic &class_traffic() const { return traffic_; }

    // Of the last minute or two: how long a copy waited between its port and the module (one in 64, and the first of
    // each look, are measured), and how many bytes of the ring were in use.
    int64_t longest_wait_ns() { return static_cast<int64_t>(waits_.value(clock_.monotonic_ns())); }
    uint64_t ring_peak() { return ring_.value(clock_.monotonic_ns()); }

private:
    // A port as packets come from it.
    struct Source {
        PacketFlow flow;
        uint16_t vlan;
    };
    // What is told at most once a minute: when it was, and how much of it there was then.
    struct Told {
        int64_t at_ns = 0;
        uint64_t count = 0;
    };
    void take(const kernel_copy &copy, const uint8_t *frame);
    void look_at_ports(bool anyway);
    void look_at_losses(int64_t now_ns);
    static uint64_t news(Told &told, int64_t now_ns, uint64_t count);
    void look_at_silence();
    void tell(const std::string &text, GuardEntry entry);
    const Source &source_of(uint32_t port);

    card::Guard &guard_;
    card::Chip &chip_ = card::Chip::instance();
    card::LivePorts &live_ports_;
    MacAddress device_mac_;
    std::function<void(const std::string &)> say_;
    SoftDenies denies_;
    ClassTraffic traffic_;
    RecentPeak waits_;
    RecentPeak ring_;
    std::function<void()> meanwhile_;
    PacketFlow sent_flow_{1, {}};  // sent frames are the device's own, and have their classes all the same
    size_t copies_in_look_ = 0;
    card::Guard::Reader reader_;
    std::unordered_map<uint32_t, Source> sources_;  // by port
    int64_t next_second_ns_ = 0;
    int64_t last_look_ns_ = 0;  // monotonic
    Told losses_told_;
    Told overflows_told_;
    Told refusals_told_;
};

}  // namespace host
