// SPDX-License-Identifier: Apache-2.0
// The ramp: where it is after which time, up and down.
#include "at/ATRamp.h"

#include "support/LogCapture.h"

#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::line;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using testing::ElementsAre;
using namespace std::chrono_literals;

constexpr double kKelvinAMinute = 1.6666666666666667e-05; // K per millisecond

TEST(ATRamp, RisesByOneKelvinAMinute) {
    ATRamp ramp(kKelvinAMinute);
    ramp.reset(300.0, 310.0);
    EXPECT_EQ(ramp.tick(0ms), 300.0);
    EXPECT_NEAR(ramp.tick(60000ms), 301.0, 1e-9);
    EXPECT_NEAR(ramp.tick(30000ms), 301.5, 1e-9); // 90 s
}

TEST(ATRamp, FallsByOneKelvinAMinute) {
    ATRamp ramp(kKelvinAMinute);
    ramp.reset(350.0, 340.0);
    EXPECT_EQ(ramp.tick(0ms), 350.0);
    EXPECT_NEAR(ramp.tick(60000ms), 349.0, 1e-9);
}

TEST(ATRamp, StopsAtItsEndToTheLetter) {
    ATRamp ramp(kKelvinAMinute);
    ramp.reset(300.0, 301.1);
    EXPECT_LT(ramp.tick(65000ms), 301.1); // 300 K + 65/60 K = 301.083 K
    EXPECT_EQ(ramp.tick(2000ms), 301.1);
    EXPECT_EQ(ramp.tick(3600000ms), 301.1);
    ramp.reset(301.1, 300.0);
    EXPECT_GT(ramp.tick(65000ms), 300.0);
    EXPECT_EQ(ramp.tick(2000ms), 300.0);
}

TEST(ATRamp, IsOverAtOnceWhereItStartsAtItsEnd) {
    LogCapture log;
    ATRamp ramp(kKelvinAMinute);
    ramp.reset(310.0, 310.0);
    EXPECT_EQ(ramp.tick(0ms), 310.0);
    EXPECT_EQ(ramp.tick(60000ms), 310.0);
    EXPECT_TRUE(log.has(Severity::Info, "reset(from = 310.000000, to = 310.000000, mSlopeSign = 1)"));
}

TEST(ATRamp, ReckonsFromItsStartSoThatRoundingDoesNotAddUp) {
    ATRamp inSteps(kKelvinAMinute);
    ATRamp atOnce(kKelvinAMinute);
    inSteps.reset(273.15, 400.0);
    atOnce.reset(273.15, 400.0);
    double value = 0.0;
    for (int step = 0; step < 100'000; ++step) {
        value = inSteps.tick(7ms);
    }
    EXPECT_EQ(value, atOnce.tick(700'000ms));
}

TEST(ATRamp, StartsAnewWithItsReset) {
    ATRamp ramp(kKelvinAMinute);
    ramp.reset(300.0, 310.0);
    ramp.tick(120000ms);
    ramp.reset(320.0, 310.0);
    EXPECT_EQ(ramp.tick(0ms), 320.0);
}

TEST(ATRamp, SaysWhereItGoes) {
    LogCapture log;
    ATRamp ramp(kKelvinAMinute);
    ramp.reset(350.0, 340.0);
    ramp.tick(60000ms);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(line(Severity::Info, "reset(from = 350.000000, to = 340.000000, mSlopeSign = -1)"),
                    line(Severity::Trace, "ramp tick(60000 ms): sets target temperature to 349.000000")));
    EXPECT_EQ(log.lines().front().name, "ATRamp");
    EXPECT_EQ(log.lines().front().category, "Temperature");
}

} // namespace
