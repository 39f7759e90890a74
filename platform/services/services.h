// SPDX-License-Identifier: Apache-2.0
// services.h: the card's registry, log, device address, ports and trunks, as the host sets them up.
//
// The functions that the module calls are those of platform.h; these are the host's side of them. Set up before
// atc_init unless a comment says otherwise; a card that is not set up logs to standard error and numbers its ports 64
// to a slot.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

namespace card {

// One message as the module logged it.
struct LogMessage {
    int64_t realtime_ns;    // simulated or real
    uint32_t level;         // 11 or 13
    std::string_view text;  // without the trailing "\r\n"; valid during the call
};

// "2021-09-02 03:46:20", in UTC, so that two runs print the same wherever they are. The text of every time that the
// card prints.
std::string time_text(int64_t realtime_ns);

// Where messages go: by default one line a message, "<time> <level> <text>", to standard error. The sink is called with
// the module's mutex held, one call at a time, and must not call the module. An empty function restores the default.
void set_log_sink(std::function<void(const LogMessage &)> sink);
// The default line of a message, as it is printed on 'file'.
void print_log_line(std::FILE *file, const LogMessage &message);

// The device's own MAC address; 02:00:00:00:00:01 unless set.
void set_device_mac(const std::array<uint8_t, 6> &mac);

// Maps a logical port to slot and port on the slot in place of port / 64 + 1 and port % 64; false = no such port.
void set_port_map(std::function<bool(uint32_t port, uint32_t *slot, uint32_t *slot_port)> map);
// Slot of the backup core card, 0 = none (the default).
void set_backup_core_card(uint32_t slot);

// Reports a trunk membership change to whoever registered, on the trunk service's own thread, and returns when the
// handler has returned. After atc_init, any thread that holds no lock of the handler's. In a simulation whatever the
// handler posted has been handled too, at the same time. False when nobody has registered.
bool trunk_change(uint32_t trunk, uint32_t member, bool joins);

// The version text that a module has published; empty when none.
std::string module_version(uint32_t mod_id);

}  // namespace card
