// SPDX-License-Identifier: Apache-2.0
// The controller of a system with the option: how it starts, what it lets through, and what it judges.
#include "support/ExpectThrow.h"
#include "unit/at/ATControllerRig.h"

#include <cmath>
#include <functional>
#include <limits>
#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>

namespace {

using namespace libfieldwarden::test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char const* kNotParsed =
    "Failed to parse VTU MDS, will consider system doesn't have the AT option. Error was ";

class ATControllerOption : public ATControllerRig {};

// ------------------------------------------------------------------------------------------------- the start

TEST_F(ATControllerOption, MakesTheBoardSafeBeforeAnythingElseStarts) {
    auto const controller = make(recordText());
    EXPECT_TRUE(controller->hasAT());
    awaitRest();
    auto calls = mBoard->takeCalls();
    ASSERT_GE(calls.size(), 11U);
    calls.resize(11); // The state machine's thread begins here.
    EXPECT_THAT(calls,
                ElementsAre("setVTMode(2)", "guessedFlowBoxEcl()", "probeGasFlow()", "setVTMode(2)",
                            "setupSavedOnEEPROM()", "setTargetProbeTemperature(292.15)",
                            "setProbeTemperatureRegulation(false)",
                            "setProbeGasHeatingSpiralRegulation(false)", "setProbeGasHeatingSpiralPower(0)",
                            "setProbeGasFlow(0)", "setProbeGasHeatingTimeout(240)"));
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Info, "Got VTMode = 2 from VTU MDS with FlowController group."),
                            line(Severity::Debug, "The VT board guesses that the AT Flow box is of type 20"),
                            line(Severity::Info, "VT board guesses ATFlowBoxV2"),
                            line(Severity::Debug, "Configuring the board, with mVTMode = 2"),
                            line(Severity::Info, "System has AT option: starting it"),
                            line(Severity::Info, "setEnabled(enabled = 0)")));
    EXPECT_TRUE(mLog.has(Severity::Info, "+disable"));
}

TEST_F(ATControllerOption, IsDisabledAtTheLowestTargetAfterTheStart) {
    auto const controller = makeQuietly();
    EXPECT_FALSE(controller->enabled());
    EXPECT_FALSE(controller->isStable());
    EXPECT_FALSE(controller->isInSampleTransferMode());
    // The board regulates from 273.15 K to 373.15 K.
    EXPECT_EQ(controller->temperatureRange(), (std::pair<double, double>(283.15, 353.15)));
    EXPECT_EQ(controller->targetTemperature(), 283.15);
    EXPECT_EQ(controller->flowsAsXmlForPanorin(),
              "<flows><flow valueLiterPerHour=\"0\" /><flow valueLiterPerHour=\"200\" />"
              "<flow valueLiterPerHour=\"400\" /></flows>");
}

TEST_F(ATControllerOption, IsCalledOnceASecondForGasTimeAndStability) {
    auto const controller = makeQuietly();
    std::vector<double> periods;
    for (auto const& job : mCallers->jobs()) {
        periods.push_back(job->periodSeconds);
    }
    EXPECT_THAT(periods, ElementsAre(1.0, 1.0, 1.0));
    call(kFlowPoll);
    EXPECT_TRUE(mLog.has(Severity::Trace, "+pollATFlowBox"));
    call(kPoll);
    EXPECT_TRUE(mLog.has(Severity::Trace, "+poll"));
}

TEST_F(ATControllerOption, PollsNoFlowBoxBeforeItsTableIsThere) {
    unsigned polls = 0;
    mBoard->onCall("probeGasFlow", [&] { // A board that takes more than a second.
        if (!mCallers->jobs().empty() && !hasLine("Temperature range described")) {
            mBoard->mend("probeGasFlow");
            call(kFlowPoll);
            ++polls;
        }
    });
    auto const controller = make(recordText());
    EXPECT_EQ(polls, 1U);
    EXPECT_FALSE(hasLine("+pollATFlowBox"));
    call(kFlowPoll);
    EXPECT_TRUE(hasLine("+pollATFlowBox"));
}

