// SPDX-License-Identifier: Apache-2.0
// context.h: the module's one record of state, and the mutex that guards it.
//
// g_atc_global is filled by atc_init and lives as long as the process. The context owns every entry in its indexes,
// every record on its lists and the manual capture buffer; the subjects that create a record also free it. Lock:
// everything in the context is under g_atc_lock, but for the words that are read before the mutex can be taken or by
// operations that take none; those go through the accessors below.
#pragma once

#include <cstdint>

#include "anti_cpu/platform.h"
#include "anti_cpu/types.h"
#include "atc/protocol.h"
#include "atc/state/recall.h"
#include "atc/state/records.h"
#include "atc/state/rule_index.h"
#include "atc_lock/lock.h"

using atc_protocol_words_t = uint32_t[ATC_PROTOCOL_SLOTS];

// What is done between two takes of the mutex by whoever takes it for anything but a packet. Work is counted, not
// timed: one is a block closed in the order of memory, some 25 ns; what costs more counts for more.
struct atc_hold_t {
    uint32_t limit;   // work after which it is given back (atc_sem_pause)
    uint32_t work;    // since it was taken
    uint32_t most;    // of all holds so far
    uint32_t pauses;  // so far: when another one has come, what was looked at before may be gone
};
constexpr uint32_t ATC_HOLD_LIMIT = 64;
constexpr uint32_t ATC_WORK_STEP = 4;   // to the next record in the order of an index
constexpr uint32_t ATC_WORK_LINE = 16;  // a line of text, a record that is judged
constexpr uint32_t ATC_WORK_RULE = 32;  // what the module does for a rule of the chip; the driver's own time is its own
constexpr uint32_t ATC_WORK_BUFFER = 256;  // a capture buffer taken or freed

struct atc_global_t {
    // Constant after atc_init.
    uint32_t mod_id;         // handle of the module registry; first argument of every log call
    uint32_t global_enable;  // 1 = packets are processed (read before the lock: atc_is_running)
    uint8_t device_mac[6];

    // Statistics.
    atc_avl_tree_t entry_tree;        // received flows by direction, port, VLAN, protocol
    atc_stat_t rx_stat;               // all received packets
    atc_avl_tree_t port_tree;         // received, by port
    atc_avl_tree_t vlan_tree;         // received, by VLAN
    atc_avl_tree_t rx_protocol_tree;  // received, by protocol
    atc_stat_t tx_stat;               // all sent packets
    atc_avl_tree_t tx_protocol_tree;  // sent, by protocol

    // Rules and trunks.
    atc_list_t filter_list[2];    // software rules: [1] of list type 1, [0] of any other
    atc_rule_index_t deny_rules;  // those of them with this action, found without walking the lists
    atc_rule_index_t permit_rules;
    atc_list_t rule_cursors;        // of the walks over filter_list under way
    atc_list_t hw_cfg_filter_list;  // the operator's hardware filters
    atc_list_t hw_deny_list;        // automatic hardware deny rules
    uint32_t rule_hw_count;         // records on hw_deny_list
    uint64_t rules_numbered;        // records of rules so far: each has a number of its own
    uint32_t discards;  // of flows under way: no rule is installed meanwhile, theirs may still be in the chip
    atc_list_t trunk_list;

    // Trace and manual capture.
    atc_filter_rule_t debug_filter;
    atc_filter_rule_t cap_filter;
    uint8_t debug_enable;  // 1 while a trace is armed
    uint8_t cap_enable;    // 1 while the manual capture records
    uint8_t has_rules;     // 1 while filter_list holds a rule
    uint16_t debug_count;  // packets still to be traced
    uint32_t cap_count;    // packets still to be recorded
    uint32_t cap_len;      // bytes used in cap_buf
    uint8_t *cap_buf;      // ATC_CAPTURE_SIZE bytes, or null

    // Constant after atc_init.
    uint32_t sem;
    uint32_t msgq;

    uint32_t fast_period_time;  // seconds
    uint32_t long_period_time;  // seconds
    uint8_t fp_pass;            // number of the last fast pass that began; wraps
    uint8_t lp_pass;            // of the last long pass
    uint8_t pass;               // the period (atc_period_t) whose pass is under way, 0 = none
    atc_timer_list_t *timer_list;
    uint32_t protocol_cap_cnt;  // automatic capture buffers held

    // Settings by protocol id.
    atc_protocol_words_t deny;  // on when 1, like the five below
    atc_protocol_words_t hw_deny;
    atc_protocol_words_t src_deny;
    atc_protocol_words_t src_hw_deny;
    atc_protocol_words_t cap;
    atc_protocol_words_t src_cap;
    atc_protocol_words_t fp_limit;  // packets per second, in force
    atc_protocol_words_t lp_limit;
    atc_protocol_words_t src_fp_limit;
    atc_protocol_words_t src_lp_limit;
    atc_protocol_words_t fp_limit_cfg;  // packets per second as set, 0 = default
    atc_protocol_words_t lp_limit_cfg;
    atc_protocol_words_t src_fp_limit_cfg;
    atc_protocol_words_t src_lp_limit_cfg;

    // Upload.
    uint16_t upload_enable;  // 1 = full automatic captures are uploaded
    uint32_t server_ip;      // processor byte order
    uint32_t ftp_type;       // the host's number
    char server_user[32];    // NUL-padded
    char server_passwd[32];  // NUL-padded

