// SPDX-License-Identifier: Apache-2.0
// The slope at the zero crossing, against sums done by hand.
#include "lock/LockSlope0Crossing.h"

#include "support/ExpectThrow.h"
#include "support/LogCapture.h"

#include <cmath>
#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::expectThrow;
using libfieldwarden::test::line;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using testing::ElementsAre;

class LockSlope0CrossingTest : public testing::Test {
protected:
    /// The slope of a spectrum that is given with 0 Hz in its middle.
    /// @param aCount  Number of points.
    /// @param aAt     The imaginary part at a place, counted from the lowest frequency.
    double slopeOf(std::size_t aCount, std::function<int(int)> const& aAt) {
        auto data = std::make_shared<std::vector<int>>(aCount);
        for (std::size_t place = 0; place < aCount; ++place) {
            (*data)[(place + aCount / 2) % aCount] = aAt(static_cast<int>(place));
        }
        return mSlope.slopeAt0Crossing(data);
    }

    LogCapture mLog;
    LockSlope0Crossing mSlope;
};

} // namespace

TEST_F(LockSlope0CrossingTest, FitsALineByLeastSquares) {
    // x = 1, 2, 3 with y = 1, 2, 2: Sx = 6, Sy = 5, Sxx = 14, Sxy = 1 + 4 + 6 = 11
    // (3 * 11 - 6 * 5) / (3 * 14 - 6 * 6) = 3 / 6
    EXPECT_EQ(mSlope.linearRegressionSlope({99, 1, 2, 2, 99}, 1, 3), 0.5);
    EXPECT_THAT(mLog.lines(),
                ElementsAre(line(Severity::Trace, "linearRegressionSlope: begin = 1 and count = 3")));
    EXPECT_EQ(mLog.lines().front().name, "LockSlope0Crossing");
    EXPECT_EQ(mLog.lines().front().category, "Lock");
}

TEST_F(LockSlope0CrossingTest, KeepsItsPrecisionFarFromTheOrigin) {
    std::vector<int> data(65536);
    for (std::size_t place = 0; place < data.size(); ++place) {
        data[place] = -18000 * (static_cast<int>(place) - 32768);
    }
    EXPECT_EQ(mSlope.linearRegressionSlope(data, 65504, 32), -18000.0);
}

TEST_F(LockSlope0CrossingTest, FitsNoLineThroughNothing) {
    EXPECT_TRUE(std::isnan(mSlope.linearRegressionSlope({1, 2, 3}, 0, 0))); // 0 / 0
}

TEST_F(LockSlope0CrossingTest, RefusesPointsOutsideOfTheData) {
    EXPECT_THROW((void)mSlope.linearRegressionSlope({1, 2, 3}, 2, 2), std::out_of_range);
    EXPECT_THROW((void)mSlope.linearRegressionSlope({1, 2, 3}, 0xFFFFFFF0, 32), std::out_of_range);
}

TEST_F(LockSlope0CrossingTest, MeasuresTheSlopeOf32Points) {
    // -160, -150 ... 150: the crossing is the point that is 0, place 16, and the fit takes places 0 to 31
    EXPECT_EQ(slopeOf(32, [](int aPlace) { return 10 * (aPlace - 16); }), 10.0);
    EXPECT_THAT(
        mLog.lines(),
        ElementsAre(line(Severity::Trace, "Min and max items are: -160 and 150"),
                    line(Severity::Debug,
                         "Zero crossing found at index 16, value = 0, data[zc-1] = -10, data[zc+1] = 10"),
                    line(Severity::Trace, "linearRegressionSlope: begin = 0 and count = 32")));
}

TEST_F(LockSlope0CrossingTest, MeasuresAFallingSlope) {
    // 1000 less 3 for each place from 48: the first point at or below 0 is place 48
    EXPECT_EQ(slopeOf(96, [](int aPlace) { return -3 * (aPlace - 48); }), -3.0);
}

TEST_F(LockSlope0CrossingTest, FindsACrossingThatPassesBetweenTwoPoints) {
    // -3, -1, 1, 3 around place 40: the crossing is the point behind the change of sign
    EXPECT_EQ(slopeOf(80, [](int aPlace) { return 2 * (aPlace - 40) + 1; }), 2.0);
    EXPECT_TRUE(mLog.has(Severity::Debug,
                         "Zero crossing found at index 40, value = 1, data[zc-1] = -1, data[zc+1] = 3"));
}

