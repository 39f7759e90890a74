// SPDX-License-Identifier: Apache-2.0
#include "chip/kernel/guard.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/bpf.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <system_error>
#include <vector>

// After record.h, whose types it names.
#include "guard.skel.h"

namespace card {

namespace {

constexpr int kEnough = -ENOBUFS;  // ends a look at the ring

uint64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

// What libbpf has to say, the first line of it: the caller decides whether it is told.
std::string &last_words() {
    static thread_local std::string words;
    return words;
}

__attribute__((format(printf, 2, 0))) int keep_words(libbpf_print_level level, const char *format, va_list arguments) {
    if (level == LIBBPF_WARN) {
        std::array<char, 512> text{};
        std::vsnprintf(text.data(), text.size(), format, arguments);
        if (last_words().empty()) {
            last_words() = text.data();
        }
    }
    return 0;
}

std::string reason(int error) {
    std::string text = std::generic_category().message(error);
    switch (error) {
        case EPERM:
            return text + " (it takes root, or CAP_BPF, CAP_NET_ADMIN and CAP_PERFMON)";
        case EACCES:
            return "its verifier refuses it: " + last_words();
        case ENOSYS:
            return text + " (this kernel was built without BPF, or something forbids the call)";
        case ENOMEM:
            return text + " (30 MB for tables and ring: a memory limit of its group, or RLIMIT_MEMLOCK?)";
        default:
            return text + (last_words().empty() ? "" : ": " + last_words());
    }
}

}  // namespace

bool AddressLess::operator()(const kernel_address &a, const kernel_address &b) const {
    return std::memcmp(&a, &b, sizeof(a)) < 0;
}

std::unique_ptr<Guard> Guard::load(const GuardOptions &options, std::string &error) {
    libbpf_set_strict_mode(LIBBPF_STRICT_ALL);
    libbpf_set_print(keep_words);
    last_words().clear();
    guard_bpf *program = guard_bpf__open();
    if (program == nullptr) {
        error = reason(errno);
        return nullptr;
    }
    std::unique_ptr<Guard> guard(new Guard(program));
    program->rodata->classes = options.classes;
    std::memcpy(program->rodata->device_mac, options.device_mac.data(), options.device_mac.size());
    program->bss->patience_ns = options.patience_ns;
    program->bss->address_generation = 1;
    bpf_program__set_autoload(program->progs.probe, options.with_probe);
    if (const int result = guard_bpf__load(program); result != 0) {
        error = reason(-result);
        return nullptr;
    }
    guard->ring_ = ring_buffer__new(bpf_map__fd(program->maps.copies), take_copy, guard.get(), nullptr);
    if (guard->ring_ == nullptr) {
        error = reason(errno);
        return nullptr;
    }
    guard->level_ =
        std::make_unique<RingLevel>(bpf_map__fd(program->maps.copies), bpf_map__max_entries(program->maps.copies));
    guard->rules_ =
        std::make_unique<KernelRules>(KernelRules::Tables{bpf_map__fd(program->maps.rules),
                                                          bpf_map__fd(program->maps.matched),
                                                          {program->bss->masks, &program->bss->mask_count}});
    guard->filters_ = std::make_unique<KernelFilters>(
        bpf_map__fd(program->maps.filters), MaskSlots::Shared{program->bss->filter_masks, &program->bss->filter_count});
    guard->beat();
    return guard;
}

Guard::Guard(guard_bpf *program) : program_(program) {}

Guard::~Guard() {
    ring_buffer__free(ring_);
    guard_bpf__destroy(program_);
}

int Guard::received_program() const {
    return bpf_program__fd(program_->progs.guard_received);
}

int Guard::sent_program() const {
    return bpf_program__fd(program_->progs.guard_sent);
}

bool Guard::set_port(uint32_t interface, const kernel_port &port) {
    return bpf_map_update_elem(bpf_map__fd(program_->maps.ports), &interface, &port, BPF_ANY) == 0;
}

void Guard::forget_port(uint32_t interface) {
    bpf_map_delete_elem(bpf_map__fd(program_->maps.ports), &interface);
}

kernel_counts Guard::counts(uint32_t index) const {
    std::vector<kernel_counts> each(static_cast<size_t>(libbpf_num_possible_cpus()));
    kernel_counts sum{};
    if (bpf_map_lookup_elem(bpf_map__fd(program_->maps.counts), &index, each.data()) != 0) {
        return sum;
    }
    for (const kernel_counts &one : each) {
        sum.offered += one.offered;
        sum.stopped += one.stopped;
        sum.dropped += one.dropped;
        sum.passed += one.passed;
        sum.transit += one.transit;
        sum.blind += one.blind;
        sum.lost += one.lost;
        sum.sent += one.sent;
    }
    return sum;
}

bool Guard::set_addresses(const AddressSet &addresses) {
    const int map = bpf_map__fd(program_->maps.addresses);
    bool all = true;
    size_t changes = 0;
    for (const kernel_address &address : addresses) {
        if (addresses_.contains(address)) {
            continue;
        }
        const uint8_t is_there = 1;
        if (bpf_map_update_elem(map, &address, &is_there, BPF_ANY) == 0) {
            addresses_.insert(address);
            changes++;
        } else {
            all = false;
        }
    }
    changes += std::erase_if(addresses_, [&](const kernel_address &address) {
        return !addresses.contains(address) && bpf_map_delete_elem(map, &address) == 0;
    });
    if (changes > 0) {
        const uint32_t next = program_->bss->address_generation + 1;
        program_->bss->address_generation = next != 0 ? next : 1;
    }
    return all;
}

uint64_t Guard::patience_ns() const {
    return program_->bss->patience_ns;
}

void Guard::beat() {
    program_->bss->heartbeat_ns = monotonic_ns();
}

size_t Guard::read_copies(size_t most, const Reader &reader) {
    reader_ = &reader;
    left_ = most;
    ring_buffer__consume(ring_);
    reader_ = nullptr;
    return most - left_;
}

// The copy is taken whatever is answered; a negative answer only ends the look.
int Guard::take_copy(void *guard, void *data, size_t) {
    Guard &self = *static_cast<Guard *>(guard);
    const auto *copy = static_cast<const kernel_copy *>(data);
    (*self.reader_)(*copy, reinterpret_cast<const uint8_t *>(copy + 1));
    return --self.left_ == 0 ? kEnough : 0;
}

bool Guard::deny(const kernel_flow &flow) {
    const uint32_t is_there = 1;
    if (bpf_map_update_elem(bpf_map__fd(program_->maps.denies), &flow, &is_there, BPF_NOEXIST) != 0) {
        return errno == EEXIST;
    }
    denies_++;
    program_->bss->deny_count = static_cast<uint32_t>(denies_);
    return true;
}

bool Guard::allow(const kernel_flow &flow) {
    if (bpf_map_delete_elem(bpf_map__fd(program_->maps.denies), &flow) != 0) {
        return false;
    }
    denies_--;
    program_->bss->deny_count = static_cast<uint32_t>(denies_);
    return true;
}

Guard::Probed Guard::probe(std::span<const uint8_t> frame, uint32_t port, uint32_t vlan) {
    program_->bss->probe_port = port;
    program_->bss->probe_vlan = vlan;
    LIBBPF_OPTS(bpf_test_run_opts, run);
    run.data_in = frame.data();
    run.data_size_in = static_cast<uint32_t>(frame.size());
    const int result = bpf_prog_test_run_opts(bpf_program__fd(program_->progs.probe), &run);
    return {program_->bss->probed, result == 0 && run.retval == XDP_DROP, program_->bss->probed_flags};
}

}  // namespace card
