// SPDX-License-Identifier: Apache-2.0
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

// Blocks that have ever been allocated through them, and how many of those were large. Any thread; a load each: whoever
// keeps an account of what the module holds looks for something new only when one of these has changed.
constexpr size_t kLargeBlock = 65536;  // bytes
uint64_t blocks_made();
uint64_t large_blocks_made();

// The module's memory. Any thread; each figure is true by itself.
struct MemoryUse {
    int64_t blocks;    // live_blocks()
    uint64_t bytes;    // of these blocks, the allocator's overhead included
    uint64_t budget;   // bytes that may not be passed; 0 = none
    uint64_t refused;  // blocks that a budget forbade, since the process started
};
MemoryUse memory_use();

// Forbids blocks that would take the module's memory beyond 'bytes' (0 = no budget); those that are there stay, and may
// be more. While blocks are refused, a line a minute in the log says so. Any thread; at once.
void set_memory_budget(uint64_t bytes);

// While one lives, whether the budget holds for what the calling thread allocates. It is there against what packets
// make the module remember: a report that an operator asks for, or a rule against the flood, must not fail for it.
class BudgetScope {
public:
    explicit BudgetScope(bool holds);
    ~BudgetScope();
    BudgetScope(const BudgetScope &) = delete;
    BudgetScope &operator=(const BudgetScope &) = delete;

private:
    bool held_before_;
};

// Starts a thread that runs run() for the life of the process, or until that returns; its name is cut to 15 characters.
// It takes part in a simulation from its start: the driver comes back when the thread has reached its first wait.
// 'stack_size' is raised where that is too little for name resolution and TLS. False when there is no thread.
bool start_thread(const char *name, size_t stack_size, std::function<void()> run);

}  // namespace card
