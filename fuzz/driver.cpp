// SPDX-License-Identifier: Apache-2.0
// driver.cpp: driver buffers into the software chip, then frames past the rules that it took.
//
// Input: u8 what; for a frame u8 port, u16 length and its bytes, for a rule u16 length and bytes of each buffer.
#include "anti_cpu/platform.h"
#include "chip/chip.h"
#include "services/services.h"
#include "support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    card::set_log_sink([](const card::LogMessage &) {});
    card::Chip::instance().reset();
    for (Input input(data, size); !input.empty();) {
        if (const uint8_t what = input.u8(); what % 4 == 0) {
            const uint8_t port = input.u8();
            const std::vector<uint8_t> frame = input.block();
            card::Chip::instance().denies(frame.data(), static_cast<uint32_t>(frame.size()), port, what);
            continue;
        }
        const std::vector<uint8_t> match = input.block(), op = input.block(), port = input.block();
        const auto call = [&](auto driver, auto last) {
            return driver(0, 0, match.data(), static_cast<uint32_t>(match.size()), op.data(),
                          static_cast<uint32_t>(op.size()), port.data(), static_cast<uint32_t>(port.size()), last);
        };
        uint32_t entry_id = 0, stat_id = 0;
        const int result = call(hw_driver_set_stream_qos_item, nullptr);
        const int found = call(hw_driver_lookup_entry_by_stream, &entry_id);
        require(found == 0 || result != 0, "an installed rule is not found");
        require(found == call(hw_driver_lookup_stat_id_by_stream, &stat_id), "found by one id only");
        atc_stat_hw_t counters;
        require(found != 0 || hw_driver_get_stat_by_stat_id(stat_id, &counters) == 0, "a found rule does not count");
        call(hw_driver_delete_qos_item_by_stream, nullptr);
    }
    return 0;
}
