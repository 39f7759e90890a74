// SPDX-License-Identifier: Apache-2.0
// driver.cpp: the driver functions of platform.h on the software chip.
//
// Called by the module with its mutex held. Every buffer is checked before the chip hears of it; whatever is refused is
// logged with the reason, the result is the refusal's code. State: the chip's.
#include <exception>
#include <utility>

#include "anti_cpu/platform.h"
#include "chip/chip.h"
#include "chip/description.h"

namespace {

using card::Chip;
using card::Description;
using card::Kind;

constexpr uint32_t kLogLevel = 11;

int refuse(const char *operation, int code, const char *reason) {
    ulogPrintf(0, kLogLevel, "chip: %s refused: %s\r\n", operation, reason);
    return code;
}

// Reads the buffers and, when they are sound, runs act(description). No exception leaves towards the C caller: without
// memory the rule is refused like one that does not fit.
template <typename act_t>
int with_description(const char *operation, Kind kind, card::Buffer match, card::Buffer op, card::Buffer ports,
                     act_t act) {
    try {
        Description description;
        if (const char *fault = read_description(match, op, ports, kind, &description); fault != nullptr) {
            return refuse(operation, card::kMalformed, fault);
        }
        const int result = act(description);
        return result == 0 ? 0 : refuse(operation, result, card::refusal_text(result));
    } catch (const std::exception &) {
        return refuse(operation, card::kFull, "no memory");
    }
}

}  // namespace

int hw_driver_set_stream_qos_item(uint32_t, uint32_t, const void *match, uint32_t match_len, const void *op,
                                  uint32_t op_len, const void *port, uint32_t port_len, void *) {
    return with_description("install", Kind::kInstall, {match, match_len}, {op, op_len}, {port, port_len},
                            [](Description &description) { return Chip::instance().install(std::move(description)); });
}

int hw_driver_delete_qos_item_by_stream(uint32_t, uint32_t, const void *match, uint32_t match_len, const void *op,
                                        uint32_t op_len, const void *port, uint32_t port_len, void *) {
    return with_description("delete", Kind::kDelete, {match, match_len}, {op, op_len}, {port, port_len},
                            [](Description &description) { return Chip::instance().remove(description); });
}

int hw_driver_lookup_entry_by_stream(uint32_t, uint32_t, const void *match, uint32_t match_len, const void *op,
                                     uint32_t op_len, const void *port, uint32_t port_len, uint32_t *entry_id) {
    return with_description("look-up of entry", Kind::kInstall, {match, match_len}, {op, op_len}, {port, port_len},
                            [&](Description &description) {
                                uint32_t stat_id;
                                return entry_id == nullptr ? card::kMalformed
                                                           : Chip::instance().find(description, entry_id, &stat_id);
                            });
}

int hw_driver_lookup_stat_id_by_stream(uint32_t, uint32_t, const void *match, uint32_t match_len, const void *op,
                                       uint32_t op_len, const void *port, uint32_t port_len, uint32_t *stat_id) {
    return with_description("look-up of statistics", Kind::kInstall, {match, match_len}, {op, op_len}, {port, port_len},
                            [&](Description &description) {
                                uint32_t entry_id;
                                return stat_id == nullptr ? card::kMalformed
                                                          : Chip::instance().find(description, &entry_id, stat_id);
                            });
}

int hw_driver_get_stat_by_stat_id(uint32_t stat_id, atc_stat_hw_t *stat) {
    if (stat == nullptr) {
        return refuse("statistics", card::kMalformed, "null record");
    }
    uint64_t packets;
    if (const int result = Chip::instance().count(stat_id, &packets); result != 0) {
        return refuse("statistics", result, card::refusal_text(result));
    }
    *stat = {0, packets};
    return 0;
}
