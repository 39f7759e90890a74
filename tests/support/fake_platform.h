// fake_platform.h: the card of the tests. Every function of platform.h, and the clock, as a fake that watches its
// caller.
//
// fake() is the one card of a test process: tests read what the module did from it and tell it what to answer. It owns
// the fake clock (clock_gettime is defined here), the allocator's books, the module mutex, the message queue, the log,
// the chip's rules and the uploads. Invariants that it checks itself, each a failure of the running test: nothing is
// freed twice or without having been allocated; the mutex is neither taken twice by a thread nor given untaken; nothing
// waits or transfers with the mutex held; messages have the queue's size; the chip's calls are formed as agreed.
// Lock: all functions may be called from any thread. The plain data members are for tests while no other thread runs.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include "anti_cpu/platform.h"

constexpr int64_t ns_per_second = 1'000'000'000;

using Bytes = std::vector<uint8_t>;

// The kinds of calls that are counted, and that fail when told to.
enum class Call : size_t {
    alloc,          // bep_mallocEx and bep_callocEx: null
    sem_create,     // 0
    queue_create,   // 0
    send,           // -1, the message is not taken
    receive,        // -1, the message stays
    delay,          // -1, no time passes
    spawn,          // -1
    mod_register,   // 0
    log,            // -1, nothing is logged
    chip_set,       // -1, nothing is installed
    chip_delete,    // -1, the rule stays
    chip_entry_id,  // -1, the word is left alone
    chip_stat_id,   // -1, the word is left alone
    chip_counters,  // -1, the record is left alone
    upload,         // -1, nothing arrives
    port_map,       // -1, not translated
    ntop6,          // null
    clock,          // counted only
    count,          // number of kinds
};

struct LogLine {
    uint32_t mod_id;
    uint32_t level;
    std::string text;  // with its line end
};

struct Upload {
    std::string server;
    std::string user;
    std::string passwd;
    std::string file_name;
    Bytes data;
    uint32_t ftp_type;
};

// One rule in the chip: the three buffers' used bytes as they were installed.
struct ChipRule {
    uint32_t entry_id;
    uint32_t stat_id;
    Bytes match;
    Bytes op;
    Bytes port;
    uint64_t packets;  // its counter; fake().set_packets
};

// Arguments of norv_task_spawn.
struct Spawned {
    std::string name;
    int priority;
    int options;
    uint32_t stack_size;
    int (*entry)(void);
    std::array<uintptr_t, 11> args;
};

// Arguments of modInitRegister, and of setModVersion.
struct Registered {
    std::string name;
    std::array<uint32_t, 4> args;
};
struct Version {
    uint32_t mod_id;
    uint32_t kind;
    std::string text;
};

// The plain members of fake().
struct CardData {
    // What the card answers; set by tests.
    uint32_t ticks_per_second = 60;
    size_t queue_capacity = 256;  // messages; bep_msgQCreateEx sets it to what is asked
    int chip_set_result = 0;      // of hw_driver_set_stream_qos_item: negative refuses, positive installs all the same
    int upload_result = 0;        // not 0: nothing arrives
    std::array<uint8_t, 6> mac = {0x02, 0, 0, 0, 0, 0x01};
    uint32_t backup_slot = 0;
    std::function<void()> on_delay;    // in bep_taskDelayEx, when the time has passed
    std::function<void()> on_receive;  // in bep_msgQReceiveEx, before the queue is looked at
    std::function<void()> on_upload;   // in xftp_upload_base

    // What the module told the card.
    std::vector<Upload> uploads;
    std::vector<Spawned> spawned;
    std::vector<Registered> registered;
    std::vector<Version> versions;
    std::vector<uint32_t> sem_options;             // of every bep_semMCreateEx
    std::vector<std::array<uint32_t, 3>> queues;   // messages, message size, options of every bep_msgQCreateEx
    std::vector<std::array<uint32_t, 2>> sent_as;  // time-out (as unsigned) and priority of every bep_msgQSendEx
    int receive_timeout = 0;                       // ticks, of the last bep_msgQReceiveEx
    int (*trunk_handler)(uint32_t, uint32_t, uint32_t, uint32_t) = nullptr;
};

class FakePlatform : public CardData {
public:
    static constexpr uint32_t sem_handle = 11;
    static constexpr uint32_t queue_handle = 22;
    static constexpr uint32_t mod_handle = 77;
    static constexpr uint32_t first_entry_id = 1000;
    static constexpr uint32_t first_stat_id = 5000;

    // Everything as at power-up, and the clock is the fake one. Blocks of an earlier test that still live are
    // forgotten.
    void reset();

