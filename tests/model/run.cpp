// run.cpp: a run of random steps, each taken by the module and by the model.
//
// A step is one thing that happens to a running module: packets, a setting, a clear, a trunk that changes, time, a card
// that fails. After every step the answers, records, timers and the chip are those of the model; now and then
// everything is. A life of some thousand steps ends with nothing left behind, and another begins. What a seed does
// depends on nothing but the seed.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "anti_cpu/anti_cpu.h"
#include "atc/monitor.h"
#include "fixture.h"
#include "model.h"

namespace {

constexpr uint64_t LIFE = 4000;       // steps from one start of the module to the next
constexpr uint64_t FULL_CHECK = 100;  // steps from one comparison of everything to the next
constexpr uint32_t PORTS[] = {1, 2, 40, 41, 255};
constexpr uint32_t VLANS[] = {0, 1, 100, 0, 1, 100, 0, 1, 100, 4089};
constexpr uint32_t VALUES[] = {0, 1, 1, 1, 1, 2, 7};  // packets per second, or enables
constexpr uint32_t TRUNKS[] = {40, 41, 2};
constexpr uint32_t MEMBERS[] = {1, 3, 4, 5, 6, 7, 8, 9, 10};  // more than a trunk takes
constexpr Call FAILING[] = {Call::chip_set,      Call::chip_delete, Call::chip_entry_id, Call::chip_stat_id,
                            Call::chip_counters, Call::alloc,       Call::send,          Call::receive};

class Run : public ModuleTest {
public:
    explicit Run(uint64_t seed) : random_(seed) {}

    // Takes the steps. Returns the first one whose outcome is wrong, 0 when there is none.
    uint64_t take(uint64_t steps) {
        for (uint64_t step = 1; step <= steps; ++step) {
            if (step % LIFE == 1) {
                start();
            }
            one_step();
            problems += differences(model, step % FULL_CHECK == 0 || step == steps);
            if (problems.empty() && (step % LIFE == 0 || step == steps)) {
                finish();
            }
            if (testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed()) {
                problems += "  the card or the end of a life saw what is told above\n";
            }
            if (!problems.empty()) {
                return step;
            }
        }
        return 0;
    }

    std::string problems;       // of the step that went wrong, a line each
    char words[160] = "start";  // the latest step
    Model model;

private:
    void TestBody() override {}

    uint32_t below(uint64_t n) { return static_cast<uint32_t>(random_() % n); }
    bool chance(uint32_t percent) { return below(100) < percent; }
    template <typename item_t, size_t n>
    const item_t &one_of(const item_t (&items)[n]) {
        return items[below(n)];
    }

    void one_step() {
        constexpr std::pair<uint32_t, void (Run::*)()> steps[] = {
            // of 1000
            {640, &Run::packets}, {60, &Run::counters}, {70, &Run::time},     {100, &Run::setting},
            {4, &Run::period},    {30, &Run::clear},    {1, &Run::clear_all}, {15, &Run::clear_rules},
            {40, &Run::trunk},    {20, &Run::failure},  {20, &Run::recovery},
        };
        const auto *step = steps;
        for (uint32_t drawn = below(1000); drawn >= step->first; ++step) {
            drawn -= step->first;
        }
        (this->*step->second)();
    }

    __attribute__((format(printf, 2, 3))) void say(const char *format, ...) {
        va_list args;
        va_start(args, format);
        std::vsnprintf(words, sizeof(words), format, args);
        va_end(args);
    }

    void expect(const char *what, int64_t got, int64_t expected) {
        if (got != expected) {
            problems += std::string("  ").append(what) + " is " + std::to_string(got) + ", must be ";
            problems += std::to_string(expected) + "\n";
        }
    }

    void start() {
        Model next;
        next.seen.swap(model.seen);
        std::swap(model, next);
        flood_ = !flood_;
        SetUp();
        for (const PacketClass &cls : CLASSES) {
            expect("result", atc_api_set_protocol_hw_deny_enable(cls.id, 1), 0);  // floods from the first step on
        }
    }

    void finish() {
        say("the end of a life");
        fake().fail_none();
        TearDown();
    }

