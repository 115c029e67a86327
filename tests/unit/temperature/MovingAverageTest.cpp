// SPDX-License-Identifier: Apache-2.0
// The mean over a sensor's latest readings, with numbers worked out by hand.
#include "temperature/MovingAverage.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace {

TEST(MovingAverage, IsZeroBeforeTheFirstReading) {
    EXPECT_EQ(MovingAverage().mean(), 0.0);
}

TEST(MovingAverage, DividesByTheReadingsThatAreThere) {
    MovingAverage average;
    EXPECT_DOUBLE_EQ(average.push(3.0), 3.0);
    EXPECT_DOUBLE_EQ(average.push(6.0), 4.5); // 9 / 2
    EXPECT_DOUBLE_EQ(average.push(0.0), 3.0); // 9 / 3
    EXPECT_DOUBLE_EQ(average.mean(), 3.0);
}

TEST(MovingAverage, ForgetsTheOldestOfMoreThanAHundredReadings) {
    MovingAverage average;
    average.push(100.0);
    for (int reading = 0; reading < 99; ++reading) {
        average.push(0.0);
    }
    EXPECT_DOUBLE_EQ(average.mean(), 1.0);     // 100 / 100
    EXPECT_DOUBLE_EQ(average.push(50.0), 0.5); // the 100 is gone: 50 / 100
}

TEST(MovingAverage, IsANumberAgainOnceTheReadingThatWasNoneIsGone) {
    MovingAverage average;
    average.push(std::numeric_limits<double>::quiet_NaN());
    for (int reading = 0; reading < 99; ++reading) {
        average.push(298.15);
    }
    EXPECT_TRUE(std::isnan(average.mean()));
    EXPECT_NEAR(average.push(298.15), 298.15, 1e-9);
}

} // namespace
