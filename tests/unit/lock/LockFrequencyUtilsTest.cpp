// SPDX-License-Identifier: Apache-2.0
// Conversions between frequencies, slices and register words.
#include "lock/LockFrequencyUtils.h"

#include "lock/LockParameters.h"

#include <cstdint>
#include <limits>
#include <memory>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

namespace {

std::shared_ptr<LockParametersInterface> parameters() {
    return std::make_shared<LockParameters>("/nonexistent/lock.config");
}

} // namespace

TEST(LockFrequencyUtils, MakesQ31WordsOfFredCoefficients) {
    EXPECT_EQ(LockFrequencyUtils::doubleToFredCoef(0.0), 0);
    EXPECT_EQ(LockFrequencyUtils::doubleToFredCoef(0.5), 1073741824);   // 2^30
    EXPECT_EQ(LockFrequencyUtils::doubleToFredCoef(-0.25), -536870912); // -2^29
    EXPECT_EQ(LockFrequencyUtils::doubleToFredCoef(-1.0), -2147483647 - 1);
    // 1.9 / 2^31 is 1.9 counts and -1.9 / 2^31 is -1.9 counts: cut toward zero
    EXPECT_EQ(LockFrequencyUtils::doubleToFredCoef(1.9 / 2147483648.0), 1);
    EXPECT_EQ(LockFrequencyUtils::doubleToFredCoef(-1.9 / 2147483648.0), -1);
}

TEST(LockFrequencyUtils, StopsFredCoefficientsAtTheEndsOfTheirWord) {
    EXPECT_EQ(LockFrequencyUtils::doubleToFredCoef(1.0), 0x7FFFFFFF);
    EXPECT_EQ(LockFrequencyUtils::doubleToFredCoef(1e300), 0x7FFFFFFF);
    EXPECT_EQ(LockFrequencyUtils::doubleToFredCoef(-1.0000001), -2147483647 - 1);
    EXPECT_EQ(LockFrequencyUtils::doubleToFredCoef(-std::numeric_limits<double>::infinity()),
              -2147483647 - 1);
    EXPECT_EQ(LockFrequencyUtils::doubleToFredCoef(std::numeric_limits<double>::quiet_NaN()), 0);
}

TEST(LockFrequencyUtils, KnowsTheWidthOfASlice) {
    // 68571428 Hz / (2048 * 65536) = 68571428 / 134217728 = 0.510897...
    EXPECT_NEAR(LockFrequencyUtils::fftMaxSliceToHertz(1, parameters()), 0.51090, 0.000005);
    EXPECT_EQ(LockFrequencyUtils::fftMaxSliceToHertz(0, parameters()), 0.0);
    // 32768 slices are half the decimated rate: 68571428 / 2048 / 2 = 16741.0712890625 Hz
    EXPECT_DOUBLE_EQ(LockFrequencyUtils::fftMaxSliceToHertz(32768, parameters()), 16741.0712890625);
}

TEST(LockFrequencyUtils, AddsTheSynthesisersOffset) {
    EXPECT_EQ(LockFrequencyUtils::desiredToLockDDS(0.0), 17142857.0);
    EXPECT_EQ(LockFrequencyUtils::desiredToLockDDS(75000000.0), 92142857.0);
}

TEST(LockFrequencyUtils, GoesFrom1HTo19FByTheFactor) {
    // 0.9407841 * 80000000 = 75262728
    EXPECT_DOUBLE_EQ(LockFrequencyUtils::freq1Hto19F(80000000.0, parameters()), 75262728.0);
    EXPECT_DOUBLE_EQ(LockFrequencyUtils::freq19Fto1H(75262728.0, parameters()), 80000000.0);
}

RC_GTEST_PROP(LockFrequencyUtilsProperties, ComesBackFrom19F, (std::int32_t aTenthsOfHertz)) {
    double const frequency = 80000000.0 + aTenthsOfHertz / 10.0;
    auto const with = parameters();
    double const back =
        LockFrequencyUtils::freq19Fto1H(LockFrequencyUtils::freq1Hto19F(frequency, with), with);
    RC_ASSERT(std::abs(back - frequency) < 1e-7); // two roundings at 2^28 Hz: 2^-24 Hz
}