    // Shown by atc_config_show only.
    uint32_t ipattack;
    uint32_t icmpattack;
    uint32_t icmpattack_size;

    atc_hold_t hold;

    atc_recall_t recall;  // what the indexes hold, found without walking them

    // New flows that are still to get their places in entry_tree, several at a time (atc_sem_take).
    void *new_flows[ATC_AVL_ADD_MAX];
    uint32_t new_flow_count;
};

extern atc_global_t g_atc_global ATC_GUARDED_BY(g_atc_lock);
extern uint32_t g_atc_init;  // 1 once atc_init is through (atc_is_running, atc_set_initialised)

// The monitor task's timers.
extern atc_timer_t g_atc_timer_fp ATC_GUARDED_BY(g_atc_lock);
extern atc_timer_t g_atc_timer_lp ATC_GUARDED_BY(g_atc_lock);
extern atc_timer_t g_atc_timer_24h ATC_GUARDED_BY(g_atc_lock);

// Take and release the module mutex. No function that is called with it held takes it again. A packet may leave new
// flows behind that are in no index yet; whoever takes the mutex for anything else finds every flow in its place.
void atc_sem_take() ATC_ACQUIRE(g_atc_lock);
void atc_sem_take_for_packet() ATC_ACQUIRE(g_atc_lock);
void atc_sem_give() ATC_RELEASE(g_atc_lock);

// Counts work of this hold. Returns whether it was enough for one.
inline bool atc_hold_spend(uint32_t work) ATC_REQUIRES(g_atc_lock) {
    atc_hold_t *hold = &g_atc_global.hold;
    hold->work += work;
    hold->most = hold->work > hold->most ? hold->work : hold->most;
    return hold->work >= hold->limit;
}

// The two halves of a pause.
void atc_sem_pause_begin() ATC_RELEASE(g_atc_lock);
void atc_sem_pause_end() ATC_ACQUIRE(g_atc_lock);

// Gives the mutex to whoever waits for it, calls between(), and takes it again. Whatever is not the caller's own may
// have changed, and every record may have been freed.
template <typename between_t>
inline void atc_sem_pause(between_t between) ATC_REQUIRES(g_atc_lock) ATC_NO_THREAD_SAFETY_ANALYSIS {
    atc_sem_pause_begin();
    between();
    atc_sem_pause_end();
}
inline void atc_sem_pause() ATC_REQUIRES(g_atc_lock) {
    atc_sem_pause([] {});
}

// The same when this hold has done enough.
inline void atc_sem_pause_if_due() ATC_REQUIRES(g_atc_lock) {
    if (atc_hold_spend(0)) {
        atc_sem_pause();
    }
}

// Calls visit(record) for every record of a list on which each has a greater 'number' than those behind it, with
// pauses; 'visit' may free the record.
template <typename record_t, typename visit_t>
inline void atc_numbered_each(atc_list_t *list, visit_t visit) ATC_REQUIRES(g_atc_lock) {
    uint64_t number = UINT64_MAX;
    const auto is_next = [&number](const record_t *record) { return record->number < number; };
    while (auto *record = atc_list_find<record_t>(list, is_next)) {
        number = record->number;
        visit(record);
        atc_sem_pause_if_due();
    }
}

// The index of the rules with this action; null for an action that never acts.
inline atc_rule_index_t *atc_rule_index_of(uint32_t action) ATC_REQUIRES(g_atc_lock) {
    return action == ATC_ACTION_DENY     ? &g_atc_global.deny_rules
           : action == ATC_ACTION_PERMIT ? &g_atc_global.permit_rules
                                         : nullptr;
}

// Gives new flows their places in entry_tree.
void atc_new_flows_link() ATC_REQUIRES(g_atc_lock);

// Holds the module mutex for a scope.
struct atc_for_packet_t {};
class ATC_SCOPED_CAPABILITY atc_guard_t {
public:
    atc_guard_t() ATC_ACQUIRE(g_atc_lock) { atc_sem_take(); }
    explicit atc_guard_t(atc_for_packet_t) ATC_ACQUIRE(g_atc_lock) { atc_sem_take_for_packet(); }
    ~atc_guard_t() ATC_RELEASE() { atc_sem_give(); }
    atc_guard_t(const atc_guard_t &) = delete;
    atc_guard_t &operator=(const atc_guard_t &) = delete;
};

// True once atc_init is through and while the module is enabled. Takes no lock.
bool atc_is_running();

// Publishes all that atc_init wrote to the threads that ask atc_is_running.
void atc_set_initialised();

// The words that are stored and read without the mutex.
uint32_t atc_word_load(const uint32_t *word);
void atc_word_store(uint32_t *word, uint32_t value);

// The allocator of the card, with the caller's position.
#define atc_malloc(size) bep_mallocEx((size), __FILE__, __LINE__)
#define atc_calloc(size) bep_callocEx(1, (size), __FILE__, __LINE__)
#define atc_free(ptr) bep_freeEx((ptr), __FILE__, __LINE__)

// Levels of ulogPrintf.
constexpr uint32_t ATC_LOG_ALARM = 11;
constexpr uint32_t ATC_LOG_NOTICE = 13;