    // ---- Clock: monotonic 1000.25 s and 2021-09-02 03:46:20 UTC at reset; stands still unless told.
    void advance(int64_t seconds) { advance_ns(seconds * ns_per_second); }
    void advance_ns(int64_t nanoseconds);
    // The wall clock stays.
    void set_monotonic(int64_t seconds, int64_t nanoseconds = 0) {
        write(monotonic_ns_, seconds * ns_per_second + nanoseconds);
    }
    // Since 1970; the monotonic clock stays.
    void set_realtime(int64_t seconds) { write(realtime_ns_, seconds * ns_per_second); }
    int64_t monotonic_ns() { return read(monotonic_ns_); }
    int64_t realtime_ns() { return read(realtime_ns_); }
    static std::atomic<bool> clock_owned;  // static: the clock may be read before the card exists
    // Back to the system's clock, for the test runner's own times.
    void release_clock() { clock_owned = false; }

    // ---- Calls: counted since reset; the nth from now on (1 = the next) fails, once or with all that follow.
    void fail(Call kind, uint32_t nth, bool from_then_on = false) {
        write(plans_[static_cast<size_t>(kind)], {nth, from_then_on, 0});
    }
    // Forgets every plan.
    void fail_none() { write(plans_, {}); }
    // Calls, failed ones included; those that failed by the present plan; by any plan since reset.
    uint32_t calls(Call kind) { return read(calls_[static_cast<size_t>(kind)]); }
    uint32_t hits(Call kind) { return read(plans_[static_cast<size_t>(kind)]).hits; }
    uint32_t failed(Call kind) { return read(failed_[static_cast<size_t>(kind)]); }

    // ---- Memory
    size_t live_blocks() { return read(live_).size(); }

    // ---- Mutex: held by the calling thread?
    bool mutex_held() { return read(owner_) == std::this_thread::get_id(); }

    // ---- Message queue
    size_t queued() { return read(queue_).size(); }
    std::optional<Bytes> take_message();  // the oldest, by the test instead of the task

    // ---- Log: a copy of all lines since reset, oldest first
    std::vector<LogLine> log() { return read(log_); }

    // ---- Chip
    std::vector<ChipRule> chip();  // by entry id
    void set_packets(uint32_t stat_id, uint64_t packets);
    // Loses all rules, as a chip that was reset.
    void chip_clear() { write(rules_, {}); }

    // ---- Card
    void map_port(uint32_t port, uint32_t slot, uint32_t slot_port);  // instead of port / 64 + 1, port % 64
    void unmap_port(uint32_t port);                                   // its translation fails

    // ---- For the functions of platform.h only
    bool enter(Call kind);  // counts; true when this call is to fail
    void *allocate(size_t size, int fill);
    void release(void *ptr);
    int take();
    int give();
    int send(const void *message, uint32_t size, int timeout, uint32_t priority);
    int receive(void *message, uint32_t size, int timeout);
    int upload(Upload file);
    void add_log(uint32_t mod_id, uint32_t level, std::string text);
    int chip_set(const void *match, uint32_t match_len, const void *op, uint32_t op_len, const void *port,
                 uint32_t port_len);
    int chip_delete(const void *match, uint32_t match_len, const void *op, uint32_t op_len, const void *port,
                    uint32_t port_len);
    std::optional<ChipRule> chip_lookup(const void *match, uint32_t match_len, const void *op, uint32_t op_len,
                                        const void *port, uint32_t port_len);
    std::optional<uint64_t> packets(uint32_t stat_id);
    std::optional<std::pair<uint32_t, uint32_t>> slot_port(uint32_t port);

private:
    // A member as it is, or as it is to be, under guard_.
    template <typename member_t>
    member_t read(const member_t &member) {
        std::lock_guard<std::mutex> lock(guard_);
        return member;
    }
    template <typename member_t>
    void write(member_t &member, std::type_identity_t<member_t> value) {
        std::lock_guard<std::mutex> lock(guard_);
        member = std::move(value);
    }

    // A rule is known by its match list, its operation list, and its ports without the kind.
    using ChipKey = std::tuple<Bytes, Bytes, Bytes>;
    struct Plan {
        uint32_t in = 0;  // calls until the one that fails; 0 = no plan
        bool from_then_on = false;
        uint32_t hits = 0;
    };
    static constexpr size_t kinds = static_cast<size_t>(Call::count);

    ChipKey chip_key(uint16_t kind, const void *match, uint32_t match_len, const void *op, uint32_t op_len,
                     const void *port, uint32_t port_len);

    std::mutex guard_;  // all that follows but the module's mutex
    int64_t monotonic_ns_ = 0;
    int64_t realtime_ns_ = 0;
    std::array<Plan, kinds> plans_;
    std::array<uint32_t, kinds> calls_{};
    std::array<uint32_t, kinds> failed_{};
    std::unordered_set<void *> live_;
    std::deque<Bytes> queue_;
    std::vector<LogLine> log_;
    std::map<ChipKey, ChipRule> rules_;
    uint32_t next_rule_ = 0;
    std::map<uint32_t, std::optional<std::pair<uint32_t, uint32_t>>> ports_;

    std::mutex sem_;  // the module's mutex
    std::thread::id owner_;
};

// The card of this process.
FakePlatform &fake();
