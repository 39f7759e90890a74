// SPDX-License-Identifier: Apache-2.0
#include "console/grammar.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "transfer/transfer.h"

namespace host::console {

namespace {

constexpr const char *kHidden = "***";

}  // namespace

Grammar::Grammar(const std::vector<Command> &commands) {
    for (const Command &command : commands) {
        std::string pattern = command.pattern;
        if (pattern.starts_with("show ")) {
            pattern += " [json]";
        }
        for (Sequence &sequence : read_pattern(pattern)) {
            variants_.push_back({&command, std::move(sequence)});
        }
    }
}

Parsed Grammar::parse(const std::vector<std::string> &words) const {
    Parsed parsed;
    const std::vector<State> states = walk(words, parsed.error);
    if (states.empty()) {
        return parsed;
    }
    const auto complete = std::ranges::find_if(states, is_complete);
    if (complete != states.end()) {
        parsed.command = complete->variant->command;
        parsed.arguments = complete->arguments;
        return parsed;
    }
    std::vector<std::string> descriptions;
    for (const Edge &edge : edges(states)) {
        add_once(descriptions, edge.kind != nullptr ? edge.kind->description : "\"" + edge.word + "\"");
    }
    parsed.error = "the line is not complete: expected " + joined(descriptions);
    return parsed;
}

std::string Grammar::without_secrets(const std::string &line) const {
    std::vector<std::string> words;
    std::vector<Place> places;
    split_line(line, words, &places);
    std::string shown;
    size_t shown_to = 0;
    bool hides_rest = false;
    std::vector<State> states = begin();
    for (size_t i = 0; i < words.size(); i++) {
        bool hides = hides_rest;
        if (!states.empty()) {
            std::string error;
            std::vector<State> next = step(states, words[i], error);
            hides = next.empty() ? may_be_secret(states) : std::ranges::any_of(next, [](const State &state) {
                return has_secret(state, state.position - 1, state.position);
            });
            hides_rest = next.empty() && may_have_secret(states);
            states = std::move(next);
        }
        if (hides) {
            shown += line.substr(shown_to, places[i].begin - shown_to) + kHidden;
            shown_to = places[i].end;
        }
    }
    // A comment, unless it was to be a password that begins so.
    const size_t comment = places.empty() ? line.npos : line.find('#', places.back().end);
    if (comment != line.npos && (hides_rest || may_have_secret(states))) {
        return shown + line.substr(shown_to, comment - shown_to) + kHidden;
    }
    return shown + line.substr(shown_to);
}

Follow Grammar::follow(const std::vector<std::string> &words) const {
    Follow follow;
    const std::vector<State> states = walk(words, follow.error);
    const auto complete = std::ranges::find_if(states, is_complete);
    follow.complete = complete != states.end() ? complete->variant->command : nullptr;
    std::map<std::string, std::set<const Command *>> rows;
    for (const Edge &edge : edges(states)) {
        const State &state = states[edge.state];
        Expected one{edge.word, edge.kind == nullptr, edge.kind, state.variant->command->help};
        if (edge.kind != nullptr) {
            const bool of_field = edge.field != nullptr;
            one.text =
                std::string("<") + (of_field ? edge.field->word : state.variant->elements[state.position].text) + ">";
            one.help = edge.kind->description;
        } else if (edge.field != nullptr) {
            one.help = edge.field->help;
        }
        rows[one.text].insert(state.variant->command);
        const auto same = [&one](const Expected &other) { return other.text == one.text; };
        if (std::ranges::none_of(follow.expected, same)) {
            follow.expected.push_back(std::move(one));
        }
    }
    for (Expected &one : follow.expected) {
        if (one.is_word && rows[one.text].size() > 1) {
            one.help = "...";
        }
    }
    return follow;
}

std::vector<std::string> Grammar::completions(const std::vector<std::string> &words,
                                              const std::string &beginning) const {
    std::vector<std::string> found;
    for (const Expected &one : follow(words).expected) {
        std::vector<std::string> candidates;
        if (one.is_word) {
            candidates.push_back(one.text);
        } else if (one.kind->choices != nullptr) {
            candidates = one.kind->choices();
        }
        for (const std::string &candidate : candidates) {
            if (candidate.starts_with(beginning)) {
                add_once(found, candidate);
            }
        }
    }
    return found;
}

std::vector<Grammar::State> Grammar::begin() const {
    std::vector<State> states;
    states.reserve(variants_.size());
    for (const Variant &variant : variants_) {
        states.push_back({&variant, 0, nullptr, {}});
    }
    return states;
}

std::vector<Grammar::Edge> Grammar::edges(const std::vector<State> &states) const {
    std::vector<Edge> all;
    all.reserve(states.size());
    for (size_t i = 0; i < states.size(); i++) {
        const State &state = states[i];
        if (state.field != nullptr) {
            all.push_back({i, "", find_kind(state.field->kind), state.field});
            continue;
        }
        if (state.position == state.variant->elements.size()) {
            continue;
        }
        const Element &element = state.variant->elements[state.position];
        if (element.type == Element::Type::kMatch) {
            for (const MatchField &field : match_fields()) {
                if ((field.uses & element.uses) != 0) {
                    all.push_back({i, field.word, nullptr, &field});
                }
            }
        } else {
            all.push_back(
                {i, element.type == Element::Type::kWord ? element.text : std::string(), element.kind, nullptr});
        }
    }
    return all;
}

// A whole key word goes before a shortened one, a key word before an argument.
std::vector<Grammar::State> Grammar::step(const std::vector<State> &states, const std::string &word,
                                          std::string &error) const {
    const std::vector<Edge> all = edges(states);
    std::set<std::string> meant;
    for (const Edge &edge : all) {
        if (edge.kind == nullptr && edge.word.starts_with(word)) {
            meant.insert(edge.word);
        }
    }
    if (meant.contains(word)) {
        meant = {word};
    }
    if (word.empty()) {
        meant.clear();
    }
    if (meant.size() > 1) {
        error = " is ambiguous: " + joined({meant.begin(), meant.end()});
        return {};
    }
    std::vector<State> followers;
    bool refused = false;
    for (const Edge &edge : all) {
        if (edge.kind != nullptr ? !meant.empty() || !edge.kind->read(word) : !meant.contains(edge.word)) {
            continue;
        }
        State state = states[edge.state];
        refused = edge.kind != nullptr ? !take_argument(state, edge, word) : !take_word(state, edge);
        if (!refused) {
            followers.push_back(std::move(state));
        }
    }
    if (followers.empty()) {
        error = refused ? ": this field is there already, or is zero, which stands for any" : unfit(all, word);
    }
    return followers;
}

std::string Grammar::unfit(const std::vector<Edge> &all, const std::string &word) {
    std::vector<std::string> descriptions;
    std::vector<std::string> known;
    for (const Edge &edge : all) {
        add_once(descriptions, edge.kind != nullptr ? edge.kind->description : "\"" + edge.word + "\"");
        if (edge.kind == nullptr) {
            add_once(known, edge.word);
        } else if (edge.kind->choices != nullptr) {
            std::ranges::for_each(edge.kind->choices(), [&known](const auto &choice) { add_once(known, choice); });
        }
    }
    const std::string near = nearest(word, known);
    return ": " + (descriptions.empty() ? "nothing may follow here" : "expected " + joined(descriptions)) +
           (near.empty() ? "" : "; did you mean \"" + near + "\"?");
}

std::vector<Grammar::State> Grammar::walk(const std::vector<std::string> &words, std::string &error) const {
    std::vector<State> states = begin();
    for (size_t i = 0; i < words.size() && !states.empty(); i++) {
        std::string reason;
        const std::vector<State> before = std::exchange(states, step(states, words[i], reason));
        if (states.empty()) {
            const std::string shown = may_be_secret(before) ? kHidden : card::printable(words[i]);
            error.assign("word ").append(std::to_string(i + 1)).append(" \"").append(shown).append("\"").append(reason);
        }
    }
    return states;
}

bool Grammar::take_word(State &state, const Edge &edge) {
    if (edge.field != nullptr) {
        state.field = edge.field;
    } else {
        state.arguments.words_.push_back(edge.word);
        state.position++;
    }
    return true;
}

bool Grammar::take_argument(State &state, const Edge &edge, const std::string &word) {
    const Value value = *edge.kind->read(word);
    if (edge.field != nullptr) {
        state.field = nullptr;
        return edge.field->store(state.arguments.rule_, value);
    }
    state.arguments.values_[state.variant->elements[state.position].text] = value;
    state.position++;
    return true;
}

// Whether a word that does not fit is one, or a part of one that has blanks.
bool Grammar::may_be_secret(const std::vector<State> &states) {
    return std::ranges::any_of(states, [](const State &state) { return has_secret(state, 0, state.position + 1); });
}

bool Grammar::may_have_secret(const std::vector<State> &states) {
    return std::ranges::any_of(states,
                               [](const State &state) { return has_secret(state, 0, state.variant->elements.size()); });
}

bool Grammar::has_secret(const State &state, size_t begin, size_t end) {
    const Sequence &elements = state.variant->elements;
    return std::any_of(elements.begin() + static_cast<ptrdiff_t>(begin),
                       elements.begin() + static_cast<ptrdiff_t>(std::min(end, elements.size())),
                       [](const Element &element) { return element.kind != nullptr && element.kind->is_secret; });
}

bool Grammar::is_complete(const State &state) {
    const Sequence &elements = state.variant->elements;
    return state.field == nullptr &&
           (state.position == elements.size() ||
            (state.position + 1 == elements.size() && elements[state.position].type == Element::Type::kMatch));
}

}  // namespace host::console
