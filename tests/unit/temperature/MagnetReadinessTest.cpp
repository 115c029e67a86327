// SPDX-License-Identifier: Apache-2.0
// When the magnet is ready, on a clock that is moved by hand, with numbers worked out by hand.
#include "unit/temperature/TemperatureServiceFixture.h"

#include <velmor/kepla/utils/PeriodicCallerManager.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemperatureServiceTest;
using std::chrono::seconds;
using ::testing::Contains;
using ::testing::Each;
using ::testing::IsEmpty;
using ::testing::Not;
using velmor::kepla::utils::ExecutionStrategy;
using velmor::kepla::utils::PeriodicCallerManager;

/// A service whose polls come by the hand-driven clock.
class MagnetReadinessTest : public TemperatureServiceTest {
protected:
    MagnetReadinessTest() {
        mService->setListener(&mNews);
        mClock->awaitWaiters(1);
        mLog.clear();
    }

    /// Lets so many periods of ten seconds pass, each with its poll and its judgement.
    void poll(int aTimes) {
        for (int time = 0; time < aTimes; ++time) {
            mClock->advance(seconds(10));
            mClock->awaitWaiters(1); // the worker is done and waits for the next period
        }
    }

    std::shared_ptr<PeriodicCallerManager> mCallers =
        std::make_shared<PeriodicCallerManager>(ExecutionStrategy::OneWorker, "");
    std::unique_ptr<TemperatureHardwareQ47> mService = makeService(mCallers);
};

TEST_F(MagnetReadinessTest, IsNotGivenInTheFirstFiveHundredSeconds) {
    poll(49); // 490 s
    EXPECT_FALSE(mService->isMagnetReady());
    mClock->advance(std::chrono::milliseconds(9999)); // 499.999 s
    EXPECT_FALSE(mService->isMagnetReady());
    EXPECT_THAT(mNews.take(), Not(Contains("magnetReady = true")));
    EXPECT_THAT(values("temperatureBoard/magnet/stable"), Each(0.0));
    EXPECT_TRUE(mLog.has(Severity::Trace,
                         "Magnet is not ready: temperature average comparator index 0 is out of range"));
    mClock->advance(std::chrono::milliseconds(1)); // 500 s
    mClock->awaitWaiters(1);
    EXPECT_TRUE(mService->isMagnetReady());
    EXPECT_THAT(mNews.take(), Contains("magnetReady = true"));
    EXPECT_TRUE(mLog.has(Severity::Info, "Magnet ready state changed from 0 to 1"));
    EXPECT_EQ(values("temperatureBoard/magnet/stable").size(), 50U);
    EXPECT_EQ(values("temperatureBoard/magnet/stable").back(), 1.0);
}

TEST_F(MagnetReadinessTest, IsToldOnce) {
    poll(60);
    EXPECT_EQ(mLog.count(Severity::Info, "Magnet ready state changed from 0 to 1"), 1U);
    auto const news = mNews.take();
    EXPECT_EQ(std::count(news.begin(), news.end(), "magnetReady = true"), 1);
}

// One sensor goes 0.053 K too high after 50 readings on target. After k readings its mean is off by
// 0.053 * k / (50 + k): 0.019875 K for k = 30 and 0.020284 K for k = 31, where the band of 0.02 K ends. Back
// on target the mean is off by 0.053 * 31 / (81 + j): 0.020037 K for j = 1 and 0.019795 K for j = 2. Fifty
// means in the band are there with j = 51.
TEST_F(MagnetReadinessTest, GoesWithOneSensorAndNeedsFiftyPollsToComeBack) {
    poll(50);
    mBoard->set("magnetTemperatureSensor(3)", 298.15 + 0.053);
    poll(30);
    EXPECT_TRUE(mService->isMagnetReady());
    mNews.take();
    poll(1);
    EXPECT_FALSE(mService->isMagnetReady());
    EXPECT_THAT(mNews.take(), Contains("magnetReady = false"));
    EXPECT_TRUE(mLog.has(Severity::Info, "Magnet ready state changed from 1 to 0"));
    EXPECT_TRUE(mLog.has(Severity::Trace,
                         "Magnet is not ready: temperature average comparator index 2 is out of range"));

    mBoard->set("magnetTemperatureSensor(3)", 298.15);
    poll(50);
    EXPECT_FALSE(mService->isMagnetReady());
    poll(1);
    EXPECT_TRUE(mService->isMagnetReady());

    auto const averages = values("temperatureBoard/magnet/temperatureMovingAverage/3");
    ASSERT_EQ(averages.size(), 132U); // 50 + 31 + 51
    EXPECT_NEAR(averages[79], 298.15 + 0.053 * 30 / 80, 1e-9);
    EXPECT_NEAR(averages[80], 298.15 + 0.053 * 31 / 81, 1e-9);
    EXPECT_NEAR(averages[82], 298.15 + 0.053 * 31 / 83, 1e-9);
    EXPECT_NEAR(averages[131], 298.15 + 0.053 * 31 / 100, 1e-9); // the first 32 readings on target are gone
    auto const inSpec = values("temperatureBoard/magnet/temperatureInSpecs/3");
    EXPECT_EQ(inSpec[48], 0.0);
    EXPECT_EQ(inSpec[49], 1.0);
    EXPECT_EQ(inSpec[79], 1.0);
    EXPECT_EQ(inSpec[80], 0.0);
    EXPECT_EQ(inSpec[130], 0.0);
    EXPECT_EQ(inSpec[131], 1.0);
    auto const other = values("temperatureBoard/magnet/temperatureInSpecs/4");
    EXPECT_THAT(std::vector<double>(other.begin() + 49, other.end()), Each(1.0));
}

