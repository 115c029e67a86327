// SPDX-License-Identifier: Apache-2.0
// Which news of the temperatures reach the daemon, with which words in the log, and who may wait for them.
#include "temperature/TemperatureListenerSync.h"

#include "support/ExpectThrow.h"
#include "support/FakeTemperatureListener.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"

#include <array>
#include <chrono>
#include <future>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::expectThrow;
using libfieldwarden::test::FakeTemperatureListener;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::line;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Control = ProbeTemperatureControlStatus;
using Gas = ProbeTemperatureControlGasFlowStatus;
using Global = ProbeTemperatureGlobalStatus;

class TemperatureListenerSyncTest : public testing::Test {
protected:
    TemperatureListenerSyncTest() {
        mSync.setListener(&mListener);
        mLog.clear();
    }

    std::vector<std::string> calls() { return mListener.takeCalls(); }
    std::vector<CapturedLine> lines() {
        auto all = mLog.linesOf("TemperatureListenerSync");
        mLog.clear();
        return all;
    }

    HandClockScope mClock;
    LogCapture mLog;
    FakeTemperatureListener mListener;
    TemperatureListenerSync mSync{0.001, 0.1};
};

// -------------------------------------------------------------------------------------- significant or not

struct Quantity {
    char const* name;
    double threshold;
    void (TemperatureListenerInterface::*tell)(double);
    char const* logFormat; ///< Of fmt's own form.
};

using L = TemperatureListenerInterface;
constexpr std::array<Quantity, 7> kQuantities{{
    {"magnetTemperatureChanged", 0.001, &L::magnetTemperatureChanged,
     "magnetTemperatureChanged(temperature = {:f}K)"},
    {"coilTemperatureChanged", 0.001, &L::coilTemperatureChanged,
     "coilTemperatureChanged(temperature = {:f}K)"},
    // the threshold of flows and power, and no blank behind the equals sign
    {"probeTemperatureChanged", 0.1, &L::probeTemperatureChanged,
     "probeTemperatureChanged(currentTemperature ={:f}K)"},
    {"probeMeasuredGasFlowChanged", 0.1, &L::probeMeasuredGasFlowChanged,
     "probeMeasuredGasFlowChanged(literPerHour = {:f})"},
    {"probeTargetGasFlowForOperationChanged", 0.1, &L::probeTargetGasFlowForOperationChanged,
     "probeTargetGasFlowForOperationChanged(flowInLiterPerHour = {:f})"},
    {"probeTargetGasFlowForStandbyChanged", 0.1, &L::probeTargetGasFlowForStandbyChanged,
     "probeTargetGasFlowForStandbyChanged(flowInLiterPerHour = {:f})"},
    {"probeActualPowerChanged", 0.1, &L::probeActualPowerChanged, "probeActualPowerChanged(power = {:f})"},
}};

TEST_F(TemperatureListenerSyncTest, HandsOnWhatMovedByTheThresholdOrMore) {
    for (Quantity const& each : kQuantities) {
        auto const said = [&](double aValue) { return fmt::format("{}({})", each.name, aValue); };
        (mSync.*each.tell)(each.threshold); // exactly the threshold away from 0.0
        EXPECT_THAT(calls(), ElementsAre(said(each.threshold)));
        (mSync.*each.tell)(each.threshold * 1.5); // half a threshold on
        EXPECT_THAT(calls(), IsEmpty()) << each.name;
        (mSync.*each.tell)(each.threshold *
                           2.5); // one and a half from what was told, not from what was dropped
        EXPECT_THAT(calls(), ElementsAre(said(each.threshold * 2.5)));
        (mSync.*each.tell)(-each.threshold); // down as well as up
        EXPECT_THAT(calls(), ElementsAre(said(-each.threshold)));
    }
}

TEST_F(TemperatureListenerSyncTest, LogsOnlyWhatItHandsOn) {
    for (Quantity const& each : kQuantities) {
        (mSync.*each.tell)(298.15);
        (mSync.*each.tell)(298.15);
        EXPECT_THAT(lines(),
                    ElementsAre(line(Severity::Trace, fmt::format(fmt::runtime(each.logFormat), 298.15))));
    }
}

