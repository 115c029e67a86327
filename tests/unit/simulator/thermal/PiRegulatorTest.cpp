// SPDX-License-Identifier: Apache-2.0
// The sampled regulator: its two parts, its limits, and the integral at them.
#include "simulator/thermal/PiRegulator.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::sim::PiRegulator;
using State = PiRegulator::State;

constexpr PiRegulator::Terms kTerms{.gain = 2.0, .integralTime = 10.0, .lowest = 0.0, .highest = 8.0};

TEST(PiRegulator, IsOffAtFirst) {
    PiRegulator const regulator(kTerms);
    EXPECT_EQ(regulator.output(), 0.0);
    EXPECT_EQ(regulator.state(), State::Off);
}

TEST(PiRegulator, AddsTheIntegralFromTheNextSampleOn) {
    PiRegulator regulator(kTerms);
    // P e = 2 * 1; each sample of half a second adds 2 * 1 * 0.5 / 10 = 0.1.
    EXPECT_DOUBLE_EQ(regulator.sample(26.0, 25.0, 0.5), 2.0);
    EXPECT_DOUBLE_EQ(regulator.sample(26.0, 25.0, 0.5), 2.1);
    EXPECT_DOUBLE_EQ(regulator.sample(26.0, 25.0, 0.5), 2.2);
    EXPECT_EQ(regulator.state(), State::Regulates);
}

TEST(PiRegulator, HasNoIntegralWithoutIntegralTime) {
    PiRegulator regulator({.gain = 2.0, .integralTime = 0.0, .lowest = 0.0, .highest = 8.0});
    regulator.sample(26.0, 25.0, 100.0);
    EXPECT_DOUBLE_EQ(regulator.sample(26.0, 25.0, 100.0), 2.0);
}

TEST(PiRegulator, StaysWithinItsLimitsAndTellsWhichOne) {
    PiRegulator regulator(kTerms);
    EXPECT_EQ(regulator.sample(35.0, 25.0, 0.5), 8.0);
    EXPECT_EQ(regulator.state(), State::AtUpperLimit);
    EXPECT_EQ(regulator.sample(15.0, 25.0, 0.5), 0.0);
    EXPECT_EQ(regulator.state(), State::AtLowerLimit);
}

TEST(PiRegulator, DoesNotWindUpAtALimit) {
    PiRegulator regulator(kTerms);
    for (int sample = 0; sample < 1000; ++sample) {
        regulator.sample(35.0, 25.0, 0.5);
    }
    // On the target the output is the integral alone, which has not moved.
    EXPECT_EQ(regulator.sample(25.0, 25.0, 0.5), 0.0);
}

TEST(PiRegulator, ComesBackFromALimitByItsIntegral) {
    PiRegulator regulator(kTerms);
    regulator.preset(8.0);
    // Wanted is 2 * -1 + 8 = 6: within the limits again; then each sample takes 2 * 1 * 0.5 / 10 = 0.1 away.
    EXPECT_DOUBLE_EQ(regulator.sample(25.0, 26.0, 0.5), 6.0);
    EXPECT_DOUBLE_EQ(regulator.sample(25.0, 26.0, 0.5), 5.9);
}

TEST(PiRegulator, StartsFromAPresetOutputAtRest) {
    PiRegulator regulator(kTerms);
    regulator.preset(3.5);
    EXPECT_EQ(regulator.output(), 3.5);
    EXPECT_EQ(regulator.state(), State::Regulates);
    EXPECT_DOUBLE_EQ(regulator.sample(25.0, 25.0, 0.5), 3.5);
    regulator.preset(99.0);
    EXPECT_EQ(regulator.output(), 8.0);
}

TEST(PiRegulator, ForgetsItsIntegralWhenSwitchedOff) {
    PiRegulator regulator(kTerms);
    regulator.preset(3.5);
    regulator.off();
    EXPECT_EQ(regulator.output(), 0.0);
    EXPECT_EQ(regulator.state(), State::Off);
    EXPECT_DOUBLE_EQ(regulator.sample(25.5, 25.0, 0.5), 1.0);
}

TEST(PiRegulator, BringsItsIntegralWithinNewLimits) {
    PiRegulator regulator(kTerms);
    regulator.preset(8.0);
    regulator.setTerms({.gain = 2.0, .integralTime = 10.0, .lowest = 0.0, .highest = 5.0});
    EXPECT_EQ(regulator.sample(25.0, 25.0, 0.5), 5.0);
}

/// A body of 10 J/K that loses 0.5 W/K: its rest under P = 2 W/K alone is short of the target by
/// 0.5 / (2 + 0.5) of the distance to the room; the integral takes that away.
TEST(PiRegulator, LeavesAnErrorWithoutItsIntegralAndNoneWithIt) {
    auto const rest = [](PiRegulator aRegulator) {
        double celsius = 20.0;
        for (int sample = 0; sample < 20'000; ++sample) {
            double const watt = aRegulator.sample(30.0, celsius, 0.1);
            celsius += 0.1 * (watt - 0.5 * (celsius - 20.0)) / 10.0;
        }
        return celsius;
    };
    PiRegulator::Terms terms{.gain = 2.0, .integralTime = 0.0, .lowest = 0.0, .highest = 100.0};
    EXPECT_NEAR(rest(PiRegulator(terms)), 28.0, 1e-6); // 20 + 10 * 2 / 2.5
    terms.integralTime = 10.0;
    EXPECT_NEAR(rest(PiRegulator(terms)), 30.0, 1e-6);
}

} // namespace