TEST_F(ATControllerOption, SavesABoardThatIsSetUpAnew) {
    mBoard->set("setupSavedOnEEPROM", false);
    make(recordText());
    EXPECT_THAT(mBoard->takeCalls(), Contains("saveSetupToEEPROM()"));
    EXPECT_TRUE(
        mLog.has(Severity::Warning,
                 "Board's current configuration is different from the one saved on the board: updating it"));
}

struct Guess {
    int ecl;
    Severity severity;
    char const* words;
    char const* failure; ///< Null for a box.
    bool isV2 = false;
};

TEST_F(ATControllerOption, TakesTheFlowBoxThatTheBoardGuesses) {
    for (Guess const& guess : {
             Guess{0, Severity::Error,
                   "VT board guesses ECL 0 but AT option MDS says I2C, continuing with I2C V1", nullptr},
             Guess{10, Severity::Info, "VT board guesses AT Flow Box V1", nullptr},
             Guess{20, Severity::Info, "VT board guesses ATFlowBoxV2", nullptr, true},
             Guess{30, Severity::Info, "VT board guesses ATFlowBoxV2", nullptr, true},
             Guess{99, Severity::Error, "Expects an I2C AT Flow Box but port expander is not detected",
                   "AT Flow box not connected"},
             Guess{255, Severity::Error, "AT mode has not enabled, no flow box detection possible",
                   "AT not enabled"},
             Guess{1, Severity::Error, "unknown value for AT Flow Box detection",
                   "AT Flow Box not detected. Please check the wiring and try again."},
             Guess{254, Severity::Error, "unknown value for AT Flow Box detection",
                   "AT Flow Box not detected. Please check the wiring and try again."},
         }) {
        SCOPED_TRACE(guess.ecl);
        mBoard->set("guessedFlowBoxEcl", guess.ecl);
        mGasOff = 0;
        mBoard->takeCalls();
        mLog.clear();
        auto const controller = make(recordText());
        EXPECT_TRUE(mLog.has(Severity::Debug, "The VT board guesses that the AT Flow box is of type " +
                                                  std::to_string(guess.ecl)));
        EXPECT_TRUE(mLog.has(guess.severity, guess.words));
        EXPECT_EQ(controller->hasAT(), guess.failure == nullptr);
        if (guess.failure != nullptr) {
            EXPECT_TRUE(mLog.has(Severity::Error, std::string(kNotParsed) + guess.failure));
            EXPECT_TRUE(mLog.has(Severity::Info, "System doesn't have AT"));
            EXPECT_THAT(mBoard->takeCalls(), ElementsAre("setVTMode(2)", "guessedFlowBoxEcl()",
                                                         "setVTMode(0)", "setupSavedOnEEPROM()"));
            EXPECT_THAT(mCallers->jobs(), IsEmpty());
            continue;
        }
        awaitRest();
        // A box of the first generation tells by a byte that nobody wrote that its knob was turned.
        mBoard->set("probeGasFlow", 2);
        call(kFlowPoll);
        EXPECT_TRUE(
            hasLine("~pollATFlowBox: probe gas flow changed from 0 (0x00) to 2 (0x02). Decodes "
                    "to:hardwareError = 0, isKnobSetToRemote = " +
                    std::string(guess.isV2 ? "1" : "0")));
    }
}

TEST_F(ATControllerOption, DrivesAPrototypeBoxWhereTheRecordNamesNoFlowController) {
    auto const controller = makeQuietly(prototypeRecordText());
    EXPECT_TRUE(controller->hasAT());
    call(kFlowPoll);
    EXPECT_TRUE(mLog.has(Severity::Trace, "-pollATFlowBox: cannot read-back valves"));
}

TEST_F(ATControllerOption, SetsTheModeOfAPrototypeBoxOnlyOnceAndAsksForNoGuess) {
    make(prototypeRecordText());
    auto const calls = mBoard->takeCalls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "setVTMode(1)"), 1);
    EXPECT_THAT(calls, Not(Contains("guessedFlowBoxEcl()")));
    EXPECT_TRUE(mLog.has(Severity::Debug, "Configuring the board, with mVTMode = 1"));
    EXPECT_FALSE(hasLine("Got VTMode"));
}

