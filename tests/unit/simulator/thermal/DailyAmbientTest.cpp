// SPDX-License-Identifier: Apache-2.0
// The room's air over a day.
#include "simulator/thermal/DailyAmbient.h"

#include <chrono>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::sim::DailyAmbient;
using namespace std::chrono_literals;

TEST(DailyAmbient, BeginsAtTheMeanAndIsWarmestAfterAQuarterOfADay) {
    DailyAmbient const room{.meanCelsius = 23.0, .swingKelvin = 1.5};
    EXPECT_NEAR(room.celsius(0s), 23.0, 1e-9);
    EXPECT_NEAR(room.celsius(6h), 24.5, 1e-9);
    EXPECT_NEAR(room.celsius(12h), 23.0, 1e-9);
    EXPECT_NEAR(room.celsius(18h), 21.5, 1e-9);
    // A twelfth of a day: sin(30 degrees) = 0.5.
    EXPECT_NEAR(room.celsius(2h), 23.75, 1e-9);
}

TEST(DailyAmbient, IsTheSameOnTheNextDay) {
    DailyAmbient const room{};
    EXPECT_NEAR(room.celsius(5h), room.celsius(29h), 1e-9);
}

TEST(DailyAmbient, BeginsLaterByItsPhase) {
    DailyAmbient const room{.meanCelsius = 20.0, .swingKelvin = 2.0, .phase = 6h};
    EXPECT_NEAR(room.celsius(0s), 22.0, 1e-9);
}

TEST(DailyAmbient, StandsStillWithoutASwing) {
    DailyAmbient const room{.meanCelsius = 19.0, .swingKelvin = 0.0};
    EXPECT_EQ(room.celsius(7h), 19.0);
}

} // namespace
