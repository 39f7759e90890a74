// fixture.h: a started module on the fake card, and the words in which tests talk to it.
//
// ModuleTest starts the module before each test (the monitor task's timers armed, its turns taken by pass_seconds, no
// thread of its own) and afterwards checks that the state is consistent, clears everything and checks that nothing is
// left behind: no block, no rule in the chip. A test that leaves the state broken on purpose sets check_at_end = false.
// Lock: none of the verbs may be called with the module mutex held, but for state().
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "anti_cpu/anti_cpu.h"
#include "atc/protocol.h"
#include "atc/state/context.h"
#include "fake_platform.h"

// What is wrong with a tree's shape (order, parents, child indexes, balances, number of nodes); empty when nothing is.
std::string tree_problems(const atc_avl_tree_t &tree);

// The same for a list of timers: links, order.
std::string timer_problems(const atc_timer_list_t &list);

// What is wrong with the module's state, a line each; empty when nothing is. Walks every index and list. The chip is
// compared unless calls to it were made to fail in this test in a way that explains a difference.
std::string state_problems();

// The seed of this run's random tests: ATC_TEST_SEED of the environment, or a fixed one. Noted in the test's record.
uint32_t test_seed();

// g_atc_global for one expression, under the mutex (taken unless this thread holds it): state()->rule_hw_count.
class State {
public:
    State();
    ~State();
    State(const State &) = delete;
    State &operator=(const State &) = delete;
    atc_global_t *operator->() const { return &g_atc_global; }
    atc_global_t &operator*() const { return g_atc_global; }

private:
    bool taken_;
};

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    bool check_at_end = true;

    // ---- Packets: the verdict, 0 = pass, -1 = drop. The module gets a block of exactly the frame's size.
    int rx(std::span<const uint8_t> frame, uint32_t port = 1, uint32_t vlan = 1) { return rx_n(1, frame, port, vlan); }
    int tx(std::span<const uint8_t> frame) { return tx_n(1, frame); }
    // 'n' times; the last verdict.
    int rx_n(uint32_t n, std::span<const uint8_t> frame, uint32_t port = 1, uint32_t vlan = 1);
    int tx_n(uint32_t n, std::span<const uint8_t> frame);

    // ---- Time: a second goes by and the monitor task takes a turn, 'n' times.
    void pass_seconds(uint32_t n);
    // The monitor task takes a turn for each message that waits; no time passes.
    void run_messages();

    // ---- Log: what was logged since last asked, without the line ends.
    std::vector<std::string> alarms() { return new_lines(&alarms_seen_, ATC_LOG_ALARM); }  // level 11
    std::vector<std::string> logs() { return new_lines(&logs_seen_, std::nullopt); }       // any level, as "13 text"

    // ---- Look-ups, under the mutex; null when there is none.
    atc_entry_t *entry(uint32_t port, uint32_t vlan, uint32_t protocol, uint32_t direction = ATC_DIRECTION_RX);
    atc_src_entry_t *source(uint32_t port, uint32_t vlan, uint32_t protocol, uint32_t type, const void *address);
    atc_src_entry_t *mac_source(uint32_t port, uint32_t vlan, uint32_t protocol, std::initializer_list<uint8_t> mac) {
        return source(port, vlan, protocol, ATC_SRC_MAC, mac.begin());
    }
    atc_src_entry_t *ipv4_source(uint32_t port, uint32_t vlan, uint32_t protocol, uint32_t address) {
        return source(port, vlan, protocol, ATC_SRC_IPV4, &address);
    }

    State state() { return {}; }

    // Discards everything that the module remembers but its settings; forgets the card's failure plans.
    void clear();

    // Runs the scenario with the 1st, 2nd, ... call of this kind failing, once and from there on, until none fails.
    // After each run: the state is consistent, the same scenario without failure works, and clearing leaves nothing.
    // The scenario starts from a cleared module and returns whether everything that it asked for was done.
    void sweep(Call kind, const std::function<bool()> &scenario);

private:
    bool sweep_once(Call kind, uint32_t nth, bool from_then_on, const std::function<bool()> &scenario);
    std::vector<std::string> new_lines(size_t *seen, std::optional<uint32_t> level);

    size_t alarms_seen_ = 0;
    size_t logs_seen_ = 0;
};
