// SPDX-License-Identifier: Apache-2.0
// module.cpp: the whole module on the card of the tests: packets both ways, all that an operator does, time, trunks,
// and calls of the card that fail. The end of an input checks the module's state, and that clearing leaves nothing
// behind.
//
// Input: u8 protocol whose limits are 1 and whose reactions are all on (of every one from 58 on), then steps.
#include <mutex>

#include "fixture.h"
#include "frames.h"
#include "operator.h"
#include "support.h"

namespace {

// Whatever the fixture or its card complains about ends the process.
struct EndAtFailure : ::testing::EmptyTestEventListener {
    void OnTestPartResult(const ::testing::TestPartResult &result) override {
        require(!result.failed(), result.message());
    }
};

class Run : public ModuleTest {
public:
    explicit Run(Input &input)
        : input_(input), operator_(0, [&input](uint32_t n) { return input.value<uint16_t>() % n + 1; }) {
        SetUp();
        const uint32_t armed = input.u8();
        for (uint32_t id = 1; id <= ATC_PROTOCOL_COUNT; id++) {
            if (armed == id || armed >= ATC_PROTOCOL_COUNT) {
                std::ranges::for_each(Operator::setters, [id](auto setter) { setter(id, 1); });
            }
        }
    }
    ~Run() override { TearDown(); }
    void TestBody() override {}

    void step() {
        static constexpr int64_t seconds[] = {0, 1, 10, 300, 3600, 86400};
        const uint32_t step = input_.u8() % 16, much = input_.u8(), port = much % Operator::kPorts + 1;
        switch (step) {
            case 0:
                fake().advance(seconds[much % std::size(seconds)]);
                return pass_seconds(much / 16);
            case 1:
                return fake().fail(static_cast<Call>(much % static_cast<uint32_t>(Call::clock)), 1 + much / 64,
                                   much / 32 % 2 == 0);
            case 2:
                atc_api_trunk_member_pro(0, Operator::kPorts - much % 2, much / 2 % 16, much / 32);
                return;
            case 3:
                return operator_.clear();
            case 4:
                (much % 2 == 0 ? atc_api_set_fast_period_time : atc_api_set_long_period_time)(much / 2);
                return;
            case 5:
                received_in_all();
                return;
            case 6:
                tx(input_.block());
                return;
            case 7:
                rx(input_.block(), port);
                return;
            case 8:  // or more sources than a flow can have
                for (uint32_t source = 0; source < (much < 250 ? much : ATC_SOURCES_PER_FLOW + 1); source++) {
                    rx(arp().from(source));
                }
                return;
            case 9:
            case 10:
            case 11:
                return operator_.act();
            default:
                rx_n(1 + much, frame(), port, step % Operator::kVlans + 1);
        }
    }

private:
    Frame frame() {
        const uint32_t kind = input_.u8();
        Frame frame = frame_of_class(static_cast<uint16_t>(kind % ATC_PROTOCOL_COUNT + 1));
        return kind < 128 ? frame : kind < 192 ? frame.pad(1500) : frame.from(input_.u8());
    }

    Input &input_;
    Operator operator_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static std::once_flag once;
    std::call_once(once, [] { ::testing::UnitTest::GetInstance()->listeners().Append(new EndAtFailure); });
    Input input(data, size);
    for (Run run(input); !input.empty();) {
        run.step();
    }
    return 0;
}