TEST_F(ATControllerOption, CountsABoardThatCannotGuessForNoOption) {
    for (char const* const failing : {"guessedFlowBoxEcl", "probeGasFlow"}) {
        SCOPED_TRACE(failing);
        mLog.clear();
        mBoard->fail(failing, "no answer");
        auto const controller = make(recordText());
        EXPECT_FALSE(controller->hasAT());
        EXPECT_TRUE(mLog.has(Severity::Error, std::string(kNotParsed) + "no answer"));
        EXPECT_THAT(mCallers->jobs(), IsEmpty()) << "nobody polls a flow box that does not count";
        EXPECT_THAT(mBoard->takeCalls(), Not(Contains("setProbeGasHeatingTimeout(240)")));
        mBoard->mend(failing);
    }
}

TEST_F(ATControllerOption, PassesOnThatTheBoardCannotBeMadeSafe) {
    for (char const* const failing :
         {"setTargetProbeTemperature", "setProbeGasHeatingSpiralRegulation", "setProbeGasHeatingSpiralPower",
          "setProbeGasHeatingTimeout", "setupSavedOnEEPROM"}) {
        SCOPED_TRACE(failing);
        mBoard->fail(failing, "no answer");
        expectThrow<std::runtime_error>([&] { make(recordText()); }, "no answer");
        EXPECT_THAT(mCallers->jobs(), IsEmpty());
        mBoard->mend(failing);
    }
}

/// Gives no more than so many calls.
class FewCallers : public velmor::kepla::utils::PeriodicCallerManagerIfc {
public:
    explicit FewCallers(unsigned aLeft)
        : mLeft(aLeft) {}
    std::unique_ptr<velmor::kepla::utils::PeriodicCallerIfc> createPeriodicCaller(
        double /*aPeriodSeconds*/, std::function<void()> /*aCallback*/) override {
        if (mLeft-- == 0) {
            throw std::runtime_error("no more");
        }
        return std::make_unique<velmor::kepla::utils::PeriodicCallerIfc>();
    }

private:
    unsigned mLeft;
};

TEST_F(ATControllerOption, LeavesHeatingAndGasOffWhereItsTimeCannotBeDriven) {
    for (unsigned const given : {1U, 2U}) { // The flow box has the first.
        mBoard->takeCalls();
        EXPECT_THROW(
            ATController(mBoard, mListener, std::make_shared<FewCallers>(given), recordText(), mDataLogger),
            std::runtime_error);
        auto const calls = mBoard->takeCalls();
        EXPECT_THAT(calls, Contains("setProbeGasHeatingSpiralPower(0)"));
        EXPECT_THAT(calls, Not(Contains("setProbeTemperatureRegulation(true)")));
        EXPECT_EQ(
            *std::find_if(calls.rbegin(), calls.rend(),
                          [](std::string const& aCall) { return aCall.starts_with("setProbeGasFlow"); }),
            "setProbeGasFlow(0)");
    }
}

// ---------------------------------------------------------------------------- records with something missing

TEST_F(ATControllerOption, ComesUpOnARecordThatLacksAnySingleValue) {
    auto const whole = recordGroups();
    for (std::size_t group = 0; group < whole.size(); ++group) {
        for (std::size_t length = 0; length < whole[group].second.size(); ++length) {
            auto groups = whole;
            groups[group].second.resize(length);
            SCOPED_TRACE(asRecord(groups));
            auto const controller = make(asRecord(groups));
            // Without its second value the flow controller is invalid; a table can do without a group.
            bool const hasOption = group != 0;
            EXPECT_EQ(controller->hasAT(), hasOption);
            auto const range = controller->temperatureRange();
            if (hasOption && group > 1) { // The other entry's range is left.
                EXPECT_EQ(range.first, group == 2 ? 313.15 : 283.15);
                EXPECT_EQ(range.second, group == 2 ? 353.15 : 313.15);
            } else {
                EXPECT_GT(range.first, range.second) << "no target is allowed";
            }
        }
    }
}

