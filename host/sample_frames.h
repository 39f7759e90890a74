// SPDX-License-Identifier: Apache-2.0
// sample_frames.h: frames of every protocol class, to try on the module and on the chip.
//
// Headers as far as classes and rules look at them, zeros behind; every frame comes from the same station (MAC, IPv4
// and IPv6 address). Nothing here asks the module: the table says which class a frame is meant to be of.
// Used by: draw_denies, tests. Pure.
#pragma once

#include <cstdint>
#include <vector>

namespace host {

struct SampleFrame {
    uint16_t protocol;  // class
    const char *kind;   // which frames of the class; empty = its plain ones
    std::vector<uint8_t> bytes;
};

// In order of classes: of each the plain frame, then those of which a rule looks different.
std::vector<SampleFrame> sample_frames();

// What else may come with the fields of a rule: each TCP and UDP frame of the above over either IP, the other way
// round, and with TCP's SYN. Class 0: as the module says.
std::vector<SampleFrame> derived_frames();

// The plain frame of class 1..58.
SampleFrame sample_frame(uint16_t protocol);

}  // namespace host