TEST_F(TemperatureListenerSyncTest, DropsAFirstProbeTemperatureNearZero) {
    mSync.probeTemperatureChanged(0.05); // 0.05 - 0.0 < 0.1
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(TemperatureListenerSyncTest, AddsUpStepsThatAreTooSmallEach) {
    mSync.magnetTemperatureChanged(300.0);
    calls();
    mSync.magnetTemperatureChanged(300.0004);
    mSync.magnetTemperatureChanged(300.0008);
    EXPECT_THAT(calls(), IsEmpty());
    mSync.magnetTemperatureChanged(300.0012); // 0.0012 from 300.0
    EXPECT_THAT(calls(), ElementsAre("magnetTemperatureChanged(300.0012)"));
}

TEST_F(TemperatureListenerSyncTest, TakesNoNumberForNoNews) {
    mSync.magnetTemperatureChanged(std::numeric_limits<double>::quiet_NaN());
    EXPECT_THAT(calls(), IsEmpty());
    mSync.magnetTemperatureChanged(300.0);
    EXPECT_THAT(calls(), ElementsAre("magnetTemperatureChanged(300)"));
}

TEST_F(TemperatureListenerSyncTest, TakesTheThresholdItselfForSignificant) {
    EXPECT_TRUE(mSync.isSignificant(1.5, 1.0, 0.5));
    EXPECT_TRUE(mSync.isSignificant(0.5, 1.0, 0.5));
    EXPECT_FALSE(mSync.isSignificant(1.25, 1.0, 0.5));
    EXPECT_TRUE(mSync.isSignificant(1.0, 1.0, 0.0));
}

TEST_F(TemperatureListenerSyncTest, TakesItsThresholdsInTheirOrder) {
    TemperatureListenerSync coarse(10.0, 20.0);
    coarse.setListener(&mListener);
    coarse.magnetTemperatureChanged(9.0);
    coarse.magnetTemperatureChanged(10.0);
    coarse.probeActualPowerChanged(19.0);
    coarse.probeActualPowerChanged(20.0);
    EXPECT_THAT(calls(), ElementsAre("magnetTemperatureChanged(10)", "probeActualPowerChanged(20)"));
}

// -------------------------------------------------------------------------------------------- at each call

TEST_F(TemperatureListenerSyncTest, HandsTargetsAndLimitsOnEachTime) {
    for (int time = 0; time < 2; ++time) {
        mSync.probeTargetTemperatureChanged(300.0);
        mSync.probeTargetTemperatureMinimumChanged(250.0);
        mSync.probeTargetTemperatureMaximumChanged(400.0);
        mSync.probePowerMaximumChanged(43.0);
        EXPECT_THAT(
            calls(),
            ElementsAre("probeTargetTemperatureChanged(300)", "probeTargetTemperatureMinimumChanged(250)",
                        "probeTargetTemperatureMaximumChanged(400)", "probePowerMaximumChanged(43)"));
        EXPECT_THAT(lines(),
                    ElementsAre(line(Severity::Info,
                                     "probeTargetTemperatureChanged(targetTemperature = 300.000000K)"),
                                line(Severity::Trace, "probePowerMaximumChanged(max = 43.000000)")));
    }
}

// ------------------------------------------------------------------------------------- another than before

TEST_F(TemperatureListenerSyncTest, DropsWhatItKnowsAlready) {
    mSync.magnetReadyChanged(false);
    mSync.probeTemperatureStatusChanged(Global::Off);
    mSync.probeTemperatureGasStatusChanged(Gas::Off);
    mSync.probeTemperatureControlStatusChanged(Control::Off);
    mSync.probeTemperatureStabilityChanged(TemperatureStability::NotYetStable);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(TemperatureListenerSyncTest, HandsEachChangeOfAStatusOnOnce) {
    for (int time = 0; time < 2; ++time) {
        mSync.magnetReadyChanged(true);
        mSync.probeTemperatureStatusChanged(Global::Error);
        mSync.probeTemperatureGasStatusChanged(Gas::SampleExchange);
        mSync.probeTemperatureControlStatusChanged(Control::Holding);
        mSync.probeTemperatureStabilityChanged(TemperatureStability::Stable);
    }
    EXPECT_THAT(calls(),
                ElementsAre("magnetReadyChanged(true)", "probeTemperatureStatusChanged(7)",
                            "probeTemperatureGasStatusChanged(8)", "probeTemperatureControlStatusChanged(2)",
                            "probeTemperatureStabilityChanged(2)"));
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Info, "magnetReadyChanged(stated = 1)"),
                            line(Severity::Info, "probeTemperatureStatus(status = 7)"),
                            line(Severity::Info, "probeTemperatureGasStatus(gasStatus = 8)"),
                            line(Severity::Info, "probeTemperatureControlStatusChanged(status = 2)"),
                            line(Severity::Info, "probeTemperatureStabilityChanged(stability = 2)")));
    EXPECT_EQ(mSync.temperatureStatus(), Global::Error);
    EXPECT_EQ(mSync.gasStatus(), Gas::SampleExchange);
    EXPECT_EQ(mSync.temperatureControlStatus(), Control::Holding);
    EXPECT_EQ(mSync.temperatureStability(), TemperatureStability::Stable);

    mSync.magnetReadyChanged(false);
    EXPECT_THAT(calls(), ElementsAre("magnetReadyChanged(false)"));
}

