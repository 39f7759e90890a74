// SPDX-License-Identifier: Apache-2.0
// html_report.h: one HTML file that tells a replay: verdict, rate against limit of each flood, senders, what to try.
//
// The file holds all that it needs, the plotting library with it, and asks no network. Whatever comes out of captures
// stands in it as data of which nothing can be markup. Its size is bounded: by the points of a series, by kCharts
// floods with a chart, by kFloods in all.
// Used by: replay_command. Uses: rate_series, limit_table, marks, verdict, the page made at build time (page.html).
// Thread: the driving one.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "json_writer.h"
#include "page/limit_table.h"
#include "timeline/marks.h"
#include "timeline/rate_series.h"
#include "verdict/verdict.h"

namespace host {

class HtmlReport {
public:
    static constexpr size_t kCharts = 20;
    static constexpr size_t kFloods = 500;

    HtmlReport() = default;
    ~HtmlReport();
    HtmlReport(const HtmlReport &) = delete;
    HtmlReport &operator=(const HtmlReport &) = delete;

    // Sees whether the file can be written; what stands in it stays until there is a report, and where nothing stood
    // and none comes, nothing will. False with the reason in 'error'.
    bool open(const std::string &path, std::string &error);

    // Reads both from now on: behind Replay::start, before the first packet.
    void follow(Replay &replay, TrafficAccount &account, const ModuleSettings &settings);

    // Once, at the end. False when not all could be written.
    bool write(const Replay &replay, const TrafficAccount &account, const Verdict &verdict,
               const std::vector<std::string> &files);

private:
    struct Closer {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };

    Json data(const Replay &replay, const TrafficAccount &account, const Verdict &verdict,
              const std::vector<std::string> &files) const;
    Json flood_data(const Flood &flood, uint32_t number, bool with_chart) const;

    std::unique_ptr<std::FILE, Closer> file_;
    std::string made_;  // path of a file that was not there before and has no report yet
    std::optional<RateSeries> series_;
    std::optional<LimitTable> limits_;
    Marks marks_;
};

}  // namespace host
