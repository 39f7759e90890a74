// SPDX-License-Identifier: Apache-2.0
// The screen of `anti-cpu top`: what it makes of a process's answers, without either.
#include <gtest/gtest.h>

#include "top/view.h"

namespace {

using host::Json;
using host::top::Line;
using host::top::Page;
using host::top::Scene;
using host::top::Snapshot;
using host::top::Subject;
using host::top::View;

Json flood(const char *source, uint64_t packets, uint64_t stopped) {
    return {{"port", 1},
            {"vlan", 100},
            {"protocol", "icmpv6-ns"},
            {"source", source == nullptr ? Json(nullptr) : Json{{"type", "ipv6"}, {"address", source}}},
            {"packets", packets},
            {"limit_pps", 100},
            {"fast_alarm", "2026-11-22 22:05:57"},
            {"long_alarm", nullptr},
            {"software_deny_on", false},
            {"capture_on", true},
            {"stopped_in_chip", stopped},
            {"entry_ids", stopped == 0 ? Json::array() : Json::array({7})}};
}

Snapshot at(int second, const Json &floods) {
    Snapshot snapshot;
    snapshot.clock = {{"time", "2026-11-22 22:06:00"}};
    snapshot.floods.data = {{"fast_alarms", 1}, {"long_alarms", 0}, {"number", floods.size()}, {"floods", floods}};
    snapshot.card.data = {{{"port", 1},
                           {"interface", "eth0"},
                           {"state", "not protected: another program is attached"},
                           {"offered", 1000 * second}}};
    snapshot.page.data = {
        {{"entry_id", 7},
         {"packets", 10},
         {"description", "deny port 1 src-ip 2001:db8:1111:2222:3333:4444:5555:6666 vlan 100 eth-type 0x86dd"}}};
    for (host::top::Answer *answer : {&snapshot.floods, &snapshot.card, &snapshot.page}) {
        answer->when = std::chrono::steady_clock::time_point(std::chrono::seconds(second));
    }
    return snapshot;
}

Scene scene(const Snapshot &now, const Snapshot *before) {
    return {&now, before, "router1", "/run/anti-cpu/control", "", 2, false};
}

TEST(TopPages, RatesAreOfTheTimeBetweenTwoLooks) {
    struct Case {
        const char *what;
        uint64_t packets_before, packets;
        uint64_t stopped_before, stopped;
        const char *now, *stops;  // packets a second
    };
    const Case cases[] = {
        {"counted and stopped", 100, 300, 1000, 21000, "10,100", "10,000"},
        {"32 bits have wrapped", UINT32_MAX - 99, 100, 0, 0, "100", "0"},
        {"cleared meanwhile", 5000, 400, 0, 0, "200", "0"},
        {"a rule came anew", 100, 100, 9000, 4000, "2,000", "2,000"},
    };
    for (const Case &one : cases) {
        const Snapshot before = at(10, Json::array({flood("fe80::1", one.packets_before, one.stopped_before)}));
        const Snapshot now = at(12, Json::array({flood("fe80::1", one.packets, one.stopped)}));
        const Page page = make_page(Subject::kFloods, now, &before);
        EXPECT_EQ(page.rows.at(0).cells.at(4).text, one.now) << one.what;
        EXPECT_EQ(page.rows.at(0).cells.at(6).text, one.stops) << one.what;
        EXPECT_EQ(page.rows.at(0).match, "port 1 vlan 100 protocol icmpv6-ns source fe80::1");
    }
    const Snapshot first = at(10, Json::array({flood("fe80::1", 1, 1)}));
    EXPECT_EQ(make_page(Subject::kFloods, first, nullptr).rows.at(0).cells.at(4).text, "-");
}

// Whatever the size, and whatever page: no line is wider, none is missing, and what matters most is there at 80
// columns.
TEST(TopView, FitsEveryScreen) {
    const char *widest = "2001:db8:1111:2222:3333:4444:5555:6666";
    const Json floods = Json::array({flood(nullptr, 5, 0), flood(widest, 5, 1'488'095'000), flood("fe80::2", 1, 0)});
    const Snapshot before = at(10, Json::array());
    const Snapshot now = at(12, floods);
    View view;
    for (const char key : {'1', '2', '3', '4', '?', 'n'}) {
        key == '?' ? view.toggle_help() : key == 'n' ? view.toggle_help() : view.go_to(static_cast<Subject>(key - '1'));
        for (size_t width = 20; width < 220; width += 7) {
            for (size_t height = 1; height < 60; height += 11) {
                Scene drawn = scene(now, &before);
                drawn.now = key == 'n' ? nullptr : &now;
                const std::vector<Line> lines = view.draw(drawn, {width, height}, "");
                EXPECT_EQ(lines.size(), height);
                if (width >= 80 && key != '?') {
                    for (const Line &line : lines) {
                        EXPECT_LE(line.text.size(), width) << line.text;
                    }
                }
            }
        }
    }
    view.go_to(Subject::kFloods);
    std::string all;
    for (const Line &line : view.draw(scene(now, &before), {80, 24}, "")) {
        all += line.text + "\n";
    }
    EXPECT_NE(all.find("alarm, rule, recorded"), std::string::npos) << all;
    EXPECT_NE(all.find("FLOODED: 3 floods, 1 alarm"), std::string::npos) << all;
}

// The row that the operator has chosen stays chosen while rates change their order.
TEST(TopView, SelectionStaysOnItsFlood) {
    const Snapshot first = at(10, Json::array({flood("fe80::1", 0, 0), flood("fe80::2", 0, 0)}));
    const Snapshot second = at(12, Json::array({flood("fe80::1", 900, 0), flood("fe80::2", 100, 0)}));
    const Snapshot third = at(14, Json::array({flood("fe80::1", 900, 0), flood("fe80::2", 9000, 0)}));
    View view;
    view.draw(scene(second, &first), {80, 24}, "");
    EXPECT_NE(view.selected_match().find("fe80::1"), std::string::npos);
    view.move(1);
    view.draw(scene(second, &first), {80, 24}, "");
    EXPECT_NE(view.selected_match().find("fe80::2"), std::string::npos);
    view.draw(scene(third, &second), {80, 24}, "");
    EXPECT_NE(view.selected_match().find("fe80::2"), std::string::npos);
    view.move(1);
    view.draw(scene(third, &second), {80, 24}, "");
    EXPECT_NE(view.selected_match().find("fe80::1"), std::string::npos);
    ASSERT_TRUE(view.look_into());
    EXPECT_EQ(view.page_line(), "show sources rx vlan 100 port 1 icmpv6-ns");
}

}  // namespace
