// SPDX-License-Identifier: Apache-2.0
#include "card.h"

#include "anti_cpu/anti_cpu.h"
#include "clock/clock.h"
#include "services/services.h"

namespace bench {

void start_module() {
    card::set_log_sink([](const card::LogMessage &) {});
    card::Clock::instance().simulate(0);
    atc_init();
    static const card::RealTimeScope measured_by_the_systems_clock;
}

}  // namespace bench
