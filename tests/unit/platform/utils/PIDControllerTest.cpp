// SPDX-License-Identifier: Apache-2.0
// The software PID against its difference equation, worked by hand.
#include "support/HandClockScope.h"

#include <velmor/kepla/utils/PIDController.h>

#include <cmath>
#include <stdexcept>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::test::HandClockScope;
using velmor::kepla::utils::PIDController;

TEST(PIDController, GivesOnlyTheProportionalTermAtFirst) {
    HandClockScope const clock;
    PIDController pid(50.0, 500.0, 3.0, -1e9, 1e9);
    EXPECT_DOUBLE_EQ(pid.calculate(0.0, -12.0), 600.0); // 50 * 12
}

TEST(PIDController, AddsErrorTimesSecondsToTheIntegral) {
    HandClockScope const clock;
    PIDController pid(2.0, 4.0, 0.0, -1e9, 1e9);
    pid.calculate(10.0, 7.0);
    clock->advance(500ms);
    EXPECT_DOUBLE_EQ(pid.calculate(10.0, 8.0), 8.0); // 2*2 + 4*2*0.5
    clock->advance(250ms);
    EXPECT_DOUBLE_EQ(pid.calculate(10.0, 9.0), 7.0); // 2*1 + (4 + 4*1*0.25)
}

TEST(PIDController, AddsTheSlopeOfTheError) {
    HandClockScope const clock;
    PIDController pid(0.0, 0.0, 3.0, -1e9, 1e9);
    pid.calculate(0.0, 5.0);
    clock->advance(2s);
    EXPECT_DOUBLE_EQ(pid.calculate(0.0, 9.0), -6.0); // 3 * (-9 + 5) / 2
}

TEST(PIDController, KeepsTheOutputWithinTheLimits) {
    HandClockScope const clock;
    PIDController pid(100.0, 0.0, 0.0, -8388608.0, 8388607.0);
    EXPECT_DOUBLE_EQ(pid.calculate(1e6, 0.0), 8388607.0);
    EXPECT_DOUBLE_EQ(pid.calculate(-1e6, 0.0), -8388608.0);
}

TEST(PIDController, DoesNotWindUpItsIntegral) {
    HandClockScope const clock;
    PIDController pid(0.0, 1.0, 0.0, -10.0, 10.0);
    pid.calculate(1.0, 0.0);
    clock->advance(1h);
    EXPECT_DOUBLE_EQ(pid.calculate(1.0, 0.0), 10.0);
    clock->advance(4s);
    EXPECT_DOUBLE_EQ(pid.calculate(0.0, 1.0), 6.0); // from the limit: 10 - 1*4
}

TEST(PIDController, ForgetsAllWhenReset) {
    HandClockScope const clock;
    PIDController pid(1.0, 1.0, 1.0, -100.0, 100.0);
    pid.calculate(5.0, 0.0);
    clock->advance(1s);
    pid.calculate(5.0, 0.0);
    pid.reset();
    clock->advance(1s);
    EXPECT_DOUBLE_EQ(pid.calculate(5.0, 0.0), 5.0);
}

TEST(PIDController, TakesNoDerivativeWithoutTime) {
    HandClockScope const clock;
    PIDController pid(1.0, 1.0, 1.0, -100.0, 100.0);
    pid.calculate(5.0, 0.0);
    EXPECT_DOUBLE_EQ(pid.calculate(7.0, 0.0), 7.0);
}

TEST(PIDController, KeepsItsOutputForAMeasurementThatIsNotANumber) {
    HandClockScope const clock;
    PIDController pid(1.0, 0.0, 0.0, -100.0, 100.0);
    pid.calculate(5.0, 0.0);
    EXPECT_DOUBLE_EQ(pid.calculate(5.0, std::nan("")), 5.0);
    EXPECT_DOUBLE_EQ(pid.calculate(6.0, 0.0), 6.0);
}

TEST(PIDController, RefusesLimitsInTheWrongOrder) {
    EXPECT_THROW(PIDController(1.0, 0.0, 0.0, 1.0, -1.0), std::invalid_argument);
}

} // namespace