TEST_F(MagnetReadinessTest, NeedsAllSixSensors) {
    for (int sensor = 1; sensor <= 6; ++sensor) {
        SCOPED_TRACE(sensor);
        std::string const call = "magnetTemperatureSensor(" + std::to_string(sensor) + ")";
        poll(50);
        ASSERT_TRUE(mService->isMagnetReady());
        mBoard->set(call, 310.0);
        poll(1);
        EXPECT_FALSE(mService->isMagnetReady());
        EXPECT_TRUE(mLog.has(Severity::Trace, "Magnet is not ready: temperature average comparator index " +
                                                  std::to_string(sensor - 1) + " is out of range"));
        mBoard->set(call, 298.15);
        mLog.clear();
        poll(150); // the wrong reading has left the average, and its means the fifty
    }
}

TEST_F(MagnetReadinessTest, ComparesEverySensorWithTheTargetOfTheFirstHeater) {
    for (int id = 2; id <= 6; ++id) {
        mBoard->set("targetMagnetTemperature(" + std::to_string(id) + ")", 350.0);
    }
    mService = nullptr;
    mService = makeService(mCallers);
    mClock->awaitWaiters(1);
    poll(50);
    EXPECT_TRUE(mService->isMagnetReady());
}

TEST_F(MagnetReadinessTest, EndsAtTwoHundredthsOfAKelvin) {
    mBoard->set("magnetTemperatureSensor(1)", 298.15 + 0.0199);
    mBoard->set("magnetTemperatureSensor(2)", 298.15 - 0.0199);
    poll(50);
    EXPECT_TRUE(mService->isMagnetReady());
    mBoard->set("magnetTemperatureSensor(2)", 298.15 - 0.0301); // 0.0199 + 0.0102 / 51 = 0.0201
    poll(1);
    EXPECT_FALSE(mService->isMagnetReady());
}

TEST_F(MagnetReadinessTest, DoesNotCareForShimCoilsAndIsoBox) {
    mBoard->set("shimTemperature", 310.0);
    mBoard->set("isoBoxTemperature", 280.0);
    poll(50);
    EXPECT_TRUE(mService->isMagnetReady());
    EXPECT_THAT(values("temperatureBoard/shim/globalInSpec"), Each(0.0));
}

TEST_F(MagnetReadinessTest, ShowsWhetherTheShimCoilsAreInSpec) {
    poll(49);
    EXPECT_EQ(values("temperatureBoard/shim/globalInSpec").back(), 0.0);
    poll(1);
    EXPECT_EQ(values("temperatureBoard/shim/globalInSpec").back(), 1.0);
    mBoard->set("shimTemperature", 300.15);
    poll(1);
    EXPECT_EQ(values("temperatureBoard/shim/globalInSpec").back(), 0.0);
    // (50 * 298.15 + 300.15) / 51
    EXPECT_NEAR(values("temperatureBoard/shim/globalMovingAverage").back(), 298.15 + 2.0 / 51, 1e-9);
}

TEST_F(MagnetReadinessTest, PushesTheIsoBoxAsItIsRead) {
    poll(3);
    mBoard->set("isoBoxTemperature", 300.15);
    poll(1);
    EXPECT_EQ(values("temperatureBoard/isobox/globalMovingAverage").back(), 300.15);
}

TEST_F(MagnetReadinessTest, LogsTemperaturesThatMovedByAThousandth) {
    poll(1);
    EXPECT_TRUE(mLog.has(Severity::Trace, "Magnet temperature changed from 0 to 298.15"));
    EXPECT_TRUE(mLog.has(Severity::Trace, "Shim coil temperature changed from 0 to 298.15"));
    mLog.clear();
    mBoard->set("magnetTemperature", 298.1509);
    mBoard->set("shimTemperature", 298.1509);
    poll(1);
    for (CapturedLine const& line : mLog.linesOf("TemperatureHardwareQ47")) {
        EXPECT_EQ(line.text.find("changed from"), std::string::npos) << line.text;
    }
    mBoard->set("magnetTemperature", 298.2);
    mBoard->set("shimTemperature", 298.3);
    poll(1);
    EXPECT_TRUE(mLog.has(Severity::Trace, "Magnet temperature changed from 298.15 to 298.2"));
    EXPECT_TRUE(mLog.has(Severity::Trace, "Shim coil temperature changed from 298.15 to 298.3"));
}

