// SPDX-License-Identifier: Apache-2.0
// Where ramps begin and end, and what a state that ramps says of it.
#include "unit/at/ATFSMRig.h"

#include "support/LogCapture.h"

#include <cmath>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using libfieldwarden::test::ATMachine;
using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::line;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::reachBegin;
using libfieldwarden::test::reachOn;
using libfieldwarden::test::reachRamp;
using libfieldwarden::test::Severity;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char const* kRamp = "AT FSM: RampTemperatureAndFlow";
constexpr char const* kDown = "AT FSM: RampToOffTemperatureAndFlow";

/// 290 K to 305 K without gas, up to 350 K 200 l/h.
constexpr char const* kRecordWithoutGasBelow =
    R"(<record><group name="TemperatureRange"><value>0</value><value>0</value><value>290</value>)"
    R"(<value>350</value></group><group name="FlowForTemperature"><value>0</value><value>0</value>)"
    R"(<value>290</value><value>305</value><value>0</value></group>)"
    R"(<group name="FlowForTemperature"><value>0</value><value>0</value><value>305</value>)"
    R"(<value>350</value><value>200</value></group></record>)";

/// 200 l/h from 0 K to 400 K.
constexpr char const* kRecordFromZero =
    R"(<record><group name="TemperatureRange"><value>0</value><value>0</value><value>0</value>)"
    R"(<value>400</value></group><group name="FlowForTemperature"><value>0</value><value>0</value>)"
    R"(<value>0</value><value>400</value><value>200</value></group></record>)";

TEST(StateWithRamp, SaysHowARampBegins) {
    ATMachine machine;
    reachBegin(machine);
    LogCapture log;
    machine.tick(300);
    EXPECT_THAT(
        log.linesOf(kRamp),
        ElementsAre(
            line(Severity::Info, "Entering RampTemperatureAndFlow state"),
            line(Severity::Trace, "Notifying listener.."), line(Severity::Trace, "Done... resetting ramp"),
            line(Severity::Trace, "Got the target temperature: 310.000000K"),
            line(Severity::Debug, "+resetRamp(target = 310.000000K)"),
            line(Severity::Info,
                 "Lowest temperature with non null flow is 300.000000K, while minimal start temperature is "
                 "0.000000K: will use highest of both"),
            line(Severity::Trace,
                 "-isRampRequired: 1, with current 300.000000K and startRampUpTemperature 0.000000K"),
            line(Severity::Info, "resetRamp: starts ramp with 300.000000K"),
            line(Severity::Info,
                 "resetRamp: new target is 310.000000K, current temperature considered to be 300.000000K"),
            line(Severity::Trace, "Done...doing ramp step"), line(Severity::Trace, "+doRampStep"),
            line(Severity::Info,
                 "setTargetTemperatureAndFlow: targetTemperature = 300.000000K, flow = 200.000000 l/h, "
                 "index = 1"),
            line(Severity::Trace, "Done... resetting stability"),
            line(Severity::Info, "Entered RampTemperatureAndFlow state")));
    EXPECT_THAT(log.linesOf("AT FSM"),
                ElementsAre(line(Severity::Debug,
                                 "isTargetAboveStartThreshold() = 1 with \n"
                                 "board()->probeGasMinimalRegulatedTemperature() = 280.000000K\n"
                                 "flows()->temperatureRange().first = 300.000000K\n"
                                 "parameters()->targetTemperature() = 310.000000K")));
    EXPECT_THAT(log.linesOf("ATRamp"),
                Contains(line(Severity::Info, "reset(from = 300.000000, to = 310.000000, mSlopeSign = 1)")));
}

TEST(StateWithRamp, BeginsWithTheProbeWhereItIsWarmer) {
    ATMachine machine;
    machine.board->probe = 305.5;
    reachRamp(machine);
    EXPECT_EQ(machine.board->target, 305.5);
}

TEST(StateWithRamp, GoesDownFromAProbeThatIsTooWarm) {
    ATMachine machine;
    machine.board->probe = 330.0;
    reachRamp(machine);
    EXPECT_EQ(machine.board->target, 330.0);
    EXPECT_EQ(machine.board->index, 2);
    machine.tick(60000); // 1 K a minute
    EXPECT_NEAR(machine.board->target, 329.0, 1e-9);
    machine.tick(540000); // ten minutes: 320 K, which belongs to the lower of two entries
    EXPECT_NEAR(machine.board->target, 320.0, 1e-9);
}

TEST(StateWithRamp, ChangesTheFlowBeforeTheTemperatureOnBothWays) {
    for (double const probe : {312.0, 332.0}) {
        ATMachine machine;
        machine.board->probe = probe;
        machine.parameters->setTargetTemperature(probe < 320 ? 330.0 : 310.0);
        reachRamp(machine);
        machine.take();
        machine.tick(720001); // 12 K further, beyond 320 K
        auto const journal = machine.take();
        ASSERT_EQ(journal.size(), 2U);
        EXPECT_EQ(journal.front(), probe < 320 ? "flow 2 1" : "flow 1 1");
        EXPECT_THAT(journal.back(), testing::StartsWith("target "));
    }
}

