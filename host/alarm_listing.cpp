// SPDX-License-Identifier: Apache-2.0
#include "alarm_listing.h"

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "anti_cpu/anti_cpu.h"
#include "anti_cpu/platform.h"
#include "figures.h"
#include "module_text.h"

namespace host {

namespace {

// The module's listing ends at the last line that has room: one that comes within a line's length of that may be cut.
constexpr size_t kListingSize = 1048576;  // bytes
constexpr size_t kLineLongest = 256;      // bytes

// What a line of the listing says behind its number: "port 1/1/3 vlan 100 protocol arp source mac 02:00:00:00:00:0b".
std::string line_of(const Subject &subject) {
    constexpr const char *words[] = {"", " source mac ", " source ip ", " source ipv6 "};
    const auto &[flow, source] = subject;
    uint32_t slot = 0;
    uint32_t slot_port = 0;
    br_comm_transfer_portindex_2slotport(flow.port, &slot, &slot_port);
    const auto number = [](uint32_t value) { return std::to_string(static_cast<int32_t>(value)); };
    return "port 1/" + number(slot) + "/" + number(slot_port) + " vlan " + number(flow.vlan) + " protocol " +
           protocol_name(flow.protocol) + words[source.type] + source_text(source);
}

// The lines of the listing without "alarm 12: ".
std::unordered_set<std::string_view> lines_of(std::string_view text) {
    std::unordered_set<std::string_view> lines;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        lines.insert(line.substr(line.find(": ") + 2));
        text.remove_prefix(line.size() + 1);
    }
    return lines;
}

}  // namespace

AlarmListing list_alarms(const AlarmBook &book) {
    const std::string text = report_text(atc_api_get_alarm_info);
    const std::unordered_set<std::string_view> lines = lines_of(text);
    const size_t module_size = text.size() + lines.size();  // it ends its lines with "\r\n"
    AlarmListing listing;
    std::vector<const AlarmEvent *> behind;  // the last one listed
    for (const auto &[subject, event] : book.standing(AlarmEvent::Period::kFast)) {
        if (lines.contains(line_of(subject))) {
            listing.standing.emplace_hint(listing.standing.end(), subject, event);
            behind.clear();
        } else {
            behind.push_back(&event);
        }
    }
    if (module_size + kLineLongest > kListingSize) {
        for (const AlarmEvent *event : behind) {
            if (is_known(event->subject)) {
                listing.standing.emplace_hint(listing.standing.end(), event->subject, *event);
                listing.beyond++;
            }
        }
    }
    return listing;
}

}  // namespace host