TEST_F(ATControllerOption, ComesUpOnARecordWithAnySingleAbsurdValue) {
    auto const whole = recordGroups();
    for (std::size_t group = 0; group < whole.size(); ++group) {
        for (std::size_t value = 0; value < whole[group].second.size(); ++value) {
            for (char const* const absurd :
                 {"", "x", "nan", "inf", "-inf", "1e999", "0x10", "-1e30", "1e30"}) {
                auto groups = whole;
                groups[group].second[value] = absurd;
                SCOPED_TRACE(asRecord(groups));
                mLog.clear();
                auto const controller = make(asRecord(groups));
                bool const isRead = group == 0 ? value == 1 : value >= 2;
                bool const isNumber = std::string(absurd).ends_with("1e30");
                EXPECT_EQ(controller->hasAT(), !isRead || (group != 0 && isNumber));
                if (isRead && group != 0 && !isNumber) {
                    EXPECT_TRUE(hasLine(kNotParsed));
                    EXPECT_THAT(mCallers->jobs(), IsEmpty());
                }
                auto const range = controller->temperatureRange();
                EXPECT_GE(range.first, 273.15);
                EXPECT_LE(range.second, 373.15);
            }
        }
    }
}

TEST_F(ATControllerOption, KeepsEveryTargetOutWhereTheRecordHasNoRange) {
    auto groups = recordGroups();
    groups.erase(groups.begin() + 1);
    auto const controller = makeQuietly(asRecord(groups));
    EXPECT_TRUE(controller->hasAT());
    for (double const kelvin : {0.0, 273.15, 300.0}) {
        expectThrow<std::invalid_argument>([&] { controller->setTargetTemperature(kelvin); },
                                           "Target temperature is outside of allowed range.");
    }
}

// ------------------------------------------------------------------------------------------------- enabling

TEST_F(ATControllerOption, IsNotEnabledUnlessTheLockIsArmed) {
    auto const controller = makeQuietly();
    auto const lock = std::make_shared<ScriptedLock>();
    controller->setLock(lock);
    expectThrow<std::runtime_error>(
        [&] { controller->setEnabled(true); },
        "The lock must be enabled and locked before AT operation can be started.");
    EXPECT_FALSE(controller->enabled());
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "setEnabled(enabled = 1)"),
                                     line(Severity::Error,
                                          "User requests to enable AT but the shim coil target temperature "
                                          "regulator is not armed: denied")));
    EXPECT_FALSE(hasLine("+enable"));
    lock->armed = true;
    controller->setEnabled(true);
    EXPECT_TRUE(controller->enabled());
    EXPECT_TRUE(mLog.has(Severity::Info, "+enable"));
    EXPECT_EQ(lock->questions, 2U);
}

TEST_F(ATControllerOption, IsDisabledWithoutAWordToTheLock) {
    auto const controller = makeQuietly();
    auto const lock = std::make_shared<ScriptedLock>();
    lock->armed = true;
    controller->setLock(lock);
    controller->setEnabled(true);
    lock->armed = false;
    controller->setEnabled(false);
    EXPECT_FALSE(controller->enabled());
    EXPECT_EQ(lock->questions, 1U);
}

TEST_F(ATControllerOption, StaysEnabledWhenAskedAgainWhileTheLockIsLost) {
    auto const controller = makeQuietly();
    auto const lock = std::make_shared<ScriptedLock>();
    lock->armed = true;
    controller->setLock(lock);
    controller->setEnabled(true);
    lock->armed = false;
    EXPECT_THROW(controller->setEnabled(true), std::runtime_error);
    EXPECT_TRUE(controller->enabled());
}

TEST_F(ATControllerOption, IsEnabledWithoutALock) {
    auto const controller = makeQuietly();
    controller->setEnabled(true);
    EXPECT_TRUE(controller->enabled());
    // Nobody has set a target: the state machine's is 0 K, whatever the controller's is.
    awaitLine("Entering OnButTargetTooLow state");
}

// ------------------------------------------------------------------------------------------------- targets

TEST_F(ATControllerOption, TakesTargetsUpToBothEndsOfTheRange) {
    FakeTemperatureListener daemon;
    mListener->setListener(&daemon);
    auto const controller = makeQuietly();
    daemon.takeCalls();
    for (double const kelvin : {283.15, 353.15, 310.0, 310.0}) {
        controller->setTargetTemperature(kelvin);
        EXPECT_EQ(controller->targetTemperature(), kelvin);
    }
    EXPECT_THAT(daemon.takeCalls(),
                ElementsAre("probeTargetTemperatureChanged(283.15)", "probeTargetTemperatureChanged(353.15)",
                            "probeTargetTemperatureChanged(310)", "probeTargetTemperatureChanged(310)"));
    EXPECT_EQ(mLog.count(Severity::Info, "setTargetTemperature(temperatureInKelvin = 310.000000"), 2U);
    EXPECT_EQ(mLog.count(Severity::Info, "+setTarget(target = 310.000000)"), 2U);
    mListener->removeListener();
}