TEST(StateWithRamp, GoesToTheLowestTemperatureWithGasForATargetBelowIt) {
    ATMachine machine(kRecordWithoutGasBelow);
    machine.parameters->setTargetTemperature(292.0);
    machine.board->probe = 310.0;
    reachBegin(machine);
    LogCapture log;
    machine.tick(300);
    EXPECT_TRUE(log.has(Severity::Info,
                        "resetRamp: target too low, use minimal start temperature (305.000000K) as target"));
    EXPECT_TRUE(log.has(Severity::Info,
                        "resetRamp: new target is 305.000000K, current temperature considered to be "
                        "310.000000K"));
    EXPECT_EQ(machine.board->target, 310.0);
    machine.tick(120000);
    EXPECT_NEAR(machine.board->target, 308.0, 1e-9);
    // Within 1 K of the ramp's end it jumps to the target, also where that is outside of the ramp.
    machine.tick(121000);
    EXPECT_EQ(machine.board->target, 292.0);
    EXPECT_EQ(machine.board->index, 0);
    EXPECT_TRUE(machine.board->hold) << "in a ramp the hold flow stays on";
    EXPECT_TRUE(machine.in<On>());
}

TEST(StateWithRamp, NeedsNoRampFromAbsoluteZero) {
    ATMachine machine(kRecordFromZero);
    machine.board->regulated = {0.0, 400.0};
    machine.board->probe = 0.0;
    machine.parameters->setTargetTemperature(0.0);
    reachBegin(machine);
    LogCapture log;
    machine.tick(300);
    EXPECT_TRUE(log.has(Severity::Trace,
                        "-isRampRequired: 0, with current 0.000000K and startRampUpTemperature 0.000000K"));
    EXPECT_TRUE(log.has(Severity::Info, "resetRamp: no ramp required, immediately set target"));
    EXPECT_FALSE(log.has(Severity::Info, "resetRamp: starts ramp with 0.000000K"));
    EXPECT_TRUE(machine.in<On>());
}

TEST(StateWithRamp, IsThereAtOnceWhereTheProbeIsWithinOneKelvin) {
    ATMachine machine;
    machine.board->probe = 309.0;
    reachBegin(machine);
    machine.take();
    LogCapture log;
    machine.tick(300);
    EXPECT_TRUE(log.has(Severity::Info, "already at target, going to switch to On state"));
    EXPECT_TRUE(machine.in<On>());
    EXPECT_EQ(machine.board->target, 310.0);
    ATMachine further;
    further.board->probe = 308.9;
    reachRamp(further);
    EXPECT_TRUE(further.in<RampTemperatureAndFlow>());
}

TEST(StateWithRamp, LeavesOutStepsBelowOneKelvin) {
    ATMachine machine;
    reachRamp(machine); // at 300 K
    machine.take();
    LogCapture log;
    machine.tick(59000);
    EXPECT_THAT(machine.take(), IsEmpty());
    EXPECT_THAT(log.linesOf(kRamp),
                ElementsAre(line(Severity::Trace, "RampTemperatureAndFlow: got timer tick (59000 ms)"),
                            line(Severity::Trace, "+doRampStep"),
                            line(Severity::Trace,
                                 "doRampStep: delta to current target is too low, skipping this step")));
}

TEST(StateWithRamp, SaysWhenTheGasDoesNotFollow) {
    ATMachine machine;
    reachRamp(machine);
    machine.gas->refuses = true;
    LogCapture log;
    machine.tick(60001);
    EXPECT_TRUE(log.has(Severity::Error, "StateWithRamp: failed to set the gas flow"));
}

TEST(StateWithRamp, LooksForTheGasAtEachStep) {
    ATMachine machine;
    reachRamp(machine);
    machine.happenings.failing = "lookForGas";
    machine.tick(59000); // no step yet
    EXPECT_TRUE(machine.in<RampTemperatureAndFlow>());
    LogCapture log;
    machine.tick(1001);
    EXPECT_TRUE(
        log.has(Severity::Error,
                "Error while doing ramp step, setting error flag and shutdown AT. Error was no answer"));
}

/// The heating ends at once, not where the ramp to off ends.
TEST(StateWithRamp, GivesUpARampWhoseUserTurnsTheGasOff) {
    ATMachine machine;
    machine.board->probe = 330.0;
    reachRamp(machine);
    machine.gas->user = {true, 0};
    machine.gas->ignores = true;
    machine.board->index = 0;
    machine.board->hold = false;
    machine.take();
    LogCapture log;
    machine.tick(60001);
    EXPECT_TRUE(log.has(Severity::Error, "StateWithRamp: no gas flows, the probe must not be heated"));
    EXPECT_TRUE(
        log.has(Severity::Error,
                "Error while doing ramp step, setting error flag and shutdown AT. Error was Failed to "
                "set the gas flow"));
    auto const journal = machine.take();
    ASSERT_GE(journal.size(), 2U);
    EXPECT_EQ(journal.at(0), "flow 2 1");
    EXPECT_EQ(journal.at(1), "regulation 0");
    EXPECT_FALSE(machine.board->regulates);
    EXPECT_EQ(machine.status(), 7);
}

