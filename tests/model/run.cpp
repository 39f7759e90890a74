// run.cpp: the frame of a run: lives, the choice of steps, and what happens to the card.
#include "run.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "anti_cpu/anti_cpu.h"
#include "atc/monitor.h"
#include "fixture.h"

namespace {

constexpr uint64_t LIFE = 250'000;    // steps from one start of the module to the next
constexpr uint64_t FULL_CHECK = 300;  // steps from one comparison of everything to the next
constexpr uint32_t JUMBO = 9000;      // bytes of a frame that fills a capture soon
constexpr size_t ORPHANS_MAX = 30;    // rules without a record before the operator cleans the chip
constexpr uint32_t TRUNKS[] = {40, 41, 2};
constexpr uint32_t MEMBERS[] = {1, 3, 4, 5, 6, 7, 8, 9, 10, BACKUP_PORT, 131};
constexpr Call FAILING[] = {Call::chip_set,     Call::chip_delete,   Call::chip_entry_id,
                            Call::chip_stat_id, Call::chip_counters, Call::alloc,
                            Call::send,         Call::receive,       Call::upload};

uint32_t calls_of_chip() {
    return fake().calls(Call::chip_set) + fake().calls(Call::chip_delete) + fake().calls(Call::chip_counters);
}

}  // namespace

Run::Run(uint64_t seed) : random_(seed) {
    for (size_t cls = 0; cls < std::size(CLASSES); ++cls) {
        for (uint32_t source = 0; source < SOURCES; ++source) {
            Frame frame = frame_from(CLASSES[cls], source);
            frames_[cls][source][0] = frame;
            frames_[cls][source][1] = frame.pad(JUMBO);
        }
    }
    start();
}

// Takes the steps. Returns the first one whose outcome is wrong, 0 when there is none.
uint64_t Run::take(uint64_t steps) {
    for (uint64_t step = 1; step <= steps; ++step) {
        const uint32_t chip_calls = calls_of_chip();
        answers_.clear();
        check_rules_ = false;
        one_step();
        problems = answers_ + differences_quick(model_, check_rules_ || chip_calls != calls_of_chip());
        if (problems.empty() && (step % FULL_CHECK == 0 || step == steps)) {
            problems = differences_full(model_);
        }
        if (problems.empty() && (step % LIFE == 0 || step == steps)) {
            problems = finish();
            start();
        }
        if (!problems.empty()) {
            return step;
        }
    }
    return 0;
}

void Run::print_seen() const {
    std::printf("simulated days %" PRId64 ", rules installed %" PRIu64 " (refused at the limit %" PRIu64
                "), kept at a check %" PRIu64 ", withdrawn at a check %" PRIu64
                ", given up at a trunk's change %" PRIu64 ", silent sources %" PRIu64 ", alarms %" PRIu64
                ", most rules %zu\n",
                seconds_ / 86400, seen_.installed, seen_.at_limit, seen_.kept, seen_.expired, seen_.given_up,
                seen_.aged, seen_.alarms, most_rules_);
}

void Run::one_step() {
    struct Weighted {
        uint32_t weight;
        void (Run::*take)();
    };
    constexpr Weighted steps[] = {
        {520, &Run::packets},  {30, &Run::sent},     {60, &Run::counters},     {40, &Run::time},
        {30, &Run::turn},      {50, &Run::limit},    {50, &Run::enable},       {3, &Run::period},
        {30, &Run::clear},     {1, &Run::clear_all}, {12, &Run::clear_rules},  {20, &Run::filter},
        {40, &Run::trunk},     {20, &Run::failure},  {20, &Run::recovery},     {4, &Run::chip_mood},
        {4, &Run::queue_size}, {2, &Run::captures},  {3, &Run::upload_enable}, {2, &Run::global_enable},
        {1, &Run::weather},
    };
    uint32_t drawn = 0;
    for (const Weighted &step : steps) {
        drawn += step.weight;
    }
    drawn = below(drawn);
    const Weighted *step = steps;
    while (drawn >= step->weight) {
        drawn -= step++->weight;
    }
    (this->*step->take)();
    most_rules_ = std::max(most_rules_, model_.records.size());
}

void Run::say(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(words, sizeof(words), format, args);
    va_end(args);
}

// Now and then, for some time, floods do not ebb.
void Run::weather() {
    flood_ = chance(50);
    say("%s", flood_ ? "the floods stay" : "the floods ebb");
}

