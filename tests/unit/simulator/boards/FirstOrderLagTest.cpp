// SPDX-License-Identifier: Apache-2.0
// The step response against the textbook.
#include "simulator/boards/FirstOrderLag.h"

#include <chrono>
#include <stdexcept>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::FirstOrderLag;
using namespace std::chrono_literals;

FirstOrderLag::TimePoint const kStart{1h};

double secondsFromStart(FirstOrderLag::TimePoint aTime) {
    return std::chrono::duration<double>(aTime - kStart).count();
}

TEST(FirstOrderLag, RestsWhereItStarts) {
    FirstOrderLag const lag(2s, 5.0);
    EXPECT_DOUBLE_EQ(lag.value(kStart), 5.0);
    EXPECT_DOUBLE_EQ(lag.value(kStart + 100h), 5.0);
    EXPECT_DOUBLE_EQ(lag.target(), 5.0);
}

TEST(FirstOrderLag, CoversTheShareOfAStepThatTheExponentialSays) {
    FirstOrderLag lag(2s, 0.0);
    lag.setTarget(100.0, kStart);
    EXPECT_DOUBLE_EQ(lag.value(kStart), 0.0);
    EXPECT_NEAR(lag.value(kStart + 2s), 63.2121, 1e-4);  // 100 (1 - e^-1)
    EXPECT_NEAR(lag.value(kStart + 4s), 86.4665, 1e-4);  // 100 (1 - e^-2)
    EXPECT_NEAR(lag.value(kStart + 10s), 99.3262, 1e-4); // 100 (1 - e^-5)
}

TEST(FirstOrderLag, GoesOnFromWhereItIsWhenTheTargetChanges) {
    FirstOrderLag lag(2s, 0.0);
    lag.setTarget(100.0, kStart);
    lag.setTarget(0.0, kStart + 2s);
    EXPECT_NEAR(lag.value(kStart + 2s), 63.2121, 1e-4);
    EXPECT_NEAR(lag.value(kStart + 4s), 23.2544, 1e-4); // 63.2121 e^-1
}

TEST(FirstOrderLag, TellsWhenItIsNearItsTarget) {
    FirstOrderLag lag(2s, 0.0);
    lag.setTarget(100.0, kStart);
    EXPECT_NEAR(secondsFromStart(lag.settled(1.0)), 9.21034, 1e-5); // 2 s ln(100/1)
    EXPECT_EQ(lag.settled(100.0), kStart);
}

TEST(FirstOrderLag, TellsWhenItPassesALevelOnItsWay) {
    FirstOrderLag lag(2s, 0.0);
    lag.setTarget(100.0, kStart);
    auto const time = lag.passes(80.0, kStart);
    ASSERT_TRUE(time.has_value());
    EXPECT_NEAR(secondsFromStart(*time), 3.21888, 1e-5); // 2 s ln(100/20)
    EXPECT_NEAR(lag.value(*time), 80.0, 1e-6);
    EXPECT_FALSE(lag.passes(80.0, kStart + 4s).has_value());
    EXPECT_FALSE(lag.passes(120.0, kStart).has_value());
    EXPECT_FALSE(lag.passes(-1.0, kStart).has_value());
}

TEST(FirstOrderLag, TellsWhenItPassesALevelDownwards) {
    FirstOrderLag lag(2s, 100.0);
    lag.setTarget(0.0, kStart);
    auto const time = lag.passes(50.0, kStart + 1s);
    ASSERT_TRUE(time.has_value());
    EXPECT_NEAR(secondsFromStart(*time), 1.38629, 1e-5); // 2 s ln 2
}

TEST(FirstOrderLag, RefusesATimeConstantThatIsNone) {
    EXPECT_THROW(FirstOrderLag(0s, 1.0), std::invalid_argument);
}

} // namespace
