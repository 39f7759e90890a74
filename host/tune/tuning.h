// SPDX-License-Identifier: Apache-2.0
// tuning.h: limits out of captures of good days and of floods, and what they would have done to both.
//
// Good captures tell what a class needs; in a capture of a flood, a flow is the flood's when it has more than the limit
// in force, or more than good captures alone would ask for. Then every capture is replayed with half the limits, with
// them, with twice and five times as much, each class denied in the chip: by sender where loud senders make the flood,
// as a whole where not.
// Used by: tune_command (runs it), tune_report. Uses: needs, choice, floods, trial. Thread: the process's first.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "module_settings.h"
#include "options.h"
#include "problems.h"
#include "trial.h"
#include "tune/choice.h"

namespace host {

struct TuneOptions {
    ReplayOptions replay;  // its files are the good captures
    std::vector<std::string> floods;
    double margin = 2;
    std::string write_file;  // empty = none
};

// Of the flows of one kind.
struct Over {
    uint64_t flows = 0;  // that had a second over the limit
    double seconds = 0;  // of the flow that had most
    uint64_t stopped = 0;
};

constexpr std::array<double, 4> kFactors{0.5, 1, 2, 5};

struct ClassTuning {
    uint32_t protocol = 0;
    ClassNeeds good;
    ClassNeeds in_floods;               // everything in captures of floods
    std::optional<Peaks> flood;         // of the flood's flows; of several captures the least
    std::optional<Peaks> flood_source;  // of its loud senders
    bool by_source = false;             // how it is denied in the chip
    Choice flow;
    Choice source;
    std::array<Over, kFactors.size()> good_over{};
    std::array<Over, kFactors.size()> flood_over{};
};

struct FloodCapture {
    std::set<FlowKey> flows;  // the flood's
    std::set<FlowKey> loud;   // those of them that loud senders make
    std::set<Subject> loud_senders;
};

struct CaptureToTune {
    std::string path;
    uint32_t port = 1;
    uint64_t packets = 0;
    std::optional<FloodCapture> flood;  // of a good one nothing
    uint32_t alarms = 0;                // with the chosen limits, and nothing denied
};

class Tuning {
public:
    explicit Tuning(const TuneOptions &options);

    // Reads every capture, and replays it. Gives an exit status; there is something to report at kExitGood and
    // kExitRefused, when has_results().
    int run(Problems &problems);

    // Called behind each capture that has been read, or replayed: how many of how many.
    using Progress = std::function<void(size_t done, size_t all)>;
    void set_progress(Progress progress) { progress_ = std::move(progress); }

    bool has_results() const { return has_results_; }
    const ModuleSettings &settings() const { return settings_; }
    const std::vector<CaptureToTune> &captures() const { return captures_; }
    // In the order of their ids.
    const std::vector<ClassTuning> &classes() const { return classes_; }
    // The operator's lines that set what has been chosen.
    std::vector<std::string> lines_of(const ClassTuning &of) const;
    // The limit that effects are of: the chosen one, or the one in force.
    uint32_t base(const ClassTuning &of) const;
    uint32_t source_base(const ClassTuning &of) const;

private:
    void step();
    bool read(CaptureToTune &capture, Problems &problems);
    void note_good(const NeedAccount &needs);
    void note_flood(CaptureToTune &capture, const NeedAccount &needs, const TrafficAccount &traffic);
    FastLimits limits_for_good() const;
    Evidence evidence(const ClassTuning &of, bool of_sources) const;
    void choose_all();
    std::vector<std::string> lines_at(double factor) const;
    int try_out(double factor, size_t number);
    int replay_with(const CaptureToTune &capture, std::vector<std::string> lines, Json &figures) const;
    Json effects_of(const CaptureToTune &capture, const TrialView &view) const;

    const TuneOptions &options_;
    ModuleSettings settings_;
    std::vector<CaptureToTune> captures_;
    std::array<ClassTuning, ATC_PROTOCOL_COUNT + 1> by_id_{};
    std::vector<ClassTuning> classes_;
    std::set<std::pair<uint32_t, Source>> good_senders_;  // by protocol
    bool has_results_ = false;
    Progress progress_;
    size_t steps_ = 0;
};

}  // namespace host
