// SPDX-License-Identifier: Apache-2.0
// Who is named of those that flood, and how many names there can be, whatever an attacker invents.
#include "metrics/flooding_sources.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

namespace host {
namespace {

constexpr int64_t kSecondNs = 1'000'000'000;

Subject sender(uint32_t port, uint32_t number) {
    Subject subject{{port, 1, 4}, {}};
    subject.source.type = ATC_SRC_IPV4;
    std::memcpy(subject.source.bytes.data(), &number, sizeof(number));
    return subject;
}

TEST(FloodingSources, InventedSendersGetNoMorePlacesThanThereAre) {
    FloodingSources sources;
    std::set<Subject> named;
    uint32_t number = 0;
    size_t unnamed = 0;
    int64_t now_ns = 0;
    const Subject constant = sender(1, 1'000'000);
    for (int second = 0; second < 599; second++, now_ns += kSecondNs) {
        sources.note(constant, 7, now_ns);
        for (int i = 0; i < 50; i++) {
            sources.note(sender(1, number++), 1, now_ns);
        }
        sources.end_pass();
        for (const FloodingSource &source : sources.sources()) {
            named.insert(source.subject);
        }
        ASSERT_EQ(sources.sources().front().subject, constant);
        unnamed += sources.left_out();
    }
    // Nine others in the first five minutes, nine in the second ones.
    EXPECT_EQ(named.size(), 1U + 2 * (FloodingSources::kPlacesPerPort - 1));
    EXPECT_EQ(unnamed, number - (named.size() - 1));
}

TEST(FloodingSources, EveryPortHasItsShareUntilAllPlacesAreTaken) {
    FloodingSources sources;
    for (uint32_t port = 1; port <= 12; port++) {
        for (uint32_t i = 0; i <= FloodingSources::kPlacesPerPort; i++) {
            sources.note(sender(port, i), i, 0);
        }
    }
    EXPECT_TRUE(sources.sources().empty());  // a pass that has not ended says nothing yet
    sources.end_pass();
    EXPECT_EQ(sources.sources().size(), FloodingSources::kPlaces);
    EXPECT_EQ(sources.left_out(), 12 * (FloodingSources::kPlacesPerPort + 1) - FloodingSources::kPlaces);
    // Later a port that had none gets the places of those that were quiet for a pass; who floods on keeps its own.
    sources.note(sender(1, 3), 1, 1);
    sources.end_pass();
    sources.note(sender(1, 3), 8, FloodingSources::kHoldNs);
    sources.note(sender(1, 3), 5, FloodingSources::kHoldNs);
    sources.note(sender(12, 1), 2, FloodingSources::kHoldNs);
    sources.end_pass();
    ASSERT_EQ(sources.sources().size(), 2U);
    for (const FloodingSource &source : sources.sources()) {
        EXPECT_EQ(source.rate_pps, source.subject == sender(1, 3) ? 8U : 2U);
    }
    EXPECT_EQ(sources.left_out(), 0U);
    sources.end_pass();
    EXPECT_TRUE(sources.sources().empty());
}

}  // namespace
}  // namespace host