TEST_F(LockSlope0CrossingTest, TurnsAnOddNumberOfPointsByItsLowerHalf) {
    // 33 points: place 16 of the data, (33 - 1) / 2, comes first, and 0 Hz to place 17
    auto data = std::make_shared<std::vector<int>>();
    for (int place = 0; place < 17; ++place) {
        data->push_back(5 * place + 5); // 5 to 85, from 0 Hz upward; the last is turned to the front
    }
    (*data)[16] = -85;
    for (int place = 0; place < 16; ++place) {
        data->push_back(5 * place - 80); // -80 to -5
    }
    // turned: -85, -80 ... -5, 5 ... 80: the crossing is place 17 of 33, the fit takes places 1 to 32.
    // About their middle, 16.5, the places are -15.5 to 15.5 and the points are 5 (x - 0.5) for the lower 16
    // and 5 (x + 0.5) for the upper 16. Sum of x^2 = 2728, sum of |x| = 256.
    // slope = 5 (2728 + 0.5 * 256) / 2728 = 5.23460...
    EXPECT_NEAR(mSlope.slopeAt0Crossing(data), 5.0 * (2728.0 + 128.0) / 2728.0, 1e-9);
    EXPECT_TRUE(mLog.has(Severity::Debug,
                         "Zero crossing found at index 17, value = 5, data[zc-1] = -5, data[zc+1] = 10"));
}

TEST_F(LockSlope0CrossingTest, LooksBetweenTheFirstLeastAndTheLastGreatestPoint) {
    // Two equal valleys, at 20 and 60, and two equal peaks, at 40 and 80. From the first valley to the last
    // peak the first crossing is on the way from 20 to 40, at place 30.
    auto const zigzag = [](int aPlace) {
        int const phase = (aPlace + 20) % 40; // 0 at the valleys, 20 at the peaks
        return phase <= 20 ? phase - 10 : 30 - phase;
    };
    EXPECT_GT(slopeOf(100, zigzag), 0.0);
    EXPECT_TRUE(mLog.has(Severity::Debug,
                         "Zero crossing found at index 30, value = 0, data[zc-1] = -1, data[zc+1] = 1"));
}

TEST_F(LockSlope0CrossingTest, LooksFromThePeakWhereItStandsFirst) {
    // The peak at 20 and the valley at 60; crossings outside of the two do not count.
    auto const wave = [](int aPlace) {
        if (aPlace < 10) {
            return aPlace % 2 == 0 ? 1 : -1;
        }
        return aPlace <= 20 ? 2 * aPlace - 20 : (aPlace <= 60 ? 40 - aPlace : aPlace - 80);
    };
    // At the places 24 to 55 the wave is 40 - x, the crossing is where it reaches 0
    EXPECT_EQ(slopeOf(100, wave), -1.0);
    EXPECT_TRUE(mLog.has(Severity::Debug,
                         "Zero crossing found at index 40, value = 0, data[zc-1] = 1, data[zc+1] = -1"));
}

TEST_F(LockSlope0CrossingTest, TakesAPointAtZeroForACrossingWhenItIsReached) {
    // -2, -1, 0, 0, 0, 1, 2: reached at place 30, and not a second time when it is left
    EXPECT_GT(
        slopeOf(64, [](int aPlace) { return aPlace < 30 ? aPlace - 30 : (aPlace > 32 ? aPlace - 32 : 0); }),
        0.0);
    EXPECT_TRUE(mLog.has(Severity::Debug,
                         "Zero crossing found at index 30, value = 0, data[zc-1] = -1, data[zc+1] = 0"));
}

TEST_F(LockSlope0CrossingTest, NeverTakesLeavingZeroForACrossing) {
    for (int const step : {1, -1}) {
        mLog.clear();
        expectThrow<std::invalid_argument>(
            [&] { slopeOf(64, [&](int aPlace) { return aPlace < 30 ? 0 : step * (aPlace - 29); }); },
            "Internal error when processing data");
        EXPECT_EQ(mLog.count(Severity::Error, "No zero crossing found between min and max elements"), 1U);
    }
}

TEST_F(LockSlope0CrossingTest, FindsNoCrossingInALevelSpectrum) {
    for (int const level : {-1, 0, 1}) {
        EXPECT_THROW(slopeOf(64, [&](int) { return level; }), std::invalid_argument);
    }
}

TEST_F(LockSlope0CrossingTest, WantsAtLeast32Points) {
    expectThrow<std::invalid_argument>([&] { slopeOf(31, [](int aPlace) { return aPlace - 16; }); },
                                       "Not enough data to process");
    EXPECT_THAT(mLog.lines(),
                ElementsAre(line(Severity::Error, "slopeAt0Crossing: need at least 32 points but got 31")));
    EXPECT_THROW(slopeOf(0, [](int) { return 0; }), std::invalid_argument);
}

TEST_F(LockSlope0CrossingTest, RefusesACrossingNearerThan16PointsToAnEnd) {
    EXPECT_THROW(slopeOf(64, [](int aPlace) { return aPlace - 15; }), std::out_of_range); // places -1 to 30
    EXPECT_NO_THROW(slopeOf(64, [](int aPlace) { return aPlace - 16; }));                 // places 0 to 31
    EXPECT_NO_THROW(slopeOf(64, [](int aPlace) { return aPlace - 48; }));                 // places 32 to 63
    EXPECT_THROW(slopeOf(64, [](int aPlace) { return aPlace - 49; }), std::out_of_range); // places 33 to 64
    EXPECT_THROW(slopeOf(64, [](int aPlace) { return aPlace - 63; }), std::out_of_range); // the last place
}
