// SPDX-License-Identifier: Apache-2.0
// The way of the stability from not yet stable over stable to the latch, and its news.
#include "temperature/TemperatureStabilityMgr.h"

#include "temperature/TemperatureListenerSync.h"

#include "support/FakeTemperatureListener.h"

#include <memory>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::FakeTemperatureListener;
using testing::ElementsAre;
using testing::IsEmpty;

class TemperatureStabilityMgrTest : public testing::Test {
protected:
    TemperatureStabilityMgrTest() { mSync->setListener(&mListener); }

    FakeTemperatureListener mListener;
    std::shared_ptr<TemperatureListenerSync> mSync = std::make_shared<TemperatureListenerSync>(0.001, 0.1);
    TemperatureStabilityMgr mStability{mSync};
};

TEST_F(TemperatureStabilityMgrTest, StartsNotYetStable) {
    EXPECT_EQ(mStability.current(), TemperatureStability::NotYetStable);
    EXPECT_THAT(mListener.takeCalls(), IsEmpty()); // which everyone knows
}

TEST_F(TemperatureStabilityMgrTest, TellsNotYetStableWhenItIsMade) {
    mSync->probeTemperatureStabilityChanged(TemperatureStability::Stable); // from another one before
    mListener.takeCalls();
    TemperatureStabilityMgr const next(mSync);
    EXPECT_THAT(mListener.takeCalls(), ElementsAre("probeTemperatureStabilityChanged(0)"));
}

TEST_F(TemperatureStabilityMgrTest, StaysNotYetStableWhileItIsNot) {
    mStability.push(false);
    mStability.push(false);
    EXPECT_EQ(mStability.current(), TemperatureStability::NotYetStable);
    EXPECT_THAT(mListener.takeCalls(), IsEmpty());
}

TEST_F(TemperatureStabilityMgrTest, BecomesStableWithOneNotification) {
    mStability.push(false);
    mStability.push(true);
    EXPECT_EQ(mStability.current(), TemperatureStability::Stable);
    EXPECT_THAT(mListener.takeCalls(), ElementsAre("probeTemperatureStabilityChanged(2)"));
    mStability.push(true);
    EXPECT_EQ(mStability.current(), TemperatureStability::Stable);
    EXPECT_THAT(mListener.takeCalls(), IsEmpty());
}

TEST_F(TemperatureStabilityMgrTest, LatchesThatItHasLeftTheBand) {
    mStability.push(true);
    mListener.takeCalls();
    mStability.push(false);
    EXPECT_EQ(mStability.current(), TemperatureStability::LeftBand);
    EXPECT_THAT(mListener.takeCalls(), ElementsAre("probeTemperatureStabilityChanged(1)"));
    mStability.push(true);
    mStability.push(false);
    EXPECT_EQ(mStability.current(), TemperatureStability::LeftBand);
    EXPECT_THAT(mListener.takeCalls(), IsEmpty());
}

TEST_F(TemperatureStabilityMgrTest, BeginsAgainFromEveryStatus) {
    mStability.push(true);
    mStability.push(false);
    mListener.takeCalls();
    mStability.reset();
    EXPECT_EQ(mStability.current(), TemperatureStability::NotYetStable);
    mStability.push(true);
    mStability.reset();
    mStability.push(true);
    EXPECT_EQ(mStability.current(), TemperatureStability::Stable);
    EXPECT_THAT(mListener.takeCalls(),
                ElementsAre("probeTemperatureStabilityChanged(0)", "probeTemperatureStabilityChanged(2)",
                            "probeTemperatureStabilityChanged(0)", "probeTemperatureStabilityChanged(2)"));
}

TEST_F(TemperatureStabilityMgrTest, TellsAResetEvenIfItWasNotYetStable) {
    mSync->probeTemperatureStabilityChanged(TemperatureStability::LeftBand); // as another would tell it
    mListener.takeCalls();
    mStability.reset();
    EXPECT_THAT(mListener.takeCalls(), ElementsAre("probeTemperatureStabilityChanged(0)"));
}

TEST_F(TemperatureStabilityMgrTest, LetsTheListenerAskForTheStatus) {
    mListener.onCall([&] { EXPECT_EQ(mStability.current(), TemperatureStability::Stable); });
    mStability.push(true);
    EXPECT_THAT(mListener.takeCalls(), ElementsAre("probeTemperatureStabilityChanged(2)"));
}

TEST_F(TemperatureStabilityMgrTest, TellsTheListenerItsChangesInTheirOrder) {
    std::thread other([&] {
        for (int step = 0; step < 200; ++step) {
            mStability.reset();
        }
    });
    for (int step = 0; step < 200; ++step) {
        mStability.push(step % 2 == 0);
    }
    other.join();
    EXPECT_EQ(mSync->temperatureStability(), mStability.current());
}

} // namespace
