// SPDX-License-Identifier: Apache-2.0
// fixture.h: a started module on the fake card, and the words in which tests talk to it.
//
// ModuleTest starts the module before each test (the monitor task's timers armed, its turns taken by pass_seconds) and
// afterwards checks that the state is consistent, clears everything and checks that nothing is left behind: no block,
// no rule in the chip.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

#include "anti_cpu/anti_cpu.h"
#include "atc/protocol.h"
#include "atc/state/context.h"
#include "fake_platform.h"

using Lines = std::vector<std::string>;

// What is wrong with a tree's shape (order, parents, child indexes, balances, number of nodes); empty when nothing is.
std::string tree_problems(const atc_avl_tree_t &tree);

// What is wrong with the module's state, a line each; empty when nothing is. Walks every index and list. The chip is
// compared unless a rule's removal was made to fail in this test.
std::string state_problems();

// Calls visit(record) for every record of a tree, in order.
template <typename record_t, typename visit_t>
void each_record(const atc_avl_tree_t &tree, visit_t visit) {
    for (void *record = atc_avl_first(&tree); record != nullptr; record = atc_avl_next(&tree, record)) {
        visit(static_cast<record_t *>(record));
    }
}

// The seed of this run's random tests: ATC_TEST_SEED of the environment, or a fixed one. Noted in the test's record.
uint32_t test_seed();

// What an action prints on standard output.
std::string printed(const std::function<void()> &action);

// g_atc_global for one expression: state()->rule_hw_count. Whoever takes the mutex finds new flows in their places.
struct State {
    State() { const atc_guard_t guard; }
    atc_global_t *operator->() const { return &g_atc_global; }
    atc_global_t &operator*() const { return g_atc_global; }
};

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // ---- Packets: the verdict, 0 = pass, -1 = drop. The module gets a block of exactly the frame's size.
    int rx(std::span<const uint8_t> frame, uint32_t port = 1, uint32_t vlan = 1) { return rx_n(1, frame, port, vlan); }
    int tx(std::span<const uint8_t> frame) { return tx_n(1, frame); }
    // 'n' times; the last verdict.
    int rx_n(uint32_t n, std::span<const uint8_t> frame, uint32_t port = 1, uint32_t vlan = 1);
    int tx_n(uint32_t n, std::span<const uint8_t> frame);

    // ---- Settings: these setters of a protocol, all with this value; the fast period.
    using Set = uint32_t (*)(uint32_t id, uint32_t value);
    void set(uint32_t protocol, uint32_t value, std::initializer_list<Set> setters, uint32_t fast_period_s = 10);

    // ---- Time: a second goes by and the monitor task takes a turn, 'n' times.
    void pass_seconds(uint32_t n);
    // The monitor task takes a turn for each message that waits; no time passes.
    void run_messages();

    // ---- Log: what was logged since last asked, without the line ends; "13 text" for any level but 11.
    Lines alarms();

    // ---- Look-ups; null when there is none.
    atc_entry_t *entry(uint32_t port, uint32_t vlan, uint32_t protocol);
    atc_src_entry_t *mac_source(uint32_t port, uint32_t vlan, uint32_t protocol,
                                std::initializer_list<uint8_t> mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55});

    static State state() { return {}; }

    // Text that the module hands out; "(none)" when it does not.
    static std::string text_of(int (*report)(char **text));

    // Discards everything that the module remembers but its settings; forgets the card's failure plans.
    void clear();

    // Runs the scenario with the 1st, 2nd, ... call of each kind failing, once and from there on, until none fails.
    // After each run: the state is consistent, the same scenario without failure works, and clearing leaves nothing.
    // The scenario starts from a cleared module and returns whether everything that it asked for was done.
    void sweep(std::initializer_list<Call> kinds, const std::function<bool()> &scenario);

    // For scenarios: an answer has to say what happened (ask first, look then). Returns what happened.
    static bool told(int answer, bool is_done) {
        EXPECT_EQ(answer == 0, is_done) << "the answer is not what happened";
        return is_done;
    }

private:
    bool sweep_once(Call kind, uint32_t nth, bool from_then_on, const std::function<bool()> &scenario);

    size_t log_seen_ = 0;
};
