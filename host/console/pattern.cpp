// SPDX-License-Identifier: Apache-2.0
#include "console/pattern.h"

#include <cstdlib>

#include "console/match_fields.h"

namespace host::console {

namespace {

// Reads one pattern into the plain sequences that it stands for.
class PatternReader {
public:
    explicit PatternReader(const std::string &pattern) {
        std::string part;
        bool in_argument = false;
        for (const char c : pattern + " ") {
            in_argument = c == '<' || (in_argument && c != '>');
            const bool bracket = !in_argument && std::string("[]()|").find(c) != std::string::npos;
            if (c == ' ' || bracket) {
                if (!part.empty()) {
                    parts_.push_back(part);
                    part.clear();
                }
                if (bracket) {
                    parts_.emplace_back(1, c);
                }
            } else {
                part += c;
            }
        }
    }

    std::vector<Sequence> read() {
        std::vector<Sequence> sequences = read_choice();
        if (next_ != parts_.size()) {
            std::abort();  // the table's own mistake, seen at the first start
        }
        return sequences;
    }

private:
    std::vector<Sequence> read_choice() {
        std::vector<Sequence> all = read_sequence();
        while (next_ < parts_.size() && parts_[next_] == "|") {
            next_++;
            const std::vector<Sequence> more = read_sequence();
            all.insert(all.end(), more.begin(), more.end());
        }
        return all;
    }

    std::vector<Sequence> read_sequence() {
        std::vector<Sequence> sequences{{}};
        while (next_ < parts_.size() && parts_[next_] != "]" && parts_[next_] != ")" && parts_[next_] != "|") {
            const std::string part = parts_[next_++];
            std::vector<Sequence> tails;
            if (part == "[" || part == "(") {
                tails = read_choice();
                next_++;  // the closing bracket
                if (next_ < parts_.size() && parts_[next_] == "...") {
                    next_++;
                    tails = in_any_order(tails);
                } else if (part == "[") {
                    tails.emplace_back();
                }
            } else {
                tails = {{element(part)}};
            }
            std::vector<Sequence> longer;
            for (const Sequence &head : sequences) {
                for (const Sequence &tail : tails) {
                    longer.push_back(head);
                    longer.back().insert(longer.back().end(), tail.begin(), tail.end());
                }
            }
            sequences = std::move(longer);
        }
        return sequences;
    }

    // None, some or all of them, each once.
    static std::vector<Sequence> in_any_order(const std::vector<Sequence> &choices) {
        std::vector<Sequence> all{{}};
        for (size_t taken = 0; taken < choices.size(); taken++) {
            std::vector<Sequence> others = choices;
            others.erase(others.begin() + static_cast<ptrdiff_t>(taken));
            for (const Sequence &tail : in_any_order(others)) {
                all.push_back(choices[taken]);
                all.back().insert(all.back().end(), tail.begin(), tail.end());
            }
        }
        return all;
    }

    static Element element(const std::string &part) {
        if (part == "{match}" || part == "{hw-match}") {
            return {Element::Type::kMatch, part, nullptr, part == "{match}" ? kFieldSoftware : kFieldHardware};
        }
        if (part[0] != '<') {
            return {Element::Type::kWord, part, nullptr, 0};
        }
        const std::string inner = part.substr(1, part.size() - 2);
        const size_t colon = inner.find(':');
        const Kind *kind = find_kind(colon == std::string::npos ? inner : inner.substr(colon + 1));
        if (kind == nullptr) {
            std::abort();  // the table's own mistake, seen at the first start
        }
        return {Element::Type::kArgument, inner.substr(0, colon), kind, 0};
    }

    std::vector<std::string> parts_;
    size_t next_ = 0;
};

}  // namespace

std::vector<Sequence> read_pattern(const std::string &pattern) {
    return PatternReader(pattern).read();
}

}  // namespace host::console