void Run::trunk() {
    const uint32_t trunk = one_of(TRUNKS);
    const uint32_t member = one_of(MEMBERS);
    const uint32_t op = chance(60) ? 1 : below(2) * 2;
    say("port %u %s trunk %u", member, op == 1 ? "joins" : "leaves", trunk);
    expect("result", fake().trunk_handler(0, trunk, member, op), 0);
    if (!model_.post({op == 1 ? ATC_MSG_TRUNK_JOIN : ATC_MSG_TRUNK_LEAVE, trunk, member})) {
        model_.log();
    }
    fake().sent_as.clear();
}

void Run::failure() {
    const Call kind = one_of(FAILING);
    // The module also allocates what only makes it faster: which allocation is the nth cannot be told.
    const uint32_t nth = kind == Call::alloc ? 1 : 1 + below(4);
    const bool from_then_on = kind == Call::alloc || chance(25);
    say("call of kind %zu fails in %u, %s", static_cast<size_t>(kind), nth,
        from_then_on ? "and all that follow" : "once");
    fail(kind, nth, from_then_on);
}

// Everything works again. Nothing is ever logged, only counted: a long run has no room for the lines.
void Run::recovery() {
    say("the card recovers");
    fake().fail_none();
    model_.plans = {};
    fail(Call::log, 1, true);
    if (model_.orphans.size() > ORPHANS_MAX) {
        say("the card recovers, and loses the rules that nobody keeps");
        check_rules_ = true;
        for (ChipRule &rule : fake().chip()) {
            drop_orphan(rule);
        }
    }
}

void Run::drop_orphan(ChipRule &rule) {
    const auto found = std::ranges::find_if(
        model_.orphans, [&](const std::string &text) { return model_.chip.at(text).entry_id == rule.entry_id; });
    if (found != model_.orphans.end()) {
        std::memset(rule.port.data(), 0, 2);  // the kind of a delete
        fake().chip_delete(rule.match.data(), static_cast<uint32_t>(rule.match.size()), rule.op.data(),
                           static_cast<uint32_t>(rule.op.size()), rule.port.data(),
                           static_cast<uint32_t>(rule.port.size()));
        model_.chip.erase(*found);
        model_.orphans.erase(found);
    }
}

void Run::fail(Call kind, uint32_t nth, bool from_then_on) {
    fake().fail(kind, nth, from_then_on);
    model_.plans[static_cast<size_t>(kind)] = {nth, from_then_on};
}

void Run::chip_mood() {
    constexpr int results[] = {0, 0, 0, 0, 0, 1, -5};
    fake().chip_set_result = model_.chip_set_result = one_of(results);
    say("the chip answers an installation with %d", model_.chip_set_result);
}

void Run::queue_size() {
    constexpr size_t sizes[] = {256, 256, 8, 2, 1};
    fake().queue_capacity = model_.queue_capacity = one_of(sizes);
    say("the queue takes %zu messages", model_.queue_capacity);
}

void Run::start() {
    model_ = Model(&seen_);
    fake().reset();
    fake().backup_slot = 3;
    fake().unmap_port(131);
    atc_init();
    atc_task_start();
    fail(Call::log, 1, true);
    for (const PacketClass &cls : CLASSES) {
        // Floods from the first step on.
        expect("result", atc_api_set_protocol_hw_deny_enable(cls.id, 1), 0U);
        model_.limits[cls.id].hw_deny = 1;
    }
    // A delete has failed: whether the chip and the records agree is for the model to say, which knows why not.
    fake().fail(Call::chip_delete, 1);
    fake().enter(Call::chip_delete);
    model_.call(Call::chip_delete);
}

// Clears everything; what is left then.
std::string Run::finish() {
    recovery();
    fake().queue_capacity = model_.queue_capacity = 256;
    clear_all();
    while (!model_.queue.empty()) {
        turn();
    }
    answers_.clear();
    {
        State state;
        for (atc_list_t *head : {&state->hw_cfg_filter_list, &state->trunk_list}) {
            while (!atc_list_is_empty(head)) {
                atc_list_t *link = head->next;
                atc_list_remove(link);
                atc_free(link);
            }
        }
        std::free(state->timer_list);
    }
    const size_t left = fake().live_blocks();
    return left == 0 ? "" : "  blocks left behind: " + std::to_string(left) + "\n";
}