// -------------------------------------------------------------------------------------------- the listener

TEST_F(TemperatureListenerSyncTest, SpeaksInTheTemperatureCategory) {
    mSync.magnetReadyChanged(true);
    EXPECT_EQ(lines().at(0).category, "Temperature");
}

TEST_F(TemperatureListenerSyncTest, StartsWithEverythingOff) {
    EXPECT_EQ(mSync.temperatureStatus(), Global::Off);
    EXPECT_EQ(mSync.gasStatus(), Gas::Off);
    EXPECT_EQ(mSync.temperatureControlStatus(), Control::Off);
    EXPECT_EQ(mSync.temperatureStability(), TemperatureStability::NotYetStable);
    EXPECT_EQ(mSync.gasFlow(), 0.0);
}

TEST_F(TemperatureListenerSyncTest, KeepsValuesWhileNobodyListens) {
    mSync.removeListener();
    mSync.probeMeasuredGasFlowChanged(250.5);
    mSync.probeTemperatureStatusChanged(Global::On);
    mSync.probeTemperatureControlStatusChanged(Control::Ramping);
    EXPECT_EQ(mSync.gasFlow(), 250.5);
    EXPECT_EQ(mSync.temperatureStatus(), Global::On);
    EXPECT_EQ(mSync.temperatureControlStatus(), Control::Ramping);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Trace, "removeListener"),
                            line(Severity::Trace, "probeMeasuredGasFlowChanged(literPerHour = 250.500000)"),
                            line(Severity::Info, "probeTemperatureStatus(status = 1)"),
                            line(Severity::Info, "probeTemperatureControlStatusChanged(status = 1)")));

    mSync.setListener(&mListener);
    EXPECT_THAT(calls(), IsEmpty()); // nothing is told twice
    mSync.probeMeasuredGasFlowChanged(250.55);
    EXPECT_THAT(calls(), IsEmpty()); // 0.05 from what is kept
}

TEST_F(TemperatureListenerSyncTest, RefusesNoListenerAndKeepsTheFormerOne) {
    expectThrow<std::invalid_argument>([&] { mSync.setListener(nullptr); }, "Invalid temperature listener");
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Trace, "setListener"),
                            line(Severity::Error,
                                 "Cannot set temperature listener to nullptr, used removeListener instead")));
    mSync.magnetReadyChanged(true);
    EXPECT_THAT(calls(), ElementsAre("magnetReadyChanged(true)"));
}

TEST_F(TemperatureListenerSyncTest, TellsOnlyTheLastListener) {
    FakeTemperatureListener second;
    mSync.setListener(&second);
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Trace, "setListener")));
    mSync.magnetReadyChanged(true);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(second.takeCalls(), ElementsAre("magnetReadyChanged(true)"));
}

TEST_F(TemperatureListenerSyncTest, LetsTheListenerCallBack) {
    mListener.onCall([this] {
        mListener.onCall({});
        EXPECT_EQ(mSync.temperatureStatus(), Global::On);
        mSync.probeTemperatureChanged(300.0);
        mSync.removeListener();
    });
    mSync.probeTemperatureStatusChanged(Global::On);
    EXPECT_THAT(calls(), ElementsAre("probeTemperatureStatusChanged(1)", "probeTemperatureChanged(300)"));
}

TEST_F(TemperatureListenerSyncTest, LogsAListenerThatThrowsAndGoesOn) {
    mListener.onCall([] { throw std::runtime_error("the daemon is tired"); });
    mSync.magnetReadyChanged(true);
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "magnetReadyChanged(stated = 1)"),
                                     line(Severity::Error,
                                          "The temperature's listener failed in "
                                          "magnetReadyChanged: the daemon is tired")));
    mListener.onCall([] { throw 42; });
    mSync.probeActualPowerChanged(12.0);
    EXPECT_TRUE(mLog.has(Severity::Error, "The temperature's listener failed in probeActualPowerChanged"));
    mListener.onCall({});
    mSync.magnetReadyChanged(false);
    EXPECT_THAT(calls(), SizeIs(3));
}

