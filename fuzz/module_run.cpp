#include "module_run.h"

#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace {

void arm_protocol(uint32_t protocol);

// Standard output, where failures are usually told, is thrown away.
class EndAtFailure : public ::testing::EmptyTestEventListener {
    void OnTestPartResult(const ::testing::TestPartResult &result) override {
        if (result.failed()) {
            std::fprintf(stderr, "fuzz: %s:%d: %s\n", result.file_name(), result.line_number(), result.message());
            std::abort();
        }
    }
};

}  // namespace

ModuleRun::ModuleRun() {
    static const bool listening = [] {
        ::testing::UnitTest::GetInstance()->listeners().Append(new EndAtFailure);
        return true;
    }();
    require(listening, "failures are not heard of");
    SetUp();
}

atc_filter_rule_t rule_of(Input &input) {
    uint32_t words[sizeof(atc_filter_rule_t) / sizeof(uint32_t)] = {};
    const auto given = input.value<uint32_t>();
    for (size_t i = 0; i < std::size(words); i++) {
        words[i] = (given >> i & 1) != 0 ? input.value<uint32_t>() : 0;
    }
    atc_filter_rule_t rule;
    static_assert(sizeof(words) == sizeof(rule));
    std::memcpy(&rule, words, sizeof(rule));
    return rule;
}

void arm_protocols(uint32_t protocol) {
    for (uint32_t id = 1; id <= ATC_PROTOCOL_COUNT; id++) {
        if (id == protocol || protocol > ATC_PROTOCOL_COUNT) {
            arm_protocol(id);
        }
    }
}

namespace {

void arm_protocol(uint32_t protocol) {
    for (const auto set_limit : {atc_api_set_protocol_fp_limit, atc_api_set_protocol_lp_limit,
                                 atc_api_set_protocol_src_fp_limit, atc_api_set_protocol_src_lp_limit}) {
        set_limit(protocol, 1);
    }
    for (const auto enable : {atc_api_set_protocol_deny_enable, atc_api_set_protocol_src_deny_enable,
                              atc_api_set_protocol_hw_deny_enable, atc_api_set_protocol_src_hw_deny_enable,
                              atc_api_set_protocol_cap_enable, atc_api_set_protocol_src_cap_enable}) {
        enable(protocol, 1);
    }
}

}  // namespace