TEST_F(ATControllerOption, RefusesTargetsOutsideOfTheRange) {
    auto const controller = makeQuietly();
    double const nan = std::numeric_limits<double>::quiet_NaN();
    double const infinity = std::numeric_limits<double>::infinity();
    for (double const kelvin :
         {std::nextafter(283.15, 0.0), std::nextafter(353.15, 400.0), -1.0, nan, infinity, -infinity}) {
        SCOPED_TRACE(kelvin);
        expectThrow<std::invalid_argument>([&] { controller->setTargetTemperature(kelvin); },
                                           "Target temperature is outside of allowed range.");
    }
    EXPECT_TRUE(
        mLog.has(Severity::Error,
                 "Requested temperature (-1.000000) it outside of range (283.150000K to 353.150000K)"));
    EXPECT_EQ(controller->targetTemperature(), 283.15);
    EXPECT_FALSE(hasLine("+setTarget("));
}

TEST_F(ATControllerOption, DragsTheTargetAlongWithALimitThatPassesIt) {
    auto const controller = makeQuietly();
    controller->setTargetTemperature(310.0);
    mLog.clear();
    controller->setProbeTemperatureMax(320.0);
    controller->setProbeTemperatureMin(300.0);
    EXPECT_EQ(controller->targetTemperature(), 310.0);
    EXPECT_FALSE(hasLine("+setTarget("));
    controller->setProbeTemperatureMax(305.0);
    EXPECT_EQ(controller->targetTemperature(), 305.0);
    controller->setProbeTemperatureMax(320.0);
    controller->setProbeTemperatureMin(315.5);
    EXPECT_EQ(controller->targetTemperature(), 315.5);
    EXPECT_EQ(controller->temperatureRange(), (std::pair<double, double>(315.5, 320.0)));
    EXPECT_TRUE(mLog.has(Severity::Info, "setProbeTemperatureMax = 305.000000K"));
    EXPECT_TRUE(mLog.has(Severity::Info, "setProbeTemperatureMin = 315.500000K"));
    EXPECT_TRUE(mLog.has(Severity::Info, "+setTarget(target = 305.000000)"));
    EXPECT_TRUE(mLog.has(Severity::Info, "+setTarget(target = 315.500000)"));
}

TEST_F(ATControllerOption, RefusesToDragTheTargetIntoARangeWithoutRoom) {
    auto const controller = makeQuietly();
    controller->setTargetTemperature(310.0);
    controller->setProbeTemperatureMax(320.0);
    EXPECT_THROW(controller->setProbeTemperatureMin(330.0), std::invalid_argument);
    EXPECT_EQ(controller->targetTemperature(), 310.0);
    EXPECT_THROW(controller->setProbeTemperatureMin(-0.1), std::invalid_argument);
    EXPECT_THROW(controller->setProbeTemperatureMax(-0.1), std::invalid_argument);
}

TEST_F(ATControllerOption, KeepsATargetThatTheDaemonChokesOn) {
    FakeTemperatureListener daemon;
    auto const controller = makeQuietly();
    mListener->setListener(&daemon);
    daemon.onCall([] { throw std::runtime_error("busy"); });
    controller->setTargetTemperature(300.0);
    EXPECT_EQ(controller->targetTemperature(), 300.0);
    controller->setTargetTemperature(301.0); // not locked for ever
    EXPECT_EQ(controller->targetTemperature(), 301.0);
    mListener->removeListener();
}

// ------------------------------------------------------------------------------------------------------ time

TEST_F(ATControllerOption, TellsTheStateMachineTheWholeMillisecondsSinceTheLastTick) {
    auto const controller = makeQuietly();
    mClock->advance(std::chrono::microseconds(1'000'999));
    call(kTick);
    EXPECT_TRUE(mLog.has(Severity::Trace, "+timerTick(elapsedMs = 1000)"));
    mClock->advance(std::chrono::microseconds(4'999'999));
    call(kTick);
    EXPECT_TRUE(mLog.has(Severity::Trace, "+timerTick(elapsedMs = 4999)")); // a tick that was late
    call(kTick);
    EXPECT_TRUE(mLog.has(Severity::Trace, "+timerTick(elapsedMs = 0)"));
}