TEST(StateWithRamp, EndsTheHeatingWithAFlowThatIsRefused) {
    ATMachine machine;
    machine.board->probe = 330.0;
    reachRamp(machine);
    machine.gas->refuses = true;
    machine.take();
    machine.tick(60001);
    EXPECT_FALSE(machine.board->regulates);
    EXPECT_EQ(machine.take().at(1), "regulation 0");
}

TEST(StateWithRamp, LooksBetweenTheStepsWhetherGasWasSeen) {
    ATMachine machine;
    reachRamp(machine);
    machine.board->index = 0;
    machine.board->hold = false;
    machine.tick(1000);
    EXPECT_FALSE(machine.board->regulates);
    EXPECT_EQ(machine.status(), 7);
}

TEST(StateWithRamp, StopsATargetThatIsTooLowBeforeItHeats) {
    ATMachine machine;
    reachBegin(machine);
    machine.parameters->setTargetTemperature(299.9);
    machine.take();
    LogCapture log;
    machine.tick(300);
    EXPECT_THAT(log.linesOf(kRamp),
                ElementsAre(line(Severity::Info, "Entering RampTemperatureAndFlow state"),
                            line(Severity::Warning, "Target temperature is too low: stopping AT"),
                            line(Severity::Debug, "Exiting RampTemperatureAndFlow state")));
    EXPECT_FALSE(machine.board->regulates);
    EXPECT_TRUE(machine.in<FlushBeforePowerOff>()) << "by way of the ramp to off, which is over at once";
}

// ---------------------------------------------------------------------------------------------- the way down

TEST(StateWithRamp, SaysHowTheRampToOffBegins) {
    ATMachine machine;
    reachOn(machine); // 330 K
    machine.board->target = 335.0;
    LogCapture log;
    machine.handle<EvDisable>();
    EXPECT_THAT(
        log.linesOf(kDown),
        ElementsAre(
            line(Severity::Info, "Entering RampToOffTemperatureAndFlow"),
            line(Severity::Debug,
                 "Ramp to off target temperature is 308.150000K, with board min 280.000000K, flow min "
                 "300.000000K and stop ramp down 308.150000K"),
            line(Severity::Debug, "Ramp to off: current probe temperature is 330.000000K"),
            line(Severity::Debug, "+resetRamp(target = 308.150000K)"),
            line(Severity::Info,
                 "Lowest temperature with non null flow is 300.000000K, while minimal start temperature is "
                 "0.000000K: will use highest of both"),
            line(Severity::Trace,
                 "-isRampRequired: 1, with current 330.000000K and startRampUpTemperature 0.000000K"),
            line(Severity::Info, "resetRamp: starts ramp with 330.000000K"),
            line(Severity::Info,
                 "resetRamp: new target is 308.150000K, current temperature considered to be 330.000000K"),
            line(Severity::Trace, "+doRampStep"),
            line(Severity::Info,
                 "setTargetTemperatureAndFlow: targetTemperature = 330.000000K, flow = 400.000000 l/h, "
                 "index = 2")));
}

TEST(StateWithRamp, RampsToTheHighestOfTheThreeLowerBounds) {
    for (auto const& [board, wanted] :
         std::vector<std::pair<double, double>>{{280.0, 308.15}, {312.0, 312.0}}) {
        ATMachine machine;
        reachOn(machine);
        machine.board->regulated.first = board;
        machine.handle<EvDisable>();
        machine.tick(3600000);
        EXPECT_NEAR(machine.board->target, wanted, 1e-9);
        EXPECT_TRUE(machine.in<FlushBeforePowerOff>());
    }
}

TEST(StateWithRamp, IsOverWhereTheProbeIsColdEnough) {
    ATMachine machine;
    reachOn(machine);
    machine.board->probe = 308.15;
    LogCapture log;
    machine.handle<EvDisable>();
    EXPECT_TRUE(log.has(Severity::Info, "Ramp to off: already at or below target"));
    EXPECT_TRUE(machine.in<FlushBeforePowerOff>());
}

TEST(StateWithRamp, IsOverWhereTheProbeIsNearlyColdEnough) {
    ATMachine machine;
    reachOn(machine);
    machine.board->probe = 309.0; // within 1 K of 308.15 K
    LogCapture log;
    machine.handle<EvDisable>();
    EXPECT_TRUE(log.has(Severity::Debug, "Ramp to off: already reached target"));
    EXPECT_TRUE(machine.in<FlushBeforePowerOff>());
    EXPECT_EQ(machine.board->target, 308.15);
}

} // namespace
