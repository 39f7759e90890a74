// os.h: what the host, the tests and the rest of the card may ask of the card's operating-system services.
//
// The services themselves are the memory, text, mutex, queue and task functions of platform.h, implemented here on
// POSIX threads and the C library. 1000 ticks a second; handles are small integers, 0 is none. Waiting for a message
// or for time goes through the clock; waiting for a mutex does not (see the rules in clock.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace card {

// Blocks allocated through bep_mallocEx and bep_callocEx that have not been freed. Any thread.
int64_t live_blocks();

// Starts a thread that runs run() for the life of the process, or until that returns; its name is cut to 15 characters.
// It takes part in a simulation from its start: the driver comes back when the thread has reached its first wait.
// 'stack_size' is raised where that is too little for name resolution and TLS. False when there is no thread.
bool start_thread(const char *name, size_t stack_size, std::function<void()> run);

}  // namespace card