// ------------------------------------------------------------------------------------------------- waiting

TEST_F(TemperatureListenerSyncTest, DoesNotWaitForWhatIsSoAlready) {
    EXPECT_TRUE(mSync.waitForTemperatureControlStatus(Control::Off, 0ms));
    EXPECT_TRUE(mSync.waitForTemperatureControlStatusNOT(Control::Holding, 0ms));
    EXPECT_TRUE(mSync.waitForTemperatureControlStatus(Control::Off, -1ms));
}

TEST_F(TemperatureListenerSyncTest, WakesWhoWaitsForAStatus) {
    auto reached = std::async(std::launch::async, [&] {
        return mSync.waitForTemperatureControlStatus(Control::SampleExchange, 10s);
    });
    auto left = std::async(std::launch::async,
                           [&] { return mSync.waitForTemperatureControlStatusNOT(Control::Off, 10s); });
    mClock->awaitWaiters(2);
    mSync.probeTemperatureControlStatusChanged(Control::Ramping);
    EXPECT_TRUE(left.get());
    mClock->awaitWaiters(1);
    mSync.probeTemperatureControlStatusChanged(Control::SampleExchange);
    EXPECT_TRUE(reached.get());
}

TEST_F(TemperatureListenerSyncTest, WakesAllWhoWait) {
    std::vector<std::future<bool>> waiting;
    for (int each = 0; each < 5; ++each) {
        waiting.push_back(std::async(std::launch::async, [&] {
            return mSync.waitForTemperatureControlStatus(Control::Holding, 10s);
        }));
    }
    mClock->awaitWaiters(5);
    mSync.probeTemperatureControlStatusChanged(Control::Holding);
    for (auto& each : waiting) {
        EXPECT_TRUE(each.get());
    }
}

TEST_F(TemperatureListenerSyncTest, GivesUpWhenTheTimeIsOver) {
    auto reached = std::async(std::launch::async,
                              [&] { return mSync.waitForTemperatureControlStatus(Control::Holding, 10s); });
    EXPECT_EQ(mClock->advanceToNextDeadline(), 10s);
    EXPECT_FALSE(reached.get());
    auto left = std::async(std::launch::async,
                           [&] { return mSync.waitForTemperatureControlStatusNOT(Control::Off, 2500ms); });
    EXPECT_EQ(mClock->advanceToNextDeadline(), 2500ms);
    EXPECT_FALSE(left.get());
}

TEST_F(TemperatureListenerSyncTest, GivesUpAtOnceWithoutTime) {
    EXPECT_FALSE(mSync.waitForTemperatureControlStatus(Control::Holding, 0ms));
    EXPECT_FALSE(mSync.waitForTemperatureControlStatusNOT(Control::Off, -1ms));
}

TEST_F(TemperatureListenerSyncTest, WaitsAYearAtMostHoweverLongItIsAskedTo) {
    auto reached = std::async(std::launch::async, [&] {
        return mSync.waitForTemperatureControlStatus(Control::Holding, std::chrono::milliseconds::max());
    });
    EXPECT_EQ(mClock->advanceToNextDeadline(), std::chrono::hours(24 * 365));
    EXPECT_FALSE(reached.get());
}

TEST_F(TemperatureListenerSyncTest, WakesTheWaitingBeforeTheListenerIsTold) {
    std::promise<void> told;
    mListener.onCall([done = told.get_future().share()] { done.wait(); });
    auto reached = std::async(std::launch::async,
                              [&] { return mSync.waitForTemperatureControlStatus(Control::Holding, 10s); });
    mClock->awaitWaiters(1);
    auto telling =
        std::async(std::launch::async, [&] { mSync.probeTemperatureControlStatusChanged(Control::Holding); });
    EXPECT_TRUE(reached.get()); // while the listener is still busy
    told.set_value();
    telling.get();
}

TEST_F(TemperatureListenerSyncTest, ServesManyThreads) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (int step = 0; step < 100; ++step) {
                mSync.magnetTemperatureChanged(thread + step);
                mSync.probeTemperatureControlStatusChanged(step % 2 == 0 ? Control::Ramping
                                                                         : Control::Holding);
                mSync.setListener(&mListener);
                mSync.gasFlow();
                mSync.removeListener();
                mSync.waitForTemperatureControlStatusNOT(Control::Off, 1ms);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mSync.temperatureControlStatus(), Control::Holding); // the last step of each, 99, is odd
}

} // namespace