// --------------------------------------------------------------------------------------------------
// stability

TEST_F(ATControllerOption, IsStableAfterFiveReadingsNearTheTarget) {
    auto const controller = makeQuietly();
    controller->setTargetTemperature(310.0);
    for (double const kelvin : {309.51, 310.49, 310.0, 309.51}) {
        mBoard->set("probeTemperature", kelvin);
        call(kPoll);
        EXPECT_FALSE(controller->isStable());
        EXPECT_EQ(mListener->temperatureStability(), TemperatureStability::NotYetStable);
    }
    call(kPoll);
    EXPECT_TRUE(controller->isStable());
    EXPECT_EQ(mListener->temperatureStability(), TemperatureStability::Stable);
    EXPECT_TRUE(mLog.has(Severity::Trace, "Probe's temperature is 309.510000K and considered stable = 0"));
    EXPECT_TRUE(mLog.has(Severity::Trace, "Probe's temperature is 309.510000K and considered stable = 1"));
}

TEST_F(ATControllerOption, IsNotStableAtTheToleranceItself) {
    auto const controller = makeQuietly();
    controller->setTargetTemperature(310.0);
    for (double const kelvin : {309.5, 310.5}) { // both 0.5 K away, exactly
        mBoard->set("probeTemperature", kelvin);
        for (int reading = 0; reading < 6; ++reading) {
            call(kPoll);
            EXPECT_FALSE(controller->isStable());
        }
    }
}

TEST_F(ATControllerOption, LosesItsStabilityWithOneReadingAndNeedsFiveMore) {
    auto const controller = makeQuietly();
    controller->setTargetTemperature(310.0);
    mBoard->set("probeTemperature", 310.0);
    for (int reading = 0; reading < 5; ++reading) {
        call(kPoll);
    }
    mBoard->set("probeTemperature", 311.0);
    call(kPoll);
    EXPECT_FALSE(controller->isStable());
    EXPECT_EQ(mListener->temperatureStability(), TemperatureStability::LeftBand);
    mBoard->set("probeTemperature", 310.0);
    for (int reading = 0; reading < 4; ++reading) {
        call(kPoll);
        EXPECT_FALSE(controller->isStable());
    }
    call(kPoll);
    EXPECT_TRUE(controller->isStable());
    // The daemon keeps to it that the band was left, until a ramp begins anew.
    EXPECT_EQ(mListener->temperatureStability(), TemperatureStability::LeftBand);
}

TEST_F(ATControllerOption, JudgesFormerReadingsByTheNewTarget) {
    auto const controller = makeQuietly();
    controller->setTargetTemperature(310.0);
    mBoard->set("probeTemperature", 310.3);
    for (int reading = 0; reading < 5; ++reading) {
        call(kPoll);
    }
    EXPECT_TRUE(controller->isStable());
    controller->setTargetTemperature(310.9);
    EXPECT_TRUE(controller->isStable()) << "until the next reading";
    call(kPoll);
    EXPECT_FALSE(controller->isStable());
    controller->setTargetTemperature(310.6); // 0.3 K away from all five
    call(kPoll);
    EXPECT_TRUE(controller->isStable());
}

TEST_F(ATControllerOption, LeavesTheJudgementAloneWhenTheProbeCannotBeRead) {
    auto const controller = makeQuietly();
    controller->setTargetTemperature(310.0);
    mBoard->set("probeTemperature", 310.0);
    for (int reading = 0; reading < 5; ++reading) {
        call(kPoll);
    }
    mBoard->fail("probeTemperature", "no answer");
    EXPECT_THROW(call(kPoll), std::runtime_error);
    EXPECT_TRUE(controller->isStable());
    mBoard->mend("probeTemperature");
    call(kPoll);
    EXPECT_TRUE(controller->isStable());
}

// --------------------------------------------------------------------------------------------------------
// gas

