// SPDX-License-Identifier: Apache-2.0
// guard.h: the kernel's program, loaded, and everything that the process says to it and hears from it.
//
// Owns the program and its maps; they go when it goes, so a process that is killed leaves nothing behind. Frames pass
// untouched from the moment that beat() has not been called for the patience. Used by: ports (attach it to interfaces),
// the host's live card (copies, software denies,
// filters, counters), chip (rules(), as its plane). Uses: libbpf, kernel_rules, kernel_filters.
// Threads: one, but for rules(), which the chip calls under its lock.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "chip/kernel/kernel_filters.h"
#include "chip/kernel/kernel_rules.h"
#include "chip/kernel/record.h"
#include "chip/kernel/ring_level.h"

struct guard_bpf;
struct ring_buffer;

namespace card {

struct GuardOptions {
    kernel_classes classes{};              // of the module's parser
    std::array<uint8_t, 6> device_mac{};   // frames from it are the device's own
    uint64_t patience_ns = 3'000'000'000;  // how long the process may be silent
    bool with_probe = false;               // for tests: probe() works
};

struct AddressLess {
    bool operator()(const kernel_address &a, const kernel_address &b) const;
};
using AddressSet = std::set<kernel_address, AddressLess>;

class Guard {
public:
    // Null, and why, when this kernel does not take the program.
    static std::unique_ptr<Guard> load(const GuardOptions &options, std::string &error);
    ~Guard();
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

    RulePlane &rules() { return *rules_; }

    // Descriptors of the two programs, for whoever attaches them.
    int received_program() const;
    int sent_program() const;

    // From now on frames of the interface with this index are 'port's. False: no room.
    bool set_port(uint32_t interface, const kernel_port &port);
    void forget_port(uint32_t interface);
    // Of the port with this index, since it was first set; all processors together.
    kernel_counts counts(uint32_t index) const;

    // The machine's own addresses, in place of those before. False: no room for all of them.
    bool set_addresses(const AddressSet &addresses);

    uint64_t patience_ns() const;
    // The process shows itself. A store.
    void beat();

    // Hands over the copies that are in the ring, at most 'most', oldest first; a frame is valid during its call.
    // Returns how many.
    using Reader = std::function<void(const kernel_copy &copy, const uint8_t *frame)>;
    size_t read_copies(size_t most, const Reader &reader);
    const RingLevel &ring() const { return *level_; }

    // Software denies: what the kernel drops because the module said so. False: no room, or none was there.
    bool deny(const kernel_flow &flow);
    bool allow(const kernel_flow &flow);
    size_t denies() const { return denies_; }

    // The operator's permit and deny rules, in place of those before. Returns how many found no room.
    size_t set_filters(const std::vector<KernelFilter> &filters) { return filters_->set(filters); }

    // What the kernel makes of a received frame, whether a chip rule stops it, and what filters say. For tests.
    struct Probed {
        kernel_parsed parsed;
        bool stopped;
        uint32_t flags;  // KERNEL_RULED, KERNEL_DENIED
    };
    Probed probe(std::span<const uint8_t> frame, uint32_t port, uint32_t vlan);

private:
    explicit Guard(guard_bpf *program);
    static int take_copy(void *guard, void *data, size_t size);

    guard_bpf *program_;
    ring_buffer *ring_ = nullptr;
    std::unique_ptr<RingLevel> level_;
    std::unique_ptr<KernelRules> rules_;
    std::unique_ptr<KernelFilters> filters_;
    AddressSet addresses_;
    size_t denies_ = 0;
    const Reader *reader_ = nullptr;  // while copies are read
    size_t left_ = 0;
};

}  // namespace card
