// run.h: a run of random steps, each taken by the module and by the model.
//
// A step is one thing that happens to a running module: packets, a setting, a clear, a trunk that changes, time, a card
// that fails. After every step the module's answer, its totals, the calls that it made and, where they may have
// changed, its rules, records and timers are those of the model; every few hundred steps everything is. A life ends
// after some hundred thousand steps with nothing left behind, and another begins. What a seed does depends on nothing
// but the seed. The frame of it is in run.cpp with the steps of the card; steps.cpp has those of packets and operators.
#pragma once

#include <cstdint>
#include <iterator>
#include <random>
#include <string>

#include "model.h"

class Run {
public:
    explicit Run(uint64_t seed);

    // Takes the steps. Returns the first one whose outcome is wrong, 0 when there is none.
    uint64_t take(uint64_t steps);

    // What the steps came across, as a line.
    void print_seen() const;

    std::string problems;       // of the step that went wrong, a line each
    char words[160] = "start";  // the latest step

private:
    void one_step();

    // steps.cpp
    void packets();
    void sent();
    void counters();
    void time();
    void turn() { pass(0); }
    void pass(uint32_t seconds);
    void limit();
    void enable();
    void period();
    void global_enable();
    void upload_enable();
    void clear();
    void expect_clear(int result, Model::Index *index, uint32_t key);
    void clear_owner(uint32_t direction, uint32_t port, uint32_t vlan, const PacketClass &cls,
                     std::optional<uint32_t> source);
    void clear_all();
    void captures();
    void clear_rules();
    void filter();

    // run.cpp
    void weather();
    void trunk();
    void failure();
    void recovery();
    void drop_orphan(ChipRule &rule);
    void fail(Call kind, uint32_t nth, bool from_then_on);
    void chip_mood();
    void queue_size();
    void start();
    std::string finish();

    uint32_t below(uint64_t n) { return static_cast<uint32_t>(random_() % n); }
    bool chance(uint32_t percent) { return below(100) < percent; }

    template <typename item_t, size_t n>
    const item_t &one_of(const item_t (&items)[n]) {
        return items[below(n)];
    }

    __attribute__((format(printf, 2, 3))) void say(const char *format, ...);

    template <typename number_t>
    void expect(const char *what, number_t got, number_t expected) {
        if (got != expected) {
            answers_ += std::string("  ") + what + " is " + std::to_string(got) + ", must be ";
            answers_ += std::to_string(expected) + "\n";
        }
    }

    Seen seen_;
    Model model_{&seen_};
    std::mt19937_64 random_;
    Frame frames_[std::size(CLASSES)][SOURCES][2];  // plain, jumbo
    std::string answers_;                           // that were wrong in this step
    bool check_rules_ = false;
    bool flood_ = false;  // rules come and stay, so that there are as many as there can be
    size_t most_rules_ = 0;
    int64_t seconds_ = 0;
};

constexpr uint32_t PORTS[] = {1, 2, 40, 41, 255};
