// SPDX-License-Identifier: Apache-2.0
// attachment.h: the kernel's program at one interface.
//
// Attached while it lives; the kernel takes it off again when the process ends in any way. VLAN tags that the network
// card takes out of frames are not seen by the program, so that is switched off meanwhile. Used by: live_ports. Uses:
// libbpf, ethtool's call. Thread: one.
#pragma once

#include <memory>
#include <string>

#include "chip/kernel/guard.h"

namespace card {

enum class PortMode {
    kNative,   // in the driver
    kGeneric,  // in front of the stack, where the driver has no place for it
};

class Attachment {
public:
    // Null, and why.
    static std::unique_ptr<Attachment> attach(const Guard &guard, const std::string &name, uint32_t interface,
                                              PortMode mode, std::string &error);
    ~Attachment();
    Attachment(const Attachment &) = delete;
    Attachment &operator=(const Attachment &) = delete;

    // Whether the tags of received frames are in the frames for sure; else they may stand beside them, unseen.
    bool sees_tags() const { return sees_tags_; }
    // False: somebody has taken the program off, or the interface has gone.
    bool is_attached() const;

private:
    explicit Attachment(std::string name, uint32_t interface);
    bool attach_received(const Guard &guard, PortMode mode, std::string &error);
    bool attach_sent(const Guard &guard, std::string &error);
    void keep_tags_in_frames();

    std::string name_;
    uint32_t interface_;
    int received_link_ = -1;
    int sent_link_ = -1;        // of a kernel that has such links; else a filter:
    uint32_t sent_filter_ = 0;  // its handle; 0 = none
    bool restores_tags_ = false;
    bool sees_tags_ = false;
};

}  // namespace card