    void packets() {
        const PacketClass &cls = one_of(CLASSES);
        const uint32_t source = 1 + below(SOURCES);
        const uint32_t port = one_of(PORTS);
        const uint32_t vlan = one_of(VLANS);
        const uint32_t times = 1 + below(chance(10) ? 60 : 8);
        say("%u packets of class %u, source %u, port %u, vlan %u", times, cls.id, source, port, vlan);
        Frame frame = cls.frame();
        if (cls.src_type != ATC_SRC_NONE) {
            cls.src_type == ATC_SRC_MAC ? frame.from(source) : frame.src_ip(source);
        }
        for (uint32_t i = 0; i < times; ++i) {
            expect("verdict", rx(frame, port, vlan), model.receive(port, vlan, cls, source));
        }
    }

    // The chip has stopped packets, around what keeps a rule.
    void counters() {
        say("counters of the rules");
        for (const Record &record : model.records) {
            if (InChip *rule = model.by_stat(record.stat_id); rule != nullptr) {
                const uint64_t threshold = model.threshold(*record.flow, record.source != 0);
                const uint64_t values[] = {0,         threshold - 1, threshold,
                                           threshold, threshold + 1, threshold + (1ULL << 32)};
                const uint64_t more = flood_ ? threshold : one_of(values);
                rule->packets = more == 0 ? 0 : record.last_packets + more;
                fake().set_packets(rule->stat_id, rule->packets);
            }
        }
    }

    // Mostly short; sometimes only a turn of the task.
    void time() {
        if (flood_) {
            counters();
        }
        const uint32_t lengths[] = {0, 0, 0, 1, 1, 1, model.fast_period, model.fast_period, 1 + below(20)};
        const uint32_t seconds = chance(4) ? (chance(15) ? 86400 : model.long_period) : one_of(lengths);
        say("%u seconds and a turn of the task", seconds);
        model.now += seconds;
        fake().advance(seconds);
        atc_task_turn();
        model.turn();
    }

    void setting() {
        const PacketClass &cls = one_of(CLASSES);
        const bool sets_limit = chance(50);
        const uint32_t of_sources = below(2);
        const uint32_t value = flood_ ? 1 : one_of(VALUES);
        say("%s of class %u, sources %u: %u", sets_limit ? "limit" : "hardware deny", cls.id, of_sources, value);
        constexpr uint32_t (*set[2][2])(uint32_t, uint32_t) = {
            {atc_api_set_protocol_hw_deny_enable, atc_api_set_protocol_src_hw_deny_enable},
            {atc_api_set_protocol_fp_limit, atc_api_set_protocol_src_fp_limit}};
        expect("result", set[sets_limit][of_sources](cls.id, value), 0);
        Model::Limits &limits = model.limits[cls.id];
        if (sets_limit) {
            limits.pps[of_sources] = value != 0 ? value : cls.limit;
            return;
        }
        limits.hw_deny[of_sources] = value;
        model.withdraw_if([&](const Record &record) {
            return value == 0 && record.flow->cls == &cls && (record.source != 0) == (of_sources != 0);
        });
    }

    void period() {
        constexpr uint32_t fast[] = {1, 2, 5, 10, 30};
        constexpr uint32_t slow[] = {10, 60, 600, 3600};
        const bool is_fast = chance(50);
        const uint32_t seconds = is_fast ? one_of(fast) : one_of(slow);
        say("%s period of %u seconds", is_fast ? "fast" : "long", seconds);
        expect("result", is_fast ? atc_api_set_fast_period_time(seconds) : atc_api_set_long_period_time(seconds), 0);
        (is_fast ? model.fast_period : model.long_period) = seconds;
        model.arm(is_fast ? &Model::fast_pass : &Model::long_pass, seconds);
    }

