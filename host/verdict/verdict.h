// SPDX-License-Identifier: Apache-2.0
// verdict.h: the answer to "was the control plane flooded, by whom, when, how hard", and what to try next.
//
// Fits a screen whatever the capture holds; as data it has every flood. Used by: report. Uses: floods, advice, the
// account. Thread: the driving one, behind the last packet.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "json_writer.h"
#include "module_settings.h"
#include "replay.h"
#include "verdict/advice.h"
#include "verdict/floods.h"

namespace host {

class Verdict {
public:
    // 'account' must outlive the verdict.
    Verdict(const Replay &replay, const TrafficAccount &account, const AlarmHistory &alarms,
            const ModuleSettings &settings, const Commands &commands);

    enum class Floods {
        kFirst,  // what fits a screen
        kAll
    };
    void print(std::FILE *out, Floods shown) const;
    Json verdict_json() const;

    const std::vector<Flood> &floods() const { return floods_; }
    // Without those that were over their limit for a moment only.
    size_t flood_count() const { return flood_count_; }
    bool is_flooded() const { return flood_count_ > 0; }
    uint32_t alarms_raised() const { return alarms_raised_; }
    // One line.
    std::string headline() const;

private:
    std::vector<std::string> answer() const;
    std::string worst_text() const;
    std::string done_text(const Flood &flood) const;
    std::optional<std::string> period_text() const;
    std::optional<std::string> held_text() const;
    std::vector<std::string> notes() const;
    void add_outside(std::vector<std::string> &notes, bool untracked_vlan, const char *why) const;
    void print_floods(std::FILE *out, Floods shown) const;
    std::string when(int64_t realtime_ns) const;
    int64_t capture_length_ns() const { return replay_.last_packet_ns() - replay_.start_ns(); }

    const Replay &replay_;
    const TrafficAccount &account_;
    ModuleSettings settings_;
    uint32_t alarms_raised_ = 0;
    std::vector<Flood> floods_;
    size_t flood_count_ = 0;
    size_t hidden_count_ = 0;
    std::optional<uint32_t> fitting_period_s_;
    Advice advice_;
    bool with_date_ = false;  // the replay does not stay within a day
};

}  // namespace host
