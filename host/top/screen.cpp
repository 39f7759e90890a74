// SPDX-License-Identifier: Apache-2.0
#include "top/screen.h"

#include <curses.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace host::top {

namespace {

constexpr int kEscapeMs = 25;  // that a key's further bytes may take
constexpr int kEscape = 27;
constexpr int kBackspace = 127;

int attributes_of(const Line &line, bool has_colours) {
    const auto colour = [&](int pair, int otherwise) {
        return has_colours ? static_cast<int>(COLOR_PAIR(pair)) : otherwise;
    };
    int attributes = 0;
    switch (line.mood) {
        case Mood::kHeading:
            attributes = A_BOLD;
            break;
        case Mood::kGood:
            attributes = colour(1, 0);
            break;
        case Mood::kWarning:
            attributes = colour(2, A_BOLD);
            break;
        case Mood::kBad:
            attributes = colour(3, A_BOLD);
            break;
        case Mood::kPlain:
            break;
    }
    return line.is_selected ? attributes | static_cast<int>(A_REVERSE) : attributes;
}

}  // namespace

bool Screen::open(bool with_colours) {
    if (isatty(STDIN_FILENO) == 0 || newterm(nullptr, stdout, stdin) == nullptr) {
        return false;
    }
    is_open_ = true;
    cbreak();
    noecho();
    keypad(stdscr, TRUE);
    set_escdelay(kEscapeMs);
    curs_set(0);
    has_colours_ = with_colours && has_colors() && start_color() == OK;
    if (has_colours_) {
        use_default_colors();
        init_pair(1, COLOR_GREEN, -1);
        init_pair(2, COLOR_YELLOW, -1);
        init_pair(3, COLOR_RED, -1);
    }
    return true;
}

Screen::~Screen() {
    if (is_open_) {
        endwin();
    }
}

Size Screen::size() const {
    return {static_cast<size_t>(std::max(COLS, 1)), static_cast<size_t>(std::max(LINES, 1))};
}

void Screen::draw(const std::vector<Line> &lines) {
    const auto [width, height] = size();
    erase();
    for (size_t i = 0; i < std::min(lines.size(), height); i++) {
        std::string text = lines[i].text.substr(0, width);
        if (lines[i].is_selected) {
            text.resize(width, ' ');
        }
        attrset(attributes_of(lines[i], has_colours_));
        mvaddnstr(static_cast<int>(i), 0, text.c_str(), static_cast<int>(text.size()));
    }
    attrset(0);
    refresh();
}

Pressed Screen::wait(int milliseconds) {
    timeout(milliseconds);
    const int key = getch();
    switch (key) {
        case KEY_UP:
            return {Key::kUp};
        case KEY_DOWN:
            return {Key::kDown};
        case KEY_PPAGE:
            return {Key::kPageUp};
        case KEY_NPAGE:
            return {Key::kPageDown};
        case KEY_HOME:
            return {Key::kHome};
        case KEY_END:
            return {Key::kEnd};
        case KEY_RIGHT:
        case '\t':
            return {Key::kTab};
        case KEY_LEFT:
        case KEY_BTAB:
            return {Key::kBackTab};
        case KEY_ENTER:
        case '\n':
        case '\r':
            return {Key::kEnter};
        case KEY_BACKSPACE:
        case kBackspace:
        case kEscape:
            return {Key::kEscape};
        default:
            return key > 0 && key < kBackspace ? Pressed{Key::kCharacter, static_cast<char>(key)} : Pressed{};
    }
}

std::string Screen::ask(const std::string &question, std::string text) {
    for (;;) {
        const auto [width, height] = size();
        move(static_cast<int>(height) - 1, 0);
        clrtoeol();
        attrset(A_BOLD);
        addnstr((question + text + "_").c_str(), static_cast<int>(width) - 1);
        attrset(0);
        timeout(-1);
        const int key = getch();
        if (key == ERR || key == kEscape) {
            return {};
        }
        if (key == KEY_ENTER || key == '\n' || key == '\r') {
            return text;
        }
        if (key == KEY_BACKSPACE || key == kBackspace || key == '\b') {
            text.resize(text.empty() ? 0 : text.size() - 1);
        } else if (key >= ' ' && key < kBackspace) {
            text += static_cast<char>(key);
        }
    }
}

}  // namespace host::top
