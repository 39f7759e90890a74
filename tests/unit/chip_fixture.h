// SPDX-License-Identifier: Apache-2.0
// chip_fixture.h: the software chip under test. Each test begins with an empty one and collects what the card logs.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "chip/chip.h"
#include "frames.h"
#include "services/services.h"

inline constexpr uint32_t PORT = 3;
inline constexpr uint32_t VLAN = 100;

inline card::Chip &chip() {
    return card::Chip::instance();
}

inline bool denies(const Frame &frame, uint32_t port = PORT, uint32_t vlan = VLAN) {
    const std::unique_ptr<uint8_t[]> exact = frame.exact();
    return chip().denies(exact.get(), frame.size(), port, vlan);
}

class ChipTest : public ::testing::Test {
protected:
    void SetUp() override {
        chip().reset();
        card::set_log_sink([this](const card::LogMessage &message) { log_ += std::string(message.text) + "\n"; });
    }
    void TearDown() override { card::set_log_sink({}); }
    std::string log() { return std::exchange(log_, ""); }

private:
    std::string log_;
};
