// SPDX-License-Identifier: Apache-2.0
// Temperature conversions.
#include <velmor/units/Units.h>

#include <gtest/gtest.h>

namespace {

using velmor::units::kelvinToCelsius;
using velmor::units::milliCelsiusToKelvin;

TEST(Units, SubtractTheZeroOfTheCelsiusScale) {
    EXPECT_DOUBLE_EQ(kelvinToCelsius(310.0), 36.85); // 310 - 273.15
    EXPECT_DOUBLE_EQ(kelvinToCelsius(0.0), -273.15);
}

TEST(Units, TurnTheMilliDegreesOfTheBoardsIntoKelvin) {
    EXPECT_DOUBLE_EQ(milliCelsiusToKelvin(25000), 298.15); // 25 + 273.15
    EXPECT_DOUBLE_EQ(milliCelsiusToKelvin(-1), 273.149);   // -0.001 + 273.15
    EXPECT_DOUBLE_EQ(milliCelsiusToKelvin(-273150), 0.0);
}

} // namespace
