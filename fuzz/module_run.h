// module_run.h: a module on the card of the tests for each input, and records out of an input's bytes.
//
// ModuleRun is the fixture of the unit tests outside of a test: whatever it or its card complains about ends the
// process. Its end checks the module's whole state, and that clearing everything leaves nothing behind.
// Used by: the target that runs on the card of the tests. Uses: fixture.h, support.h.
#pragma once

#include <bit>
#include <mutex>

#include "fixture.h"
#include "support.h"

class ModuleRun : public ModuleTest {
public:
    ModuleRun() {
        static std::once_flag once;
        std::call_once(once, [] { ::testing::UnitTest::GetInstance()->listeners().Append(new EndAtFailure); });
        SetUp();
    }
    ~ModuleRun() override { TearDown(); }
    void TestBody() override {}

    using ModuleTest::pass_seconds;
    using ModuleTest::rx_n;
    using ModuleTest::tx;

private:
    struct EndAtFailure : ::testing::EmptyTestEventListener {
        void OnTestPartResult(const ::testing::TestPartResult &result) override {
            require(!result.failed(), result.message());
        }
    };
};

// u32 mask of the record's 32-bit words that are given, then those; the others are 0.
inline atc_filter_rule_t rule_of(Input &input) {
    std::array<uint32_t, sizeof(atc_filter_rule_t) / sizeof(uint32_t)> words{};
    const auto given = input.value<uint32_t>();
    for (size_t i = 0; i < words.size(); i++) {
        words[i] = (given >> i & 1) != 0 ? input.value<uint32_t>() : 0;
    }
    return std::bit_cast<atc_filter_rule_t>(words);
}

// One packet a second, and every reaction to more, for a protocol and its sources; for all when 'protocol' is beyond
// the last one.
inline void arm_protocols(uint32_t protocol) {
    for (uint32_t id = 1; id <= ATC_PROTOCOL_COUNT; id++) {
        for (const auto set :
             {atc_api_set_protocol_fp_limit, atc_api_set_protocol_lp_limit, atc_api_set_protocol_src_fp_limit,
              atc_api_set_protocol_src_lp_limit, atc_api_set_protocol_deny_enable, atc_api_set_protocol_src_deny_enable,
              atc_api_set_protocol_hw_deny_enable, atc_api_set_protocol_src_hw_deny_enable,
              atc_api_set_protocol_cap_enable, atc_api_set_protocol_src_cap_enable}) {
            if (id == protocol || protocol > ATC_PROTOCOL_COUNT) {
                set(id, 1);
            }
        }
    }
}