TEST_F(ATControllerOption, LetsTheUserChooseAFlowOfTheTable) {
    auto const controller = makeQuietly();
    std::jthread advance([&](std::stop_token const& aStop) { // The hold gas goes 0.3 s ahead.
        while (!aStop.stop_requested()) {
            mClock->advance(std::chrono::milliseconds(10));
            std::this_thread::yield();
        }
    });
    controller->setFlowOverrideByUser(400.0);
    advance.request_stop();
    advance.join();
    auto calls = mBoard->takeCalls();
    std::erase_if(calls, [](std::string const& aCall) { return !aCall.starts_with("set"); });
    EXPECT_THAT(calls, ElementsAre("setProbeGasFlow(1)", "setProbeGasFlow(3)"));
    EXPECT_EQ(mListener->gasFlow(), 400.0);
    expectThrow<std::out_of_range>([&] { controller->setFlowOverrideByUser(300.0); },
                                   "A probe gas flow of 300.000000 l/h is not possible.");
}

// -------------------------------------------------------------------------------------------------- the end

TEST_F(ATControllerOption, LeavesHeatingAndGasOff) {
    auto controller = makeQuietly();
    controller->setTargetTemperature(310.0);
    controller->setEnabled(true);
    awaitLine("Entering BeginRamp_SetHoldFlow state");
    controller.reset();
    EXPECT_THAT(mCallers->jobs(), IsEmpty());
    auto const calls = mBoard->takeCalls();
    ASSERT_GE(calls.size(), 5U);
    EXPECT_THAT(std::vector(calls.end() - 5, calls.end()),
                ElementsAre("setTargetProbeTemperature(292.15)", "setProbeTemperatureRegulation(false)",
                            "setProbeGasHeatingSpiralRegulation(false)", "setProbeGasHeatingSpiralPower(0)",
                            "setProbeGasFlow(0)"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info,
                                          "setTargetTemperature(temperatureInKelvin = "
                                          "310.000000"),
                                     line(Severity::Info, "setEnabled(enabled = 1)"),
                                     line(Severity::Info, "~ATController: destructor"),
                                     line(Severity::Info, "setEnabled(enabled = 0)")));
}

TEST_F(ATControllerOption, GoesEvenWhereTheBoardIsGone) {
    auto controller = makeQuietly();
    for (char const* const call : {"setTargetProbeTemperature", "setProbeTemperatureRegulation",
                                   "setProbeGasHeatingSpiralRegulation", "setProbeGasHeatingSpiralPower"}) {
        mBoard->fail(call, "no answer");
    }
    controller.reset();
    EXPECT_TRUE(mLog.has(Severity::Critical, "Could not switch heating and gas off: no answer"));
}

TEST_F(ATControllerOption, ComesAndGoesAnyNumberOfTimes) {
    for (int round = 0; round < 50; ++round) {
        auto const controller = make(recordText());
        controller->setTargetTemperature(310.0);
        controller->setEnabled(round % 2 == 0);
    }
    EXPECT_THAT(mCallers->jobs(), IsEmpty());
    EXPECT_EQ(mBoard.use_count(), 1);
    EXPECT_EQ(mListener.use_count(), 1);
}

TEST_F(ATControllerOption, TakesCallsFromManyThreads) {
    auto const controller = makeQuietly();
    auto const lock = std::make_shared<ScriptedLock>();
    lock->armed = true;
    {
        std::vector<std::jthread> threads;
        auto const repeat = [&threads](auto aStep) {
            threads.emplace_back([aStep] {
                for (int round = 0; round < 200; ++round) {
                    aStep(round);
                }
            });
        };
        repeat([&](int aRound) { controller->setTargetTemperature(300.0 + aRound % 20); });
        repeat([&](int aRound) { controller->setEnabled(aRound % 2 == 0); });
        repeat([&](int aRound) { controller->setLock(aRound % 2 == 0 ? lock : nullptr); });
        repeat([&](int aRound) { controller->setProbeTemperatureMin(284.0 + aRound % 10); });
        repeat([&](int /*aRound*/) { tick(); });
        repeat([&](int /*aRound*/) {
            controller->isStable();
            controller->enabled();
            controller->targetTemperature();
            controller->flowsAsXmlForPanorin();
        });
        repeat([&](int /*aRound*/) { call(kPoll); });
    }
    EXPECT_GE(controller->targetTemperature(), controller->temperatureRange().first);
    EXPECT_LE(controller->targetTemperature(), 319.0);
}

} // namespace
