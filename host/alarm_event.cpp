// SPDX-License-Identifier: Apache-2.0
#include "alarm_event.h"

#include <charconv>
#include <string_view>

namespace host {

namespace {

// Takes one piece of a text after the other off its front; each says whether it was there.
class Pieces {
public:
    explicit Pieces(std::string_view text) : left_(text) {}

    bool is_at_end() const { return left_.empty(); }

    bool word(std::string_view expected) {
        if (!left_.starts_with(expected)) {
            return false;
        }
        left_.remove_prefix(expected.size());
        return true;
    }

    // 'is_first' tells which of the two.
    bool either(std::string_view first, std::string_view second, bool &is_first) {
        is_first = word(first);
        return is_first || word(second);
    }

    // The module prints numbers of 2^31 and more negative.
    bool number(uint32_t &number) {
        int64_t value = 0;
        const auto [end, error] = std::from_chars(left_.data(), left_.data() + left_.size(), value);
        left_.remove_prefix(static_cast<size_t>(end - left_.data()));
        number = static_cast<uint32_t>(value);
        return error == std::errc();
    }

    // Up to the next blank.
    bool any_word(std::string_view &found) {
        found = left_.substr(0, left_.find(' '));
        left_.remove_prefix(found.size());
        return !found.empty();
    }

private:
    std::string_view left_;
};

// " src mac 02:00:00:00:00:0b", or nothing.
bool take_source(Pieces &pieces, Source &source) {
    if (!pieces.word(" src ")) {
        return true;
    }
    std::string_view kind;
    std::string_view address;
    if (!pieces.any_word(kind) || !pieces.word(" ") || !pieces.any_word(address)) {
        return false;
    }
    const auto read = parse_source(address);
    source = read.value_or(Source{});
    return read.has_value();
}

}  // namespace

// "anti-cpu rx port 1 vlan 100 protocol arp src mac 02:00:00:00:00:0b over fast period
// limit,receive/limit:141/100(pps)"
std::optional<AlarmEvent> read_alarm(const card::LogMessage &message) {
    Pieces pieces(message.text);
    AlarmEvent event;
    event.realtime_ns = message.realtime_ns;
    auto &[flow, source] = event.subject;
    std::string_view protocol;
    bool is_fast = false;
    const bool is_alarm = pieces.word("anti-cpu rx port ") && pieces.number(flow.port) && pieces.word(" vlan ") &&
                          pieces.number(flow.vlan) && pieces.word(" protocol ") && pieces.any_word(protocol) &&
                          take_source(pieces, source) && pieces.either(" over", " restore", event.is_raised) &&
                          pieces.either(" fast", " long", is_fast) && pieces.word(" period limit,receive/limit:") &&
                          pieces.number(event.rate_pps) && pieces.word("/") && pieces.number(event.limit_pps) &&
                          pieces.word("(pps)") && pieces.is_at_end();
    if (!is_alarm) {
        return std::nullopt;
    }
    event.period = is_fast ? AlarmEvent::Period::kFast : AlarmEvent::Period::kLong;
    // Packets of no class go by the name of a class; only they have a limit of 0.
    flow.protocol = event.limit_pps == 0 ? 0 : parse_protocol(protocol);
    return event;
}

// "anti-cpu port 3 vlan 100 protocol arp src mac 02:00:00:00:00:07 diagnose buffer is overflow"
std::optional<Subject> read_full_capture(const card::LogMessage &message) {
    Pieces pieces(message.text);
    Subject subject;
    std::string_view protocol;
    const bool is_full = pieces.word("anti-cpu port ") && pieces.number(subject.flow.port) && pieces.word(" vlan ") &&
                         pieces.number(subject.flow.vlan) && pieces.word(" protocol ") && pieces.any_word(protocol) &&
                         take_source(pieces, subject.source) && pieces.word(" diagnose buffer is overflow") &&
                         pieces.is_at_end();
    if (!is_full) {
        return std::nullopt;
    }
    subject.flow.protocol = parse_protocol(protocol);
    return subject;
}

bool tells_of_refused_memory(const card::LogMessage &message) {
    return message.text.starts_with("card: memory budget of ");
}

}  // namespace host
