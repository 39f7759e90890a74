// replay.h: captured packets through the card and the module, on the captures' own time.
//
// The replay owns simulated time: before a packet is shown to the switching chip, and then to the module, time is moved
// to the packet's, and whatever the module's monitor task has to do on the way is done. A query of the module that
// measures for a second replays the packets of that second.
// Used by: main, the console. Uses: capture_reader, event_log, flow_account, flow_verdicts, the card, the
// module.
// Thread: one, the driving thread of the clock; it calls with no lock held.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>

#include "addresses.h"
#include "capture_reader.h"
#include "chip/chip.h"
#include "clock/clock.h"
#include "event_log.h"
#include "events/journal.h"
#include "flow_account.h"
#include "flow_verdicts.h"
#include "packet_flow.h"
#include "traffic/account.h"

namespace host {

struct ReplaySettings {
    uint32_t vlan = 1;                  // of frames without a tag
    std::optional<MacAddress> own_mac;  // frames from it are sent packets

    // What the module knows as its own address. Without one: no frame comes from the broadcast address.
    MacAddress device_mac() const { return own_mac.value_or(MacAddress{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}); }
};

// What became of the packets of one port. Sent packets have no port.
struct PortCounts {
    uint64_t offered = 0;
    uint64_t stopped = 0;  // in the chip
    uint64_t dropped = 0;  // by the module's verdict
    uint64_t passed = 0;
};

class Replay {
public:
    Replay(CaptureSet &captures, EventLog &events, const ReplaySettings &settings);
    ~Replay();
    Replay(const Replay &) = delete;
    Replay &operator=(const Replay &) = delete;

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
    // The console tells when it sets the fast period: a new period starts.
    void fast_period_set(uint32_t seconds);

    // Tells the card of a change. Packets that come in on a member are the trunk's for the module, the member's for the
    // chip. False when nobody has registered for such changes.
    bool trunk_change(uint32_t trunk, uint32_t member, bool joins);

    bool at_end() const { return !pending_; }
    int64_t now_ns() const;
    int64_t start_ns() const { return start_ns_; }
    // Time of the last packet handed over.
    int64_t last_packet_ns() const { return last_packet_ns_; }

    uint64_t packets() const { return packets_; }
    uint64_t sent() const { return sent_; }
    uint64_t sent_dropped() const { return sent_dropped_; }
    Journal &journal() { return journal_; }
    const Journal &journal() const { return journal_; }
    // Tells what an operator has brought about.
    void settle() { journal_.settle(nullptr); }
    const std::map<uint32_t, PortCounts> &ports() const { return ports_; }
    PortCounts received() const;
    const FlowVerdicts &flow_verdicts() const { return verdicts_; }
    FlowVerdicts &flow_verdicts() { return verdicts_; }
    // Of the packets handed over.
    FlowAccount &flows() const { return flows_; }
    AlarmBook &alarms() const { return events_.alarms(); }

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
    Outcome judge(const Packet &packet);
    void settle_news() {
        if (journal_.has_news()) [[unlikely]] {
            journal_.settle(nullptr);
        }
    }
    void deliver_sent(const Packet &packet);
    bool is_own(const Packet &packet) const;

    CaptureSet &captures_;
    EventLog &events_;
    card::Clock &clock_;
    card::Chip &chip_;
    ReplaySettings settings_;
    Packet next_{};
    bool pending_ = false;  // next_ holds a packet
    int64_t start_ns_ = 0;
    int64_t last_packet_ns_ = 0;
    int64_t period_start_ns_ = 0;
    uint32_t period_s_ = 300;
    uint64_t packets_ = 0;
    uint64_t sent_ = 0;
    uint64_t sent_dropped_ = 0;
    std::map<uint32_t, PortCounts> ports_;
    PacketFlow packet_flow_;
    TrafficAccount *account_ = nullptr;
    Journal journal_;
    FlowVerdicts verdicts_;
    mutable FlowAccount flows_;              // walks put it in order
    uint64_t blocks_seen_ = 0;               // allocated by the module so far
    std::map<uint32_t, uint32_t> trunk_of_;  // by member
    uint32_t last_port_ = 0;
    uint32_t last_logical_ = 0;          // its trunk, or itself
    PortCounts *last_counts_ = nullptr;  // of last_port_; null = look all three up
    std::function<void(bool goes_on)> progress_;
};

}  // namespace host
