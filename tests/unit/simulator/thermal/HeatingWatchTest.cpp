// SPDX-License-Identifier: Apache-2.0
// What counts as heating without gas, and how it is kept.
#include "simulator/thermal/HeatingWatch.h"

#include <chrono>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::sim::HeatingWatch;
using namespace std::chrono_literals;

class HeatingWatchTest : public testing::Test {
protected:
    void at(HeatingWatch::Duration aTime, bool aHeats, bool aGas, double aCelsius = 25.0) {
        mWatch.update(HeatingWatch::TimePoint(aTime), aHeats, aGas, aCelsius);
    }

    HeatingWatch mWatch;
};

TEST_F(HeatingWatchTest, SeesNothingWrongInHeatingWithGasAndInColdWithout) {
    at(0s, false, false);
    at(1s, false, true);
    at(2s, true, true);
    at(3s, false, true);
    at(4s, false, false);
    EXPECT_EQ(mWatch.count(), 0U);
    EXPECT_EQ(mWatch.longest(), 0s);
    EXPECT_TRUE(mWatch.episodes().empty());
}

TEST_F(HeatingWatchTest, MeasuresFromTheLossOfGasToItsReturn) {
    at(0s, true, true);
    at(10s, true, false, 60.0);
    at(14s, true, false, 90.0);
    at(15s, true, true, 85.0);
    ASSERT_EQ(mWatch.episodes().size(), 1U);
    EXPECT_EQ(mWatch.episodes()[0].begin, HeatingWatch::TimePoint(10s));
    EXPECT_EQ(mWatch.episodes()[0].length, 5s);
    EXPECT_EQ(mWatch.episodes()[0].hottestCelsius, 90.0);
    EXPECT_EQ(mWatch.longest(), 5s);
}

TEST_F(HeatingWatchTest, TellsTheLongestOfSeveral) {
    at(0s, true, false);
    at(3s, false, false);
    at(10s, true, false);
    at(11s, true, true);
    EXPECT_EQ(mWatch.count(), 2U);
    EXPECT_EQ(mWatch.longest(), 3s);
}

TEST_F(HeatingWatchTest, RemembersTheHottestSpiralOfAllTime) {
    EXPECT_EQ(mWatch.hottestCelsius(), -273.15);
    at(0s, false, true, 40.0);
    at(1s, false, true, 200.0);
    at(2s, false, true, 30.0);
    EXPECT_EQ(mWatch.hottestCelsius(), 200.0);
}

TEST_F(HeatingWatchTest, KeepsTheFirstHundredAndCountsAll) {
    for (int second = 0; second < 240; second += 2) { // 120 episodes of a second
        at(std::chrono::seconds(second), true, false);
        at(std::chrono::seconds(second + 1), false, false);
    }
    EXPECT_EQ(mWatch.count(), 120U);
    ASSERT_EQ(mWatch.episodes().size(), HeatingWatch::kKept);
    EXPECT_EQ(mWatch.episodes().back().begin, HeatingWatch::TimePoint(198s));
    EXPECT_EQ(mWatch.episodes().back().length, 1s);
}

TEST_F(HeatingWatchTest, BeginsAnewWhatLastsWhenItForgets) {
    at(0s, true, false);
    at(9s, true, false);
    mWatch.reset();
    EXPECT_EQ(mWatch.count(), 0U);
    at(9s, true, false);
    at(10s, true, false);
    EXPECT_EQ(mWatch.count(), 1U);
    EXPECT_EQ(mWatch.longest(), 1s);
}

} // namespace
