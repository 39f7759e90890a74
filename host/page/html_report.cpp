// SPDX-License-Identifier: Apache-2.0
#include "page/html_report.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <string_view>
#include <system_error>
#include <unordered_map>

#include "services/services.h"
#include "verdict/flood_data.h"
#include "verdict/senders.h"

namespace host {

namespace {

constexpr unsigned char kPage[] = {
#include "page.inc"
};
constexpr std::string_view kDataPlace = "@DATA@";

constexpr double kNsPerMs = 1e6;

// Each [place, offered, stopped, dropped, greatest number in a second].
Json points_json(const std::vector<RatePoint> &points) {
    Json json = Json::array();
    for (const RatePoint &point : points) {
        json.push_back({point.place, point.offered, point.stopped, point.dropped, point.peak});
    }
    return json;
}

Json marks_json(const FlowMarks &marks) {
    Json json = Json::array();
    for (const Mark &mark : marks.marks) {
        json.push_back({{"ms", static_cast<double>(mark.time_ns) / kNsPerMs},
                        {"time", card::time_text(mark.time_ns)},
                        {"kind", mark.kind},
                        {"text", mark.text}});
    }
    return json;
}

// As the content of a script element: nothing ends it or begins another, whatever the texts hold.
std::string as_script_data(const Json &json) {
    std::string safe;
    for (const char c : json.dump(-1, ' ', true, Json::error_handler_t::replace)) {
        const bool is_markup = c == '<' || c == '>' || c == '&';
        safe += is_markup ? std::string(c == '<' ? "\\u003c" : c == '>' ? "\\u003e" : "\\u0026") : std::string(1, c);
    }
    return safe;
}

}  // namespace

bool HtmlReport::open(const std::string &path, std::string &error) {
    const bool is_there = access(path.c_str(), F_OK) == 0;
    file_.reset(std::fopen(path.c_str(), "a"));
    error = file_ ? "" : std::generic_category().message(errno);
    made_ = file_ && !is_there ? path : "";
    return file_ != nullptr;
}

HtmlReport::~HtmlReport() {
    if (!made_.empty()) {
        unlink(made_.c_str());
    }
}

void HtmlReport::follow(Replay &replay, TrafficAccount &account, const ModuleSettings &settings) {
    series_.emplace(replay.start_ns());
    series_->follow(account);
    limits_.emplace(replay.start_ns(), settings);
    limits_->follow(account);
    marks_.follow(replay.journal());
}

bool HtmlReport::write(const Replay &replay, const TrafficAccount &account, const Verdict &verdict,
                       const std::vector<std::string> &files) {
    const std::string_view page(reinterpret_cast<const char *>(kPage), sizeof(kPage));
    const size_t place = page.find(kDataPlace);
    const std::string_view before = page.substr(0, place);
    const std::string_view behind = page.substr(place + kDataPlace.size());
    const std::string script = as_script_data(data(replay, account, verdict, files));
    made_.clear();
    // A pipe, or /dev/stdout, has nothing to be emptied.
    if (ftruncate(fileno(file_.get()), 0) != 0 && errno != EINVAL) {
        return false;
    }
    for (const std::string_view part : {before, std::string_view(script), behind}) {
        if (std::fwrite(part.data(), 1, part.size(), file_.get()) != part.size()) {
            return false;
        }
    }
    return std::fflush(file_.get()) == 0;
}

Json HtmlReport::data(const Replay &replay, const TrafficAccount &account, const Verdict &verdict,
                      const std::vector<std::string> &files) const {
    const Traffic &total = account.total();
    Json json = {{"files", files},
                 {"start", card::time_text(replay.start_ns())},
                 {"start_ms", static_cast<double>(series_->start_ns()) / kNsPerMs},
                 {"width_s", static_cast<double>(series_->width_ns()) / OverLimit::kSecondNs},
                 {"verdict", verdict.verdict_json()},
                 {"packets",
                  {{"received", total.packets},
                   {"stopped", total.stopped},
                   {"dropped", total.dropped},
                   {"passed", total.passed()}}},
                 {"total", points_json(series_->total())},
                 {"floods", Json::array()}};
    std::unordered_map<FlowKey, uint32_t, FlowKeyHash> numbers;
    for (const FlowTraffic &flow : account.flows()) {
        numbers.emplace(flow.key, static_cast<uint32_t>(numbers.size()));
    }
    const std::vector<Flood> &floods = verdict.floods();
    const size_t shown = std::min(floods.size(), kFloods);
    for (size_t i = 0; i < shown; i++) {
        json["floods"].push_back(flood_data(floods[i], numbers.at(floods[i].flow), i < kCharts));
    }
    json["more_floods"] = floods.size() - shown;
    json["limits"] = limits_->data(account, floods);
    return json;
}

Json HtmlReport::flood_data(const Flood &flood, uint32_t number, bool with_chart) const {
    Json json = flood_json(flood);
    json["from"] = senders_text(flood);
    if (!with_chart) {
        return json;
    }
    const std::vector<RatePoint> *const points = series_->flow(number);
    json["points"] = points != nullptr ? points_json(*points) : Json(nullptr);
    const FlowMarks *const marks = marks_.of(flood.flow);
    json["marks"] = marks != nullptr ? marks_json(*marks) : Json::array();
    json["more_marks"] = marks != nullptr ? marks->more : 0;
    return json;
}

}  // namespace host
