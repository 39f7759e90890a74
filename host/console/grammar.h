// SPDX-License-Identifier: Apache-2.0
// grammar.h: console lines read by the command table.
//
// A pattern with optional parts and choices stands for several plain sequences; a line is followed through all
// sequences of all rows at once, word by word. So whatever the table knows (what may come next, what a wrong word was
// near to) is known at every point of a line. Used by: console (execution, completion), help. Uses: command, kinds,
// match_fields. No state but the table's.
#pragma once

#include <string>
#include <vector>

#include "console/command.h"
#include "console/line_words.h"
#include "console/match_fields.h"
#include "console/pattern.h"

namespace host::console {

struct Parsed {
    const Command *command = nullptr;  // null: the line is wrong
    Arguments arguments;
    std::string error;  // 'word 3 "arpp": expected a protocol (...); did you mean "arp"?'
};

// Something that may stand at a point of a line.
struct Expected {
    std::string text;  // key word, or "<kind>"
    bool is_word;
    const Kind *kind;  // of an argument
    std::string help;
};

// What may follow some words.
struct Follow {
    std::vector<Expected> expected;     // in the table's order
    const Command *complete = nullptr;  // the row that the words already are
    std::string error;                  // of words that are wrong
};

class Grammar {
public:
    explicit Grammar(const std::vector<Command> &commands);

    Parsed parse(const std::vector<std::string> &words) const;

    // The line for an echo or a message: "***" stands for every argument of a kind that is secret, and, where the line
    // is wrong, for whatever might be one.
    std::string without_secrets(const std::string &line) const;

    Follow follow(const std::vector<std::string> &words) const;
    // Words that complete 'beginning' behind 'words'.
    std::vector<std::string> completions(const std::vector<std::string> &words, const std::string &beginning) const;

private:
    struct Variant {
        const Command *command;
        Sequence elements;
    };
    struct State {
        const Variant *variant;
        size_t position;          // in the variant's elements
        const MatchField *field;  // whose value is due, or null
        Arguments arguments;
    };
    struct Edge {
        size_t state;
        std::string word;         // of a key word, else empty
        const Kind *kind;         // of an argument, else null
        const MatchField *field;  // a field's key word or value, else null
    };

    std::vector<State> begin() const;
    std::vector<Edge> edges(const std::vector<State> &states) const;
    // Empty with 'error' set when the word fits nowhere.
    std::vector<State> step(const std::vector<State> &states, const std::string &word, std::string &error) const;
    std::vector<State> walk(const std::vector<std::string> &words, std::string &error) const;
    // What is wrong with a word that none of the edges takes.
    static std::string unfit(const std::vector<Edge> &all, const std::string &word);
    static bool take_word(State &state, const Edge &edge);
    static bool take_argument(State &state, const Edge &edge, const std::string &word);
    static bool is_complete(const State &state);
    // Whether a word behind these may be a secret one; whether the line that they begin may have one.
    static bool may_be_secret(const std::vector<State> &states);
    static bool may_have_secret(const std::vector<State> &states);
    // Among the elements from 'begin' to before 'end' of the sequence that a state is in.
    static bool has_secret(const State &state, size_t begin, size_t end);

    std::vector<Variant> variants_;
};

}  // namespace host::console
