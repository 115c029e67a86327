// SPDX-License-Identifier: Apache-2.0
// The controller's exchange of a sample: who waits for whom, for how long, and what a refusal leaves.
#include "support/ExpectThrow.h"
#include "unit/at/ATControllerRig.h"

#include <exception>
#include <functional>
#include <future>
#include <stdexcept>

#include <gmock/gmock.h>

namespace {

using namespace libfieldwarden::test;
using ::testing::Contains;
using ::testing::ElementsAre;

constexpr char const* kPrototypeRefusal =
    "Combination of adjustable temperature and automation is not supported on this system.";

class ATControllerTransfer : public ATControllerRig {
protected:
    /// Runs what waits for the state machine, and moves the time when the machine has begun on it.
    /// @param aBegun  The machine's line when it has.
    /// @param aTicks  Seconds that pass then, six at most.
    /// @return What was thrown; null for nothing.
    std::exception_ptr run(std::function<void()> const& aTransfer, std::string const& aBegun, int aTicks) {
        auto const begun = countOf(aBegun);
        auto done = std::async(std::launch::async, aTransfer);
        EXPECT_TRUE(eventually([&] { return countOf(aBegun) > begun; })) << aBegun;
        for (int second = 0; second < aTicks; ++second) {
            tick();
        }
        // A verdict may come between the waiter's look and its sleep; it looks again each 0.1 s.
        while (done.wait_for(std::chrono::milliseconds(250)) != std::future_status::ready) {
            mClock->advance(std::chrono::milliseconds(100));
        }
        try {
            done.get();
            return nullptr;
        } catch (...) {
            return std::current_exception();
        }
    }

    void prepare(ATController& aController) {
        EXPECT_EQ(run([&] { aController.prepareTransfer(); }, kEnter, 6), nullptr);
        EXPECT_TRUE(aController.isInSampleTransferMode());
    }

    static void expectRuntimeError(std::exception_ptr const& aThrown, std::string const& aWords) {
        ASSERT_NE(aThrown, nullptr);
        expectThrow<std::runtime_error>([&] { std::rethrow_exception(aThrown); }, aWords);
    }

    std::size_t countOf(std::string const& aStart) const {
        auto const all = mLog.lines();
        return static_cast<std::size_t>(std::count_if(
            all.begin(), all.end(), [&](auto const& aLine) { return aLine.text.starts_with(aStart); }));
    }

    /// The bytes that the flow box was given, in order.
    std::vector<std::string> flows() {
        auto calls = mBoard->takeCalls();
        std::erase_if(calls, [](auto const& aCall) { return !aCall.starts_with("setProbeGasFlow("); });
        return calls;
    }

    /// Heats at 310 K with 200 l/h and hold gas.
    void heat(ATController& aController) {
        aController.setTargetTemperature(310.0);
        aController.setEnabled(true);
        awaitLine("Entering BeginRamp_SetHoldFlow state");
        tick();
        awaitLine("Entered RampTemperatureAndFlow state");
        EXPECT_THAT(flows(), ElementsAre("setProbeGasFlow(1)", "setProbeGasFlow(2)"));
    }

    static constexpr char const* kEnter = "Entering SampleExchangeEnter";
    static constexpr char const* kExit = "Entering SampleExchangeExit";
};

TEST_F(ATControllerTransfer, RefusesAutomationWithAPrototypeBox) {
    auto const controller = makeQuietly(prototypeRecordText());
    expectThrow<std::runtime_error>([&] { controller->prepareTransfer(); }, kPrototypeRefusal);
    expectThrow<std::runtime_error>([&] { controller->completeTransfer(true); }, kPrototypeRefusal);
    expectThrow<std::runtime_error>([&] { controller->checkAutomationAllowed(); }, kPrototypeRefusal);
    EXPECT_FALSE(controller->isInSampleTransferMode());
    auto const refused =
        line(Severity::Error, "automation not allowed because system has a prototype flow box");
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "+prepareTransfer"), refused,
                                     line(Severity::Info, "+completeTransfer(sample_in_magnet = 1)"), refused,
                                     refused));
}

TEST_F(ATControllerTransfer, AllowsAutomationWithAFlowBoxOnThePortExpander) {
    EXPECT_NO_THROW(makeQuietly()->checkAutomationAllowed());
}

TEST_F(ATControllerTransfer, WaitsForTheStateMachineToGetReady) {
    auto const controller = makeQuietly();
    prepare(*controller);
    awaitLine("Entering SampleExchange: now ready for sample exchange");
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Info, "+prepareTransfer"),
                            line(Severity::Debug, "waiting for FSM to process the prepareTransfer request")));
}

TEST_F(ATControllerTransfer, OnlyLogsASecondPreparation) {
    auto const controller = makeQuietly();
    prepare(*controller);
    mLog.clear();
    controller->prepareTransfer();
    EXPECT_TRUE(controller->isInSampleTransferMode());
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "+prepareTransfer"),
                                     line(Severity::Warning,
                                          "prepareTransfer called but already in sample exchange mode")));
    EXPECT_FALSE(hasLine("+resetPrepareOrCompleteTransfer"));
}

TEST_F(ATControllerTransfer, OnlyLogsACompletionOfNothing) {
    auto const controller = makeQuietly();
    controller->completeTransfer(true);
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "+completeTransfer(sample_in_magnet = 1)"),
                                     line(Severity::Warning,
                                          "completeTransfer called but not in sample exchange mode")));
}

TEST_F(ATControllerTransfer, WaitsForNothingWhenNoSampleCameBack) {
    auto const controller = makeQuietly();
    prepare(*controller);
    mLog.clear();
    controller->completeTransfer(false);
    EXPECT_FALSE(controller->isInSampleTransferMode());
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "+completeTransfer(sample_in_magnet = 0)")));
    awaitLine("SampleExchange: got EvCompleteTransfer and sampleInMagnet is 0");
}

