// SPDX-License-Identifier: Apache-2.0
// run.h: the card at work: whatever hands packets to the module, and what the host knows of it meanwhile.
//
// What the console, the reports and the events ask about, whether packets come from captures (replay) or from ports
// (live_card). Used by: those two (derive from it), the console, report, capture_keeper. Uses: the module, journal,
// flow_account, flow_verdicts, event_log. Thread: one, the driving one; it calls with no lock held.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "anti_cpu/anti_cpu.h"
#include "capture_reader.h"
#include "clock/clock.h"
#include "event_log.h"
#include "events/journal.h"
#include "flow_account.h"
#include "flow_verdicts.h"
#include "os/os.h"
#include "packet_flow.h"
#include "traffic/account.h"

namespace host {

// What became of the packets of one port. Sent packets have no port.
struct PortCounts {
    uint64_t offered = 0;
    uint64_t stopped = 0;  // in the chip
    uint64_t dropped = 0;  // by the module's verdict
    uint64_t passed = 0;
};

// A port as the operator sees it. What a replay does not know is 0.
struct PortState {
    uint32_t port;
    std::string interface;  // empty: none
    std::string state;      // "native", "generic", "down: no such interface"
    PortCounts counts;
    uint64_t sent = 0;
    uint64_t transit = 0;  // not for this processor: forwarded, not looked at
    uint64_t blind = 0;    // let through while the process did not show itself
    uint64_t lost = 0;     // counted by the kernel, but not seen by the module
};

class Run {
public:
    virtual ~Run();
    Run(const Run &) = delete;
    Run &operator=(const Run &) = delete;

    int64_t now_ns() const { return clock_.realtime_ns(); }
    int64_t start_ns() const { return start_ns_; }
    // Received and sent ones that the module was shown, or the chip stopped before it.
    uint64_t packets() const { return packets_; }
    uint64_t sent() const { return sent_; }
    uint64_t sent_dropped() const { return sent_dropped_; }

    virtual const std::map<uint32_t, PortCounts> &ports() const { return ports_; }
    PortCounts received() const;
    virtual std::vector<PortState> port_states() const;

    // The console tells when it sets the fast period: a new period starts.
    virtual void fast_period_set(uint32_t seconds) { journal_.set_period(AlarmEvent::Period::kFast, seconds); }
    // The console tells when the operator's permit and deny rules have changed.
    virtual void filters_changed() {}
    // Tells the card of a change. Packets that come in on a member are the trunk's for the module, the member's for the
    // chip. False when nobody has registered for such changes.
    virtual bool trunk_change(uint32_t trunk, uint32_t member, bool joins);

    Journal &journal() { return journal_; }
    const Journal &journal() const { return journal_; }
    // Tells what an operator has brought about.
    virtual void settle() { journal_.settle(nullptr); }
    const FlowVerdicts &flow_verdicts() const { return verdicts_; }
    FlowVerdicts &flow_verdicts() { return verdicts_; }
    // Of the packets handed over.
    FlowAccount &flows() const { return flows_; }
    AlarmBook &alarms() const { return events_.alarms(); }

protected:
    explicit Run(EventLog &events);

    // The module's verdict on a received packet of the port, which has 'vlan' for frames without a tag.
    Outcome judge(const Packet &packet, const PacketFlow &packet_flow, uint32_t logical_port, uint32_t vlan) {
        const bool is_dropped = atc_api_receive_packet(packet.data, packet.len, logical_port, vlan) != 0;
        if (is_dropped || card::blocks_made() != blocks_seen_ || journal_.has_news()) [[unlikely]] {
            note(packet, packet_flow, logical_port, is_dropped);
        }
        return is_dropped ? Outcome::kDropped : Outcome::kPassed;
    }
    void hand_over_sent(const Packet &packet);
    // The trunk of a port, or itself.
    uint32_t logical_port(uint32_t port) const;
    void settle_news() {
        if (journal_.has_news()) [[unlikely]] {
            journal_.settle(nullptr);
        }
    }

    EventLog &events_;
    card::Clock &clock_;
    int64_t start_ns_ = 0;
    uint64_t packets_ = 0;
    mutable std::map<uint32_t, PortCounts> ports_;
    Journal journal_;
    FlowVerdicts verdicts_;

private:
    // What a packet was to the module beside one more of a flow that it knows.
    void note(const Packet &packet, const PacketFlow &packet_flow, uint32_t logical_port, bool is_dropped);

    uint64_t sent_ = 0;
    uint64_t sent_dropped_ = 0;
    mutable FlowAccount flows_;              // walks put it in order
    uint64_t blocks_seen_ = 0;               // allocated by the module so far
    std::map<uint32_t, uint32_t> trunk_of_;  // by member
};

}  // namespace host
