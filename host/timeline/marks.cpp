// SPDX-License-Identifier: Apache-2.0
#include "timeline/marks.h"

namespace host {

namespace {

std::string from_text(const Subject &subject) {
    return subject.source.type == ATC_SRC_NONE ? "" : " from " + source_text(subject.source);
}

Mark mark_of(int64_t time_ns, const AlarmEntry &entry) {
    const AlarmEvent &alarm = entry.alarm;
    const std::string rate = std::to_string(alarm.rate_pps) + "/" + std::to_string(alarm.limit_pps) +
                             " packets a second over " + std::to_string(entry.period_s) + " s" +
                             from_text(alarm.subject);
    return {time_ns, alarm.is_raised ? "alarm" : "cleared",
            (alarm.is_raised ? "alarm raised: " : "alarm cleared: ") + rate};
}

Mark mark_of(int64_t time_ns, const RuleEvent &event) {
    const Rule &rule = event.rule;
    const std::string what = ": " + rule.description;
    switch (event.kind) {
        case RuleEvent::Kind::kInstalled:
            return {time_ns, "rule", "rule " + std::to_string(rule.entry_id) + " in the chip" + what};
        case RuleEvent::Kind::kRefused:
            return {time_ns, "refused", std::string("rule refused, ") + event.reason + what};
        default:
            return {time_ns, "withdrawn",
                    "rule " + std::to_string(rule.entry_id) + " withdrawn, it stopped " + std::to_string(rule.packets) +
                        " packets"};
    }
}

}  // namespace

void Marks::follow(Journal &journal) {
    journal.add_reader([this](const JournalEntry &entry) { take(entry); });
}

const FlowMarks *Marks::of(const FlowKey &flow) const {
    const auto found = flows_.find(flow);
    return found != flows_.end() ? &found->second : nullptr;
}

void Marks::take(const JournalEntry &entry) {
    if (const auto *alarm = std::get_if<AlarmEntry>(&entry.what)) {
        add(alarm->alarm.subject, mark_of(entry.realtime_ns, *alarm));
    } else if (const auto *rule = std::get_if<RuleEvent>(&entry.what); rule != nullptr && rule->rule.owner) {
        add(*rule->rule.owner, mark_of(entry.realtime_ns, *rule));
    } else if (const auto *capture = std::get_if<CaptureEntry>(&entry.what); capture != nullptr && capture->subject) {
        const bool is_full = capture->kind == CaptureEntry::Kind::kFull;
        add(*capture->subject,
            {entry.realtime_ns, "capture", (is_full ? "capture full: " : "capture begun: ") + capture->file});
    }
}

void Marks::add(const Subject &subject, Mark mark) {
    const auto found = flows_.find(subject.flow);
    if (found == flows_.end() && flows_.size() >= kFlows) {
        return;
    }
    FlowMarks &of = found != flows_.end() ? found->second : flows_[subject.flow];
    if (of.marks.size() < FlowMarks::kMost) {
        of.marks.push_back(std::move(mark));
    } else {
        of.more++;
    }
}

}  // namespace host
