// SPDX-License-Identifier: Apache-2.0
// view.h: what of the pages the operator looks at, and the lines of a screen of it.
//
// Used by: top_command, screen. Uses: pages. Pure.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "top/pages.h"

namespace host::top {

struct Line {
    std::string text;
    Mood mood = Mood::kPlain;
    bool is_selected = false;
};

struct Size {
    size_t width;
    size_t height;
};

// What is known when a screen is drawn.
struct Scene {
    const Snapshot *now;     // null: nothing yet
    const Snapshot *before;  // null: nothing yet
    std::string host_name;
    std::string control;
    std::string trouble;  // why nothing is answered; empty = all is
    double interval_s;
    bool is_paused;
};

class View {
public:
    Subject subject() const { return subject_; }
    // What is asked for the page besides.
    std::string page_line() const { return top::page_line(subject_, sources_line_); }

    void go_to(Subject subject);
    void go_beside(int step);
    // Who sends what the selected row is about; false: it is about no flow.
    bool look_into();
    bool go_back();
    void move(std::ptrdiff_t rows) { moved_ += rows; }
    void sort_by_beside(int step);
    void turn_order() { sorting().is_turned = !sorting().is_turned; }
    void toggle_help() { shows_help_ = !shows_help_; }

    // The fields that name the packets of the selected row; empty = none.
    std::string selected_match() const;

    // The lines of a screen, at most that many; 'message' is the last one.
    std::vector<Line> draw(const Scene &scene, Size size, const std::string &message);
    // The page as it is, whatever its length.
    std::vector<Line> draw_whole(const Scene &scene, size_t width);

private:
    struct Sorting {
        std::optional<size_t> column;  // the page's own where not set
        bool is_turned = false;
    };
    Sorting &sorting() { return sortings_[static_cast<size_t>(subject_)]; }
    std::vector<Line> head(const Scene &scene, size_t width) const;
    Page take_page(const Scene &scene);
    void select(const Page &page);

    Subject subject_ = Subject::kFloods;
    Subject looked_from_ = Subject::kFloods;
    std::array<Sorting, kPages + 1> sortings_;
    std::string sources_line_;
    std::string sources_match_;  // of the flow
    bool shows_help_ = false;
    std::ptrdiff_t moved_ = 0;  // of the selection, since the last screen
    size_t selected_ = 0;
    size_t first_ = 0;  // row on the screen
    std::string selected_key_;
    Row selected_row_;
    std::vector<Column> columns_;  // of the page drawn last
    size_t page_sorted_by_ = 0;
};

}  // namespace host::top
