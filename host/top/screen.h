// SPDX-License-Identifier: Apache-2.0
// screen.h: the terminal: lines in, keys out.
//
// Only what has changed goes over the line, as ncurses does it. Used by: top_command. Uses: ncurses. Thread: one; one
// screen at a time.
#pragma once

#include <string>
#include <vector>

#include "top/view.h"

namespace host::top {

enum class Key {
    kNone,  // time is up, or a signal came
    kUp,
    kDown,
    kPageUp,
    kPageDown,
    kHome,
    kEnd,
    kTab,
    kBackTab,
    kEnter,
    kEscape,
    kCharacter
};

struct Pressed {
    Key key = Key::kNone;
    char character = 0;
};

class Screen {
public:
    Screen() = default;
    ~Screen();
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    // False: this is no terminal that a screen can be drawn on.
    bool open(bool with_colours);

    Size size() const;
    void draw(const std::vector<Line> &lines);

    // Waits for a key, at most so long.
    Pressed wait(int milliseconds);

    // A line typed at the bottom, 'text' to begin with; empty when it was given up.
    std::string ask(const std::string &question, std::string text);

private:
    bool has_colours_ = false;
    bool is_open_ = false;
};

}  // namespace host::top