TEST_F(ATControllerTransfer, TakesTheGasDownStepByStepAndBringsItBack) {
    auto const controller = makeQuietly();
    heat(*controller);
    prepare(*controller);
    EXPECT_THAT(flows(), ElementsAre("setProbeGasFlow(1)", "setProbeGasFlow(0)"));
    mLog.clear();
    EXPECT_EQ(run([&] { controller->completeTransfer(true); }, kExit, 6), nullptr);
    EXPECT_FALSE(controller->isInSampleTransferMode());
    // Hold gas first, then 200 l/h; the ramp that follows finds the gas as it wants it.
    EXPECT_THAT(flows(), ElementsAre("setProbeGasFlow(1)", "setProbeGasFlow(2)"));
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Info, "+completeTransfer(sample_in_magnet = 1)"),
                            line(Severity::Debug, "waiting for FSM to process the completeTransfer")));
    awaitLine("Entered RampTemperatureAndFlow state");
}

TEST_F(ATControllerTransfer, ExchangesSamplesAgainAndAgain) {
    auto const controller = makeQuietly();
    for (int sample = 0; sample < 20; ++sample) {
        prepare(*controller);
        EXPECT_EQ(run([&] { controller->completeTransfer(true); }, kExit, 3), nullptr);
        EXPECT_FALSE(controller->isInSampleTransferMode());
    }
}

TEST_F(ATControllerTransfer, RefusesWhenTheGasDoesNotFollow) {
    auto const controller = makeQuietly();
    heat(*controller);
    mBoard->onCall("setProbeGasFlow(1)", [this] { mBoard->set("probeGasFlow", 255); });
    expectRuntimeError(run([&] { controller->prepareTransfer(); }, kEnter, 3),
                       "Could not prepare for a sample transfer");
    EXPECT_FALSE(controller->isInSampleTransferMode());
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "SampleExchangeEnter: failed to set the gas flow, will retry, no sample exchange "
                         "possible"));
}

TEST_F(ATControllerTransfer, RefusesWhenTheKnobIsTurnedAway) {
    auto const controller = makeQuietly();
    heat(*controller);
    mBoard->onCall("setProbeGasFlow(1)", [this] { mBoard->set("probeGasFlow", 102); });
    expectRuntimeError(run([&] { controller->prepareTransfer(); }, kEnter, 3),
                       "Could not prepare for a sample transfer");
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "Flow box knob is set to NOT REMOTE but strict mode is enabled (automation?)"));
    EXPECT_FALSE(controller->isInSampleTransferMode());
}

TEST_F(ATControllerTransfer, GivesUpAPreparationWithoutAVerdictAfterTenSeconds) {
    auto const controller = makeQuietly();
    auto done = std::async(std::launch::async, [&] { controller->prepareTransfer(); });
    mClock->awaitWaiters(1);
    mClock->advance(std::chrono::milliseconds(9999));
    EXPECT_EQ(done.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    mClock->advance(std::chrono::milliseconds(1));
    expectThrow<std::runtime_error>([&] { done.get(); }, "Could not prepare for a sample transfer");
    EXPECT_FALSE(controller->isInSampleTransferMode());
}

TEST_F(ATControllerTransfer, KeepsItsModeWhenTheGasDoesNotComeBackInTenSeconds) {
    auto const controller = makeQuietly();
    prepare(*controller);
    mLog.clear();
    auto done = std::async(std::launch::async, [&] { controller->completeTransfer(true); });
    mClock->awaitWaiters(1);
    mClock->advance(std::chrono::seconds(10));
    expectThrow<std::runtime_error>([&] { done.get(); },
                                    "Could not restore AT operation after sample exchange");
    EXPECT_TRUE(controller->isInSampleTransferMode());
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Info, "+completeTransfer(sample_in_magnet = 1)"),
                            line(Severity::Debug, "waiting for FSM to process the completeTransfer"),
                            line(Severity::Error,
                                 "FSM did not left the sample exchange state within 10 seconds --> error")));
}

TEST_F(ATControllerTransfer, CanBeEnabledAndAimedWhileAnotherWaits) {
    auto const controller = makeQuietly();
    auto done = std::async(std::launch::async, [&] { controller->prepareTransfer(); });
    mClock->awaitWaiters(1);
    controller->setTargetTemperature(310.0); // not locked by the one that waits
    controller->setEnabled(true);
    EXPECT_TRUE(controller->enabled());
    mClock->advance(std::chrono::seconds(10));
    EXPECT_THROW(done.get(), std::runtime_error);
}

TEST_F(ATControllerTransfer, TakesEffectOfADisablingOnlyAfterTheExchange) {
    auto const controller = makeQuietly();
    heat(*controller);
    prepare(*controller);
    mLog.clear();
    controller->setEnabled(false);
    tick();
    EXPECT_FALSE(hasLine("Entering RampToOffTemperatureAndFlow"));
    EXPECT_EQ(run([&] { controller->completeTransfer(true); }, kExit, 6), nullptr);
    awaitLine("Entering RampToOffTemperatureAndFlow");
    EXPECT_FALSE(controller->enabled());
}

TEST_F(ATControllerTransfer, GoesInTheMidstOfAnExchange) {
    auto controller = makeQuietly();
    heat(*controller);
    prepare(*controller);
    controller.reset();
    auto const calls = mBoard->takeCalls();
    EXPECT_EQ(calls.back(), "setProbeGasFlow(0)");
    EXPECT_THAT(calls, Contains("setProbeGasHeatingSpiralPower(0)"));
}

} // namespace
