// SPDX-License-Identifier: Apache-2.0
// live_ports.h: the interfaces that are watched, as they come and go.
//
// Attaches the kernel's program to each named interface, or to the members of a bond, tells the kernel which port it
// is, and keeps the machine's addresses there true. An interface that vanishes is waited for by its name; one that is
// renamed stays attached. Used by: the host's live card. Uses: attachment, interfaces, guard. Thread: one.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "ports/attachment.h"
#include "ports/interfaces.h"

namespace card {

struct PortSpec {
    std::string interface;
    uint32_t port;  // 1 to 65535
    uint16_t vlan;  // of frames without a tag
};

struct LivePort {
    PortSpec spec;
    uint32_t trunk = 0;      // of the bond that it is, or was, a member of; 0 = none
    bool has_left = false;   // that bond: nobody's until it comes back
    uint32_t logical = 0;    // what the module counts its packets for: a trunk, or itself
    uint32_t index = 0;      // of its counters
    uint32_t interface = 0;  // index; 0 = not there
    std::unique_ptr<Attachment> attachment;
    std::string trouble;  // why it is not attached, as last told
};

class LivePorts {
public:
    LivePorts(Guard &guard, PortMode mode, bool all_frames) : guard_(guard), mode_(mode), all_frames_(all_frames) {}

    // A port more; a bond is a trunk, whose members get port numbers from kFirstMember on.
    LivePort &add(const PortSpec &spec);

    // What is told of: a line for people, with members that join or leave a trunk, and ports that are protected from
    // now on or not any more.
    struct Change {
        std::string text;
        uint32_t trunk = 0;
        uint32_t member = 0;
        bool joins = false;
        bool is_about_port = false;
        bool is_protected = false;
        uint32_t port = 0;
        std::string interface {};
        std::string reason{};
    };
    // Looks at the machine's interfaces and addresses, when they have changed since the last look or 'anyway', or when
    // a program has been taken off its port, which nobody tells.
    std::vector<Change> look(bool anyway);

    // From now on packets of this port are another's, or its own, for the operator's rules.
    void set_logical(uint32_t port, uint32_t logical);

    const std::deque<LivePort> &ports() const { return ports_; }
    PortMode mode() const { return mode_; }

private:
    static constexpr uint32_t kFirstMember = 60000;

    void find_bonds(const std::vector<Interface> &all);
    LivePort *member_of(const PortSpec &bond, const Interface &interface);
    void look_at_bonds(const std::vector<Interface> &all, std::vector<Change> &changes);
    static Change change_of(const LivePort &port, std::string text, bool is_protected, std::string reason);
    bool tell_kernel(const LivePort &port, uint32_t interface);
    static Change trunk_change(const LivePort &port, const PortSpec &bond, bool joins);
    void look_at(LivePort &port, const std::vector<Interface> &all, std::vector<Change> &changes);
    void detach(LivePort &port, const std::string &why, std::vector<Change> &changes);

    Guard &guard_;
    PortMode mode_;
    bool all_frames_;
    InterfaceWatch watch_;
    bool watches_ = false;
    std::vector<PortSpec> bonds_;
    std::deque<LivePort> ports_;  // a port stays where it is while others come
    uint32_t next_index_ = 0;
    uint32_t next_member_ = kFirstMember;
};

}  // namespace card
