// SPDX-License-Identifier: Apache-2.0
#include "top/view.h"

#include <algorithm>
#include <cstdio>

#include "text_table.h"
#include "top/table_layout.h"
#include "verdict/words.h"

namespace host::top {

namespace {

constexpr const char *kHelp[] = {
    "1 2 3 4, Tab        floods, ports, classes, rules",
    "up, down, k, j      select a row; PgUp, PgDn, Home, End",
    "Enter               who sends it: the sources of the selected flow; Esc goes back",
    "<, >                sort by the column before, behind; its heading has a *",
    "r                   turn the order round",
    "c                   record the next packets of the selected row",
    "x                   end that record",
    "+, -                look more often, less often",
    "p                   pause; the space bar looks at once",
    "?                   this page",
    "q                   leave",
    "",
    "now/s       packets a second since the last look, those that the chip stops included",
    "period/s    packets a second in the latest fast period, below the chip; peak/s: the most of any",
    "limit/s     what the fast period allows",
    "stopped/s   what the flood's own rules in the chip stop",
    "denied      the limiter drops it, and so does the kernel; recorded: a capture is going on",
    "lost        copies that the limiter has not seen: more came than it could read",
};

std::string key_of(const Row &row) {
    return row.match.empty() ? row.cells.front().text : row.match;
}

std::string joined(const std::string &left, const std::string &right, size_t width) {
    const size_t used = left.size() + right.size();
    return used + 1 > width ? left : left + std::string(width - used, ' ') + right;
}

std::string tabs_text(Subject subject) {
    std::string text;
    for (size_t i = 0; i < kPages; i++) {
        const auto page = static_cast<Subject>(i);
        const std::string name = std::to_string(i + 1) + " " + page_name(page);
        text += page == subject ? "[" + name + "] " : " " + name + "  ";
    }
    return text;
}

}  // namespace

void View::go_to(Subject subject) {
    shows_help_ = false;
    subject_ = subject;
    selected_key_.clear();
    selected_ = 0;
    moved_ = 0;
}

void View::go_beside(int step) {
    const size_t page = subject_ == Subject::kSources ? 0 : static_cast<size_t>(subject_);
    go_to(static_cast<Subject>((page + kPages + static_cast<size_t>(step + static_cast<int>(kPages))) % kPages));
}

bool View::look_into() {
    if (selected_row_.sources.empty()) {
        return false;
    }
    sources_line_ = selected_row_.sources;
    sources_match_ = selected_row_.match.substr(0, selected_row_.match.find(" source "));
    looked_from_ = subject_;
    go_to(Subject::kSources);
    return true;
}

bool View::go_back() {
    if (shows_help_) {
        shows_help_ = false;
    } else if (subject_ == Subject::kSources) {
        go_to(looked_from_);
    } else {
        return false;
    }
    return true;
}

void View::sort_by_beside(int step) {
    if (columns_.empty()) {
        return;
    }
    const size_t count = columns_.size();
    const size_t column = sorting().column.value_or(page_sorted_by_);
    sorting().column = (column + count + static_cast<size_t>(step + static_cast<int>(count))) % count;
}

std::string View::selected_match() const {
    const bool is_source = subject_ == Subject::kSources && !selected_row_.match.empty();
    return is_source ? sources_match_ + " " + selected_row_.match : selected_row_.match;
}

std::vector<Line> View::head(const Scene &scene, size_t width) const {
    char rate[32];
    std::snprintf(rate, sizeof(rate), "%g", scene.interval_s);
    const std::string time = scene.now != nullptr ? text_of(scene.now->clock, "time") + " UTC" : std::string();
    const std::string pace = scene.is_paused ? "paused" : "every " + std::string(rate) + " s";
    std::vector<Line> lines{
        {joined("anti-cpu top, " + scene.host_name + "  " + time, pace, width), Mood::kPlain, false}};
    if (!scene.trouble.empty()) {
        const std::string what = scene.now != nullptr ? "NO ANSWER, this is old: " : "NO ANSWER: ";
        lines.push_back({what + scene.trouble, Mood::kBad, false});
    } else if (scene.now != nullptr) {
        const Summary summary = summarize(*scene.now, scene.before);
        for (const std::string &line : wrapped(summary.text, width == 0 ? SIZE_MAX : width, 2)) {
            lines.push_back({line, summary.mood, false});
        }
    } else {
        lines.push_back({"", Mood::kPlain, false});
    }
    lines.push_back({joined(subject_ == Subject::kSources ? tabs_text(subject_) + "[sources of " + sources_match_ + "]"
                                                          : tabs_text(subject_),
                            "? help  q quit", width),
                     Mood::kPlain, false});
    return lines;
}

Page View::take_page(const Scene &scene) {
    Page page = make_page(subject_, *scene.now, scene.before);
    columns_ = page.columns;
    page_sorted_by_ = page.sorted_by;
    sort_rows(page, sorting().column.value_or(page.sorted_by), sorting().is_turned);
    return page;
}

// The selection stays on what it is about while rows change their places.
void View::select(const Page &page) {
    const auto same = std::ranges::find_if(page.rows, [this](const Row &row) { return key_of(row) == selected_key_; });
    if (same != page.rows.end()) {
        selected_ = static_cast<size_t>(same - page.rows.begin());
    }
    const auto last = static_cast<std::ptrdiff_t>(page.rows.size()) - 1;
    const auto place = static_cast<std::ptrdiff_t>(selected_) + std::clamp<std::ptrdiff_t>(moved_, -100000, 100000);
    selected_ = static_cast<size_t>(std::clamp<std::ptrdiff_t>(place, 0, std::max<std::ptrdiff_t>(last, 0)));
    const bool has_moved = moved_ != 0 || !selected_key_.empty();
    moved_ = 0;
    selected_row_ = page.rows.empty() ? Row() : page.rows[selected_];
    // Before the first step it stays at the top.
    selected_key_ = has_moved && !page.rows.empty() ? key_of(selected_row_) : std::string();
}

std::vector<Line> View::draw_whole(const Scene &scene, size_t width) {
    std::vector<Line> lines = head(scene, 0);
    if (scene.now == nullptr) {
        return lines;
    }
    const Page page = take_page(scene);
    const TableLines table = lay_out(page, width, sorting().column.value_or(page.sorted_by));
    lines.push_back({table.heading, Mood::kHeading, false});
    for (size_t i = 0; i < page.rows.size(); i++) {
        lines.push_back({table.rows[i], page.rows[i].mood, false});
    }
    if (page.rows.empty()) {
        lines.push_back({page.empty, Mood::kPlain, false});
    }
    return lines;
}

std::vector<Line> View::draw(const Scene &scene, Size size, const std::string &message) {
    std::vector<Line> lines = head(scene, size.width);
    const size_t room = size.height > lines.size() + 2 ? size.height - lines.size() - 2 : 1;  // rows of a table
    if (shows_help_) {
        for (const char *line : kHelp) {
            lines.push_back({line, Mood::kPlain, false});
        }
    } else if (scene.now == nullptr) {
        for (const std::string &text :
             {std::string(), "No data from " + scene.control + " yet.",
              std::string("`anti-cpu run` listens there while it runs (--control). It is tried again and again.")}) {
            for (const std::string &line : wrapped(text, size.width, 0)) {
                lines.push_back({line, Mood::kPlain, false});
            }
        }
    } else {
        const Page page = take_page(scene);
        const TableLines table = lay_out(page, size.width, sorting().column.value_or(page.sorted_by));
        select(page);
        first_ = std::min(first_, selected_);
        first_ = selected_ >= first_ + room ? selected_ - room + 1 : first_;
        first_ = std::min(first_, page.rows.size() > room ? page.rows.size() - room : 0);
        lines.push_back({table.heading, Mood::kHeading, false});
        for (size_t i = first_; i < std::min(page.rows.size(), first_ + room); i++) {
            lines.push_back({table.rows[i], page.rows[i].mood, i == selected_});
        }
        if (page.rows.empty()) {
            lines.push_back({page.empty, Mood::kPlain, false});
        } else if (page.rows.size() > room && message.empty()) {
            lines.resize(size.height - 1);
            lines.push_back({counted(page.rows.size(), "row", "rows") + ", from " + std::to_string(first_ + 1),
                             Mood::kPlain, false});
        }
    }
    lines.resize(size.height);
    if (!message.empty()) {
        lines.back() = {message, Mood::kWarning, false};
    }
    return lines;
}

}  // namespace host::top
