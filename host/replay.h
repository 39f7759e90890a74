// SPDX-License-Identifier: Apache-2.0
// replay.h: captured packets through the card and the module, on the captures' own time.
//
// The replay owns simulated time: before a packet is shown to the switching chip, and then to the module, time is moved
// to the packet's, and whatever the module's monitor task has to do on the way is done. A query of the module that
// measures for a second replays the packets of that second.
// Used by: replay_command, the console. Uses: run, capture_reader, the card, the module.
// Thread: one, the driving thread of the clock; it calls with no lock held.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>

#include "addresses.h"
#include "capture_reader.h"
#include "chip/chip.h"
#include "packet_flow.h"
#include "run.h"
#include "traffic/account.h"

namespace host {

struct ReplaySettings {
    uint32_t vlan = 1;                  // of frames without a tag
    std::optional<MacAddress> own_mac;  // frames from it are sent packets

    // What the module knows as its own address. Without one: no frame comes from the broadcast address.
    MacAddress device_mac() const { return own_mac.value_or(MacAddress{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}); }
};

class Replay : public Run {
public:
    Replay(CaptureSet &captures, EventLog &events, const ReplaySettings &settings);
    ~Replay() override;

    // Sets simulated time to the first packet's and starts the module. Once.
    void start();

    // Move time to 'realtime_ns', by 'length_ns', with the packets before that time. A kept signal (process.h) ends
    // these and the next two where they are.
    void run_until(int64_t realtime_ns);
    void run_for(int64_t length_ns);
    // Stops at the time at which an alarm is raised, true; or behind the last packet, false.
    bool run_until_alarm();
    // Up to the last packet.
    void run_to_end();

    // Seconds from 'now' to the end of the fast period that runs then; a second more, in which the task finds it ended.
    int64_t fast_period_rest_ns() const;
    void fast_period_set(uint32_t seconds) override;
    bool trunk_change(uint32_t trunk, uint32_t member, bool joins) override;

    bool at_end() const { return !pending_; }
    // Time of the last packet handed over.
    int64_t last_packet_ns() const { return last_packet_ns_; }

    MacAddress device_mac() const { return settings_.device_mac(); }

    // Counts every received packet from now on; null, as at first: none.
    void set_account(TrafficAccount *account) { account_ = account; }
    // Called now and then while time goes on (true), and when it has come to where it should (false).
    void set_progress(std::function<void(bool goes_on)> progress) { progress_ = std::move(progress); }

private:
    void feed(int64_t end_ns, bool stop_at_alarm);
    void pass_silence(int64_t end_ns, const std::function<bool()> &is_over);
    void show_progress(bool goes_on);
    void deliver(const Packet &packet);
    void look_up(uint32_t port);

    CaptureSet &captures_;
    card::Chip &chip_;
    ReplaySettings settings_;
    Packet next_{};
    bool pending_ = false;  // next_ holds a packet
    int64_t last_packet_ns_ = 0;
    int64_t period_start_ns_ = 0;
    uint32_t period_s_ = 300;
    PacketFlow packet_flow_;
    TrafficAccount *account_ = nullptr;
    uint32_t last_port_ = 0;
    uint32_t last_logical_ = 0;          // its trunk, or itself
    PortCounts *last_counts_ = nullptr;  // of last_port_; null = look all three up
    std::function<void(bool goes_on)> progress_;
};

}  // namespace host
