// module_run.h: a module on the card of the tests for each input, and records out of an input's bytes.
//
// ModuleRun is the fixture of the unit tests outside of a test: whatever it or its card complains about ends the
// process. Its end checks the module's whole state, and that clearing everything leaves nothing behind.
// Used by: the targets that run on the card of the tests. Uses: fixture.h, support.h.
#pragma once

#include "fixture.h"
#include "support.h"

class ModuleRun : public ModuleTest {
public:
    ModuleRun();
    ~ModuleRun() override { TearDown(); }
    void TestBody() override {}

    using ModuleTest::pass_seconds;
    using ModuleTest::rx_n;
    using ModuleTest::tx;
};

// u32 mask of the record's 32-bit words that are given, then those; the others are 0.
atc_filter_rule_t rule_of(Input &input);

// One packet a second, and every reaction to more, for a protocol and its sources; for all when 'protocol' is beyond
// the last one.
void arm_protocols(uint32_t protocol);
