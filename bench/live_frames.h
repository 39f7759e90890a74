// SPDX-License-Identifier: Apache-2.0
// live_frames.h: frames that the kernel sends itself, through a program and into the stack.
//
// Apart from live.cpp, because libpcap's headers and the kernel's name the same things. Used by: live.
#pragma once

#include <cstdint>
#include <vector>

// Descriptor of a program that passes every frame, or drops it; -1 and errno.
int plain_program(bool drops);

// So many copies of the frame come in on the interface, in batches, and meet the program. Returns this thread's
// processor time for each, in nanoseconds; below 0 and errno when they cannot be sent.
double send_frames(int program, uint32_t interface, const std::vector<uint8_t> &frame, uint32_t count);

// This thread's processor time so far, in nanoseconds.
double processor_ns();
