// SPDX-License-Identifier: Apache-2.0
#include "console/line_words.h"

#include <algorithm>

namespace host::console {

namespace {

// Levenshtein distance.
size_t distance(const std::string &a, const std::string &b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); j++) {
        row[j] = j;
    }
    for (size_t i = 1; i <= a.size(); i++) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); j++) {
            const size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
        }
    }
    return row[b.size()];
}

}  // namespace

bool split_line(const std::string &line, std::vector<std::string> &words, std::vector<Place> *places) {
    bool closed = true;
    size_t i = 0;
    while (i < line.size()) {
        if (std::isspace(static_cast<unsigned char>(line[i])) != 0) {
            i++;
            continue;
        }
        if (line[i] == '#') {
            break;
        }
        const size_t begin = i;
        std::string word;
        while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i])) == 0) {
            if (line[i] != '"') {
                word += line[i++];
                continue;
            }
            const size_t end = std::min(line.size(), line.find('"', i + 1));
            closed = end != line.size();
            word += line.substr(i + 1, end - i - 1);
            i = end + (closed ? 1 : 0);
        }
        words.push_back(word);
        if (places != nullptr) {
            places->push_back({begin, i});
        }
    }
    return closed;
}

std::string nearest(const std::string &word, const std::vector<std::string> &known) {
    std::string best;
    size_t best_distance = word.size() / 3 + 2;
    for (const std::string &candidate : known) {
        const size_t d = distance(word, candidate);
        if (d < best_distance) {
            best_distance = d;
            best = candidate;
        }
    }
    return best;
}

std::string joined(const std::vector<std::string> &parts) {
    std::string text;
    for (size_t i = 0; i < parts.size(); i++) {
        text += (i == 0 ? "" : i + 1 == parts.size() ? " or " : ", ") + parts[i];
    }
    return text;
}

void add_once(std::vector<std::string> &parts, const std::string &part) {
    if (std::ranges::find(parts, part) == parts.end()) {
        parts.push_back(part);
    }
}

}  // namespace host::console