    // The counters of a flow, or of a source of it.
    void clear() {
        const uint32_t port = one_of(PORTS);
        const uint32_t vlan = one_of(VLANS);
        const PacketClass &cls = one_of(CLASSES);
        const uint32_t source = cls.src_type == ATC_SRC_NONE ? 0 : below(SOURCES + 1);
        say("clear port %u, vlan %u, class %u, source %u", port, vlan, cls.id, source);
        uint8_t address[16] = {0x06, 0, 0, 0, 0, static_cast<uint8_t>(source)};
        if (cls.src_type == ATC_SRC_IPV4) {
            std::memcpy(address, &source, sizeof(source));
        }
        const uint32_t type = source != 0 ? cls.src_type : uint32_t{ATC_SRC_NONE};
        const int result = atc_api_clear_statistic(ATC_DIRECTION_RX, vlan, port, cls.id, type, address);
        Owner *owner = nullptr;
        if (auto flow = model.flows.find({port, vlan, cls.id}); flow != model.flows.end()) {
            auto found = flow->second.sources.find(source);
            owner = source == 0 ? &flow->second : found != flow->second.sources.end() ? &found->second : nullptr;
        }
        expect("result", result, owner != nullptr ? 0 : -1);
        if (owner != nullptr) {
            owner->count = owner->fast_start = owner->slow_start = 0;
        }
    }

    void clear_all() {
        say("clear all statistics");
        expect("result", atc_api_clear_statistic_all(), 0);
        model.clear_all();
    }

    void clear_rules() {
        uint32_t id = !flood_ && chance(2) ? 0 : FakePlatform::first_entry_id + below(model.rules_made + 2);
        if (!flood_ && !model.records.empty() && chance(50)) {
            id = std::next(model.records.begin(), below(model.records.size()))->sdk_id;
        }
        say("clear hardware rule %u", id);
        expect("result", atc_api_clear_hw_deny_info(id), 0);
        model.withdraw_if([id](const Record &record) { return id == 0 || record.sdk_id == id; });
    }

    void trunk() {
        const uint32_t trunk = one_of(TRUNKS);
        const uint32_t member = one_of(MEMBERS);
        const uint32_t op = chance(60) ? 1 : below(2) * 2;
        say("port %u %s trunk %u", member, op == 1 ? "joins" : "leaves", trunk);
        expect("result", fake().trunk_handler(0, trunk, member, op), 0);
        model.post({op == 1, trunk, member});
    }

    void failure() {
        const Call kind = one_of(FAILING);
        // The module also allocates what only makes it faster: which allocation is the nth cannot be told.
        const uint32_t nth = kind == Call::alloc ? 1 : 1 + below(4);
        const bool from_then_on = kind == Call::alloc || chance(25);
        say("call of kind %zu fails in %u, %s", static_cast<size_t>(kind), nth,
            from_then_on ? "and all that follow" : "once");
        fake().fail(kind, nth, from_then_on);
        model.plans[kind] = {nth, from_then_on};
        model.memory = model.memory && kind != Call::alloc;
    }

    void recovery() {
        say("the card recovers");
        fake().fail_none();
        model.plans.clear();
        model.memory = true;
    }

    std::mt19937_64 random_;
    bool flood_ = false;  // rules come and stay in this life, so that there are as many as there can be
};

}  // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest();  // the card's checks report there
    uint64_t seed = 1, steps = 100'000;
    for (int i = 1; i < argc; i += 2) {
        const std::string option = argv[i];
        if ((option != "--seed" && option != "--steps") || i + 1 == argc) {
            std::puts("hw_deny_model [--seed N] [--steps N]: the same seed, the same steps; --steps 10000000 for long");
            return option == "--help" ? 0 : 2;
        }
        (option == "--seed" ? seed : steps) = std::strtoull(argv[i + 1], nullptr, 0);
    }
    Run run(seed);
    const uint64_t failed = run.take(steps);
    if (failed != 0) {
        std::printf("seed %" PRIu64 ", step %" PRIu64 ": %s\n%sreplay: %s --seed %" PRIu64 " --steps %" PRIu64 "\n",
                    seed, failed, run.words, run.problems.c_str(), argv[0], seed, failed);
        return 1;
    }
    std::printf("seed %" PRIu64 ", %" PRIu64 " steps:", seed, steps);
    for (const auto &[what, times] : run.model.seen) {
        std::printf(" %" PRIu64 " %s;", times, what.c_str());
    }
    std::printf("\n");
    return 0;
}
