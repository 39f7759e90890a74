// SPDX-License-Identifier: Apache-2.0
#include "module_captures.h"

#include <algorithm>

#include "anti_cpu/anti_cpu.h"
#include "clock/clock.h"
#include "figures.h"
#include "module_tables.h"

namespace host {

std::string capture_name(const CaptureKey &key) {
    const auto &[flow, source] = key.subject;
    if (key.direction == 0) {
        return "atc-manual.cap";
    }
    std::string name = std::string("atc-") + (key.direction == ATC_DIRECTION_RX ? "rx" : "tx") + "-" +
                       std::to_string(flow.port) + "-" + std::to_string(flow.vlan) + "-" + protocol_name(flow.protocol);
    if (source.type != ATC_SRC_NONE) {
        std::string address = source_text(source);
        if (source.type == ATC_SRC_MAC) {
            std::ranges::replace(address, ':', '-');
        }
        name += "-(" + address + ")";
    }
    return name + ".cap";
}

uint32_t capture_bytes(const CaptureKey &key) {
    if (key.direction == 0) {
        const auto content = capture_content(key);
        return content ? static_cast<uint32_t>(content->size()) : 0;
    }
    const card::SleeplessScope now;
    Figures figures;
    return flow_figures(key.direction, key.subject, figures) ? figures.cap_len : 0;
}

std::optional<std::string> capture_content(const CaptureKey &key) {
    const auto &[flow, source] = key.subject;
    void *data = nullptr;
    uint32_t len = 0;
    if (atc_api_get_port_capture(key.direction, flow.vlan, flow.port, flow.protocol, source.type, source.address(),
                                 &data, &len) != 0) {
        return std::nullopt;
    }
    std::string content(static_cast<const char *>(data), len);
    atc_api_free_buffer(data);
    return content;
}

std::vector<HeldCapture> held_captures(FlowAccount &account) {
    std::vector<HeldCapture> held;
    const auto add = [&held](const FlowLine &line) {
        if (line.capture_bytes > 0) {
            held.push_back({{ATC_DIRECTION_RX, line.subject}, line.capture_bytes});
        }
    };
    each_flow_row(account, {}, [&add](const FlowRow &row) {
        add(row.flow);
        std::ranges::for_each(row.sources, add);
    });
    return held;
}

}  // namespace host