TEST_F(MagnetReadinessTest, ReadsTheBoardInItsOrder) {
    mBoard->takeCalls();
    mLog.clear();
    poll(1);
    auto const calls = mBoard->takeCalls();
    ASSERT_EQ(calls.size(), 23U + 10U); // the proxy's poll comes first
    EXPECT_EQ(std::vector<std::string>(calls.begin() + 23, calls.end()),
              (std::vector<std::string>{"magnetTemperatureSensor(1)", "magnetTemperatureSensor(2)",
                                        "magnetTemperatureSensor(3)", "magnetTemperatureSensor(4)",
                                        "magnetTemperatureSensor(5)", "magnetTemperatureSensor(6)",
                                        "magnetTemperature()", "shimTemperature()",
                                        "shimTargetTemperature(1, false)", "isoBoxTemperature()"}));
    auto const lines = mLog.linesOf("TemperatureHardwareQ47");
    EXPECT_EQ(lines.front(), (CapturedLine{Severity::Trace, "+readAndUpdateStability()", {}, {}}));
    EXPECT_EQ(lines.back(), (CapturedLine{Severity::Trace, "-readAndUpdateStability", {}, {}}));
    EXPECT_TRUE(mLog.has(Severity::Trace, "TemperatureHardwareQ47::computeMagnetReadyState"));
}

/// Each single read that may fail, and the channel that then stays without a new sample.
TEST_F(MagnetReadinessTest, LosesOnlyTheSignalWhoseReadFails) {
    struct Failure {
        std::string call;
        std::string inLog;
        std::string channel;
    };
    std::vector<Failure> failures{
        {"magnetTemperature()", "magnetTemperature()", "temperatureBoard/magnet/temperature/global"},
        {"shimTemperature()", "shimTemperature()", "temperatureBoard/shim/globalMovingAverage"},
    };
    for (int sensor = 1; sensor <= 6; ++sensor) {
        std::string const number = std::to_string(sensor);
        failures.push_back({"magnetTemperatureSensor(" + number + ")", "magnetTemperatureSensor(id)",
                            "temperatureBoard/magnet/temperatureMovingAverage/" + number});
    }
    for (Failure const& failure : failures) {
        SCOPED_TRACE(failure.call);
        auto const before = values(failure.channel).size();
        auto const judgements = values("temperatureBoard/magnet/stable").size();
        mBoard->takeCalls();
        mBoard->fail(failure.call, "no answer");
        mLog.clear();
        poll(1);
        mBoard->mend(failure.call);
        // Without the coils' temperature their target is not asked for.
        EXPECT_EQ(mBoard->takeCalls().size(), failure.call == "shimTemperature()" ? 32U : 33U);
        EXPECT_EQ(values(failure.channel).size(), before);
        EXPECT_EQ(values("temperatureBoard/magnet/stable").size(), judgements + 1);
        EXPECT_THAT(mLog.linesUpTo(Severity::Error),
                    ::testing::ElementsAre(CapturedLine{
                        Severity::Error,
                        "readAndUpdateStability: " + failure.inLog + " failed with error no answer",
                        {},
                        {}}));
    }
}

TEST_F(MagnetReadinessTest, LosesOnlyTheIsoBoxWhenThatIsSilent) {
    mBoard->fail("isoBoxTemperature", "no answer");
    poll(50);
    EXPECT_TRUE(mService->isMagnetReady());
    EXPECT_THAT(values("temperatureBoard/isobox/globalMovingAverage"), IsEmpty());
    EXPECT_EQ(mLog.count(Severity::Error,
                         "readAndUpdateStability: isoBoxTemperature() failed with error no answer"),
              50U);
}

TEST_F(MagnetReadinessTest, NamesAFailureOfUnknownKind) {
    mBoard->onCall("shimTemperature", [] { throw 42; });
    poll(1);
    EXPECT_TRUE(
        mLog.has(Severity::Error, "readAndUpdateStability: shimTemperature() failed with unknown error"));
}

TEST_F(MagnetReadinessTest, IsLostForAReadingThatIsNoNumber) {
    poll(50);
    mBoard->set("magnetTemperatureSensor(5)", std::numeric_limits<double>::quiet_NaN());
    poll(1);
    EXPECT_FALSE(mService->isMagnetReady());
    mBoard->set("magnetTemperatureSensor(5)", 298.15);
    poll(149); // the mean is a number again with the 100th reading after, and 50 of those are needed
    EXPECT_TRUE(mService->isMagnetReady());
}

TEST_F(MagnetReadinessTest, IsNotFoundOutWithoutATarget) {
    mBoard->fail("targetMagnetTemperature(1)", "no answer");
    mService = nullptr;
    mService = makeService(mCallers);
    mClock->awaitWaiters(1);
    poll(50);
    EXPECT_FALSE(mService->isMagnetReady());
    mBoard->mend("targetMagnetTemperature(1)");
    poll(1); // the fifty means are there already
    EXPECT_TRUE(mService->isMagnetReady());
}

TEST_F(MagnetReadinessTest, EndsItsPollsWithTheService) {
    poll(1);
    mService = nullptr;
    mBoard->takeCalls();
    mClock->advance(seconds(60));
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
}

} // namespace
