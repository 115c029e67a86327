// SPDX-License-Identifier: Apache-2.0
// The fixed point of FRED and PID, by hand arithmetic and against the difference equation.
#include "simulator/sequencer/PidRegulator.h"

#include <cmath>
#include <limits>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::fredOutput;
using libfieldwarden::sim::PidRegulator;

/// As the start of the lock writes them.
constexpr PidRegulator::Settings kStarted{.i = -417, .outputShift = 30, .inputShift = 7};
constexpr std::int64_t kBin = std::int64_t{18'000} * 128; ///< A bin at a slope of 18,000 counts.

std::int32_t step(PidRegulator& aRegulator, std::int64_t aInput, PidRegulator::Settings const& aSettings) {
    return aRegulator.step(aInput, 0, aSettings).value;
}

TEST(PidRegulator, CountsFiftySevenABinAndCycle) {
    PidRegulator regulator;
    // (18000 * 128 >> 7) * -417 = -7,506,000; >> 17 = -57.27, rounded down -58. Twice that is -114.53: -115.
    EXPECT_EQ(step(regulator, kBin, kStarted), -58);
    EXPECT_EQ(step(regulator, kBin, kStarted), -115);
    // Ten cycles: -572.66; the fractions are not lost.
    for (int i = 0; i < 8; ++i) {
        step(regulator, 0, kStarted);
    }
    EXPECT_EQ(step(regulator, 8 * kBin, kStarted), -573);
}

TEST(PidRegulator, HalvesWithEachInputShiftAndDoublesWithEachOutputShift) {
    auto const after = [](unsigned aInputShift, unsigned aOutputShift) {
        PidRegulator regulator;
        PidRegulator::Settings settings{
            .i = -131'072, .outputShift = aOutputShift, .inputShift = aInputShift};
        return step(regulator, 128'000, settings);
    };
    // 128,000 >> 7 = 1,000, times -2^17 >> 17: -1,000.
    EXPECT_EQ(after(7, 30), -1000);
    EXPECT_EQ(after(8, 30), -500);
    EXPECT_EQ(after(7, 31), -2000);
    EXPECT_EQ(after(7, 29), -500);
    EXPECT_EQ(after(63, 30), 0);
}

TEST(PidRegulator, AddsProportionalAndDerivativeTerms) {
    PidRegulator regulator;
    PidRegulator::Settings settings{.p = 131'072,
                                    .d = 262'144,
                                    .outputOffset = 7,
                                    .outputShift = 30,
                                    .inputShift = 7,
                                    .derivativeOrder = 1};
    // x = 100: p 100, d 2 * (100 - 0), offset 7.
    EXPECT_EQ(step(regulator, 12'800, settings), 307);
    // x = 130: 130 + 2 * 30 + 7.
    EXPECT_EQ(step(regulator, 16'640, settings), 197);
    settings.derivativeOrder = 2;
    // x = 140, two cycles ago 100: 140 + 2 * 40 + 7.
    EXPECT_EQ(step(regulator, 17'920, settings), 227);
    settings.derivativeOrder = 0;
    EXPECT_EQ(step(regulator, 12'800, settings), 107);
}

TEST(PidRegulator, TakesTheSetPointOffItsInput) {
    PidRegulator regulator;
    PidRegulator::Settings settings{.setPoint = -1280, .p = 131'072, .outputShift = 30, .inputShift = 7};
    auto const output = regulator.step(0, 0, settings);
    EXPECT_EQ(output.value, 10);
    EXPECT_EQ(output.error, 1280);
}

TEST(PidRegulator, TakesTheOffsetByItsLow24Bits) {
    PidRegulator regulator;
    PidRegulator::Settings settings{.outputOffset = 0xC0'0000};
    // The pattern of -4,194,304, whatever is above it.
    EXPECT_EQ(step(regulator, 0, settings), -4'194'304);
    settings.outputOffset = -4'194'304;
    EXPECT_EQ(step(regulator, 0, settings), -4'194'304);
}

TEST(PidRegulator, StopsAtTheEndsOfTheConverterWithoutWindingUp) {
    PidRegulator regulator;
    PidRegulator::Settings settings{
        .i = 131'072, .outputOffset = 8'388'000, .outputShift = 30, .inputShift = 7};
    auto output = regulator.step(64'000, 0, settings);
    EXPECT_EQ(output.value, 8'388'500);
    EXPECT_FALSE(output.overflow);
    for (int i = 0; i < 1000; ++i) {
        output = regulator.step(64'000, 0, settings);
    }
    EXPECT_EQ(output.value, 8'388'607);
    EXPECT_TRUE(output.overflow);
    // It comes back at once.
    output = regulator.step(-64'000, 0, settings);
    EXPECT_EQ(output.value, 8'388'107);
    EXPECT_FALSE(output.overflow);
    settings.outputOffset = -8'388'600;
    regulator.clear();
    EXPECT_EQ(step(regulator, -64'000, settings), -8'388'608);
}

TEST(PidRegulator, BearsTheGreatestNumbersOfItsRegisters) {
    PidRegulator regulator;
    constexpr std::int32_t kLeast = std::numeric_limits<std::int32_t>::min();
    PidRegulator::Settings settings{.setPoint = -(std::int64_t{1} << 47),
                                    .p = kLeast,
                                    .i = kLeast,
                                    .d = kLeast,
                                    .outputShift = 63,
                                    .inputShift = 0,
                                    .derivativeOrder = 7};
    for (int i = 0; i < 10; ++i) {
        auto const output = regulator.step((std::int64_t{1} << 47) - 1, 0, settings);
        EXPECT_EQ(output.value, -8'388'608);
        EXPECT_TRUE(output.overflow);
    }
}

TEST(PidRegulator, ForgetsWhenItIsCleared) {
    PidRegulator regulator;
    step(regulator, 10 * kBin, kStarted);
    regulator.clear();
    EXPECT_EQ(step(regulator, 0, kStarted), 0);
}

TEST(PidRegulator, ScalesItsInputToTheReferenceMagnitude) {
    PidRegulator::Settings settings{.p = 131'072, .outputShift = 30, .inputShift = 7, .scaler = true};
    PidRegulator regulator;
    EXPECT_EQ(regulator.step(12'800, std::int64_t{1} << 35, settings).value, 100);
    EXPECT_EQ(regulator.step(12'800, std::int64_t{1} << 34, settings).value, 200);
    EXPECT_EQ(regulator.step(12'800, std::int64_t{1} << 37, settings).value, 25);
    EXPECT_EQ(regulator.step(12'800, 0, settings).value, 8'388'607); // No signal at all.
}

TEST(PidRegulator, FollowsTheDifferenceEquationOfItsLoop) {
    // A line d bins off moves by h / 1024 with the output: u = 18000 * 128 * (d + h / 1024). With
    // g = 417 * 18000 / 2^17 / 1024 = 0.055924 the offset is d * (1 - g)^n.
    constexpr double kGain = 417.0 * 18'000.0 / 131'072.0 / 1024.0;
    PidRegulator regulator;
    double offset = 5.0;
    for (int n = 1; n <= 100; ++n) {
        std::int32_t const h = step(regulator, std::llround(offset * kBin), kStarted);
        offset = 5.0 + h / 1024.0;
        EXPECT_NEAR(offset, 5.0 * std::pow(1.0 - kGain, n), 0.02) << "after cycle " << n;
    }
    // One over g is the loop's time constant: 17.9 cycles.
    EXPECT_NEAR(1.0 / kGain, 17.9, 0.1);
}

TEST(FredOutput, IsThePolynomialOfTheH0Output) {
    constexpr std::int32_t kHalf = 1 << 30; // 0.5 in Q31.
    EXPECT_EQ(fredOutput(0, kHalf, 0, 0, true, 1000), 500);
    EXPECT_EQ(fredOutput(0, kHalf, 0, 3, true, -1000), -4000);
    // h = 2^22: h * h >> 23 = 2^21, half of it 2^20.
    EXPECT_EQ(fredOutput(0, 0, kHalf, 0, true, 1 << 22), 1 << 20);
    EXPECT_EQ(fredOutput(17, kHalf, 0, 0, true, 1000), 517);
    EXPECT_EQ(fredOutput(-17, kHalf, kHalf, 5, false, 1000), -17);
    EXPECT_EQ(fredOutput(0, std::numeric_limits<std::int32_t>::min(), 0, 31, true, -8'388'608),
              (std::int64_t{1} << 47) - 1);
}

} // namespace
