// SPDX-License-Identifier: Apache-2.0
// The conversion that has an answer for every double.
#include "shim/SaturatedToInt32.h"

#include <limits>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::saturatedToInt32;

TEST(SaturatedToInt32, TruncatesTowardZero) {
    EXPECT_EQ(saturatedToInt32(1.99), 1);
    EXPECT_EQ(saturatedToInt32(-1.99), -1);
    EXPECT_EQ(saturatedToInt32(2147483646.9), 2147483646);
}

TEST(SaturatedToInt32, StopsAtTheEndsOfTheRange) {
    EXPECT_EQ(saturatedToInt32(2147483648.0), 2147483647);
    EXPECT_EQ(saturatedToInt32(-2147483649.0), -2147483647 - 1);
    EXPECT_EQ(saturatedToInt32(1e300), 2147483647);
    EXPECT_EQ(saturatedToInt32(-std::numeric_limits<double>::infinity()), -2147483647 - 1);
}

TEST(SaturatedToInt32, TakesNanForZero) {
    EXPECT_EQ(saturatedToInt32(std::numeric_limits<double>::quiet_NaN()), 0);
}

} // namespace
