// SPDX-License-Identifier: Apache-2.0
// line_words.h: the words of a console line, and the sentences of words that a message about them needs.
//
// Used by: grammar, console. Pure.
#pragma once

#include <string>
#include <vector>

namespace host::console {

// Words of a line: separated by blanks, "quoted" ones with blanks in them, up to a '#' that begins a word; and their
// places in the line. False when a quote is not closed: its word goes to the end of the line.
struct Place {
    size_t begin;
    size_t end;
};
bool split_line(const std::string &line, std::vector<std::string> &words, std::vector<Place> *places = nullptr);

// The known word that was probably meant; empty when none is near.
std::string nearest(const std::string &word, const std::vector<std::string> &known);

// "one, two or three"
std::string joined(const std::vector<std::string> &parts);

void add_once(std::vector<std::string> &parts, const std::string &part);

}  // namespace host::console
