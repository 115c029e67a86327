// SPDX-License-Identifier: Apache-2.0
// What the states of the adjustable temperature say of the events that they react to, and how urgent it is.
#include "unit/at/ATFSMRig.h"

#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using libfieldwarden::test::ATMachine;
using libfieldwarden::test::line;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::reachBegin;
using libfieldwarden::test::reachEnter;
using libfieldwarden::test::reachExchange;
using libfieldwarden::test::reachExit;
using libfieldwarden::test::reachFlush;
using libfieldwarden::test::reachRamp;
using libfieldwarden::test::reachRampToOff;
using libfieldwarden::test::reachTooLow;
using libfieldwarden::test::Severity;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST(ATFSMWords, OfAnEnable) {
    ATMachine machine;
    machine.begin();
    LogCapture log;
    machine.handle<EvEnable>();
    EXPECT_THAT(log.linesOf("AT FSM: Off state"),
                ElementsAre(line(Severity::Trace,
                                 "Enable and target temperature is high enough: going to "
                                 "BeginRamp_SetHoldFlow state"),
                            line(Severity::Debug, "Exiting OFF state")));
}

TEST(ATFSMWords, OfAnEnableWithoutATarget) {
    ATMachine machine;
    machine.parameters->setTargetTemperature(0.0);
    machine.begin();
    machine.take();
    LogCapture log;
    machine.handle<EvEnable>();
    EXPECT_TRUE(machine.in<OnButTargetTooLow>());
    EXPECT_THAT(machine.take(), IsEmpty());
    EXPECT_THAT(log.linesOf("AT FSM: Off state"), ElementsAre(line(Severity::Debug, "Exiting OFF state")));
}

TEST(ATFSMWords, OfATargetThatIsStillTooLow) {
    ATMachine machine;
    reachTooLow(machine);
    LogCapture log;
    machine.setTarget(299.0);
    EXPECT_TRUE(machine.in<OnButTargetTooLow>());
    EXPECT_THAT(log.linesOf("AT FSM: OnButTargetTooLow"),
                ElementsAre(line(Severity::Debug,
                                 "Target temperature is below the lowest allowed for temperature regulation: "
                                 "staying in this state")));
}

TEST(ATFSMWords, OfTheHoldFlowBeforeTheRamp) {
    ATMachine machine;
    reachBegin(machine);
    LogCapture log;
    machine.tick(299);
    machine.tick(1);
    EXPECT_THAT(log.linesOf("AT FSM: BeginRamp SetHoldFlow"),
                ElementsAre(line(Severity::Trace, "BeginTramp_SetHoldFlow: got timer tick with 299 ms"),
                            line(Severity::Trace, "BeginTramp_SetHoldFlow: got timer tick with 1 ms"),
                            line(Severity::Info,
                                 "Hold gas is on for more than 300ms, continue with RampTemperatureAndFlow"),
                            line(Severity::Debug, "Exiting BeginRamp_SetHoldFlow state")));
}

TEST(ATFSMWords, OfHoldFlowThatIsRefused) {
    ATMachine machine;
    machine.begin();
    machine.gas->refuses = true;
    LogCapture log;
    machine.handle<EvEnable>();
    EXPECT_THAT(log.linesOf("AT FSM: BeginRamp SetHoldFlow"),
                Contains(line(Severity::Error,
                              "~Entering: BeginRamp_SetHoldFlowFailed to set gas flow, going to error")));
}

TEST(ATFSMWords, OfANewTargetWhileRamping) {
    ATMachine machine;
    reachRamp(machine);
    machine.take();
    LogCapture log;
    machine.setTarget(320.0);
    EXPECT_TRUE(machine.in<RampTemperatureAndFlow>());
    EXPECT_THAT(machine.take(), IsEmpty()) << "it shows with the next step";
    auto const lines = log.linesOf("AT FSM: RampTemperatureAndFlow");
    EXPECT_EQ(lines.front(), line(Severity::Debug, "Got new target temperature while ramping"));
    EXPECT_EQ(lines.at(1), line(Severity::Debug, "+resetRamp(target = 320.000000K)"));
    log.clear();
    machine.setTarget(299.0);
    EXPECT_THAT(log.linesOf("AT FSM: RampTemperatureAndFlow"),
                ElementsAre(line(Severity::Debug, "Got new target temperature while ramping"),
                            line(Severity::Info, "New target is too low, disabling AT"),
                            line(Severity::Debug, "Exiting RampTemperatureAndFlow state")));
}

TEST(ATFSMWords, OfATargetThatIsReached) {
    ATMachine machine;
    reachRamp(machine);
    LogCapture log;
    machine.tick(600000);
    auto const lines = log.linesOf("AT FSM: RampTemperatureAndFlow");
    EXPECT_EQ(lines.front(), line(Severity::Trace, "RampTemperatureAndFlow: got timer tick (600000 ms)"));
    EXPECT_EQ(lines.at(lines.size() - 2), line(Severity::Info, "Target temperature has been reached"));
    EXPECT_THAT(log.linesOf("AT FSM: On"), ElementsAre(line(Severity::Info, "Entering ON state")));
}

TEST(ATFSMWords, OfTheRampToOff) {
    ATMachine machine;
    reachRampToOff(machine);
    LogCapture log;
    machine.tick(1000);
    EXPECT_EQ(log.linesOf("AT FSM: RampToOffTemperatureAndFlow").front(),
              line(Severity::Debug, "Ramp to off: current probe's temperature is 330.000000K"));
    log.clear();
    machine.board->probe = 308.15;
    machine.tick(1000);
    EXPECT_THAT(
        log.linesOf("AT FSM: RampToOffTemperatureAndFlow"),
        ElementsAre(line(Severity::Debug, "Ramp to off: current probe's temperature is 308.150000K"),
                    line(Severity::Info,
                         "Ramp to off: probe temperature is (308.150000K) <= than ramp to off's target "
                         "(308.150000K): done"),
                    line(Severity::Debug, "Exiting RampToOffTemperatureAndFlow")));
}

TEST(ATFSMWords, OfARampToOffThatOutlivesItsTime) {
    ATMachine machine;
    reachRampToOff(machine);
    LogCapture log;
    machine.tick(3600000); // 60 K down, with a probe that does not follow
    EXPECT_TRUE(log.has(Severity::Info, "Ramp to off: reached target temperature"));
    EXPECT_TRUE(machine.in<FlushBeforePowerOff>());
}

TEST(ATFSMWords, OfFlushAndHold) {
    ATMachine machine;
    reachFlush(machine);
    LogCapture log;
    machine.tick(5000);
    EXPECT_THAT(log.linesOf("AT FSM: FlushBeforePowerOff"), IsEmpty());
    machine.tick(1001);
    EXPECT_THAT(log.linesOf("AT FSM: FlushBeforePowerOff"),
                ElementsAre(line(Severity::Info,
                                 "OK flush gas have been on for long enough (6001 milliseconds): going to "
                                 "HoldBeforePowerOff state"),
                            line(Severity::Debug, "Exiting FlushBeforePowerOff state")));
    log.clear();
    machine.tick(300);
    EXPECT_THAT(log.linesOf("AT FSM: HoldBeforePowerOff"), IsEmpty());
    machine.tick(700);
    EXPECT_THAT(log.linesOf("AT FSM: HoldBeforePowerOff"),
                ElementsAre(line(Severity::Info,
                                 "OK hold gas have been on for long enough (1000 milliseconds): going to Off "
                                 "state"),
                            line(Severity::Debug, "Exiting HoldBeforePowerOff state")));
}

TEST(ATFSMWords, OfHoldFlowThatIsRefusedAtTheEnd) {
    ATMachine machine;
    reachFlush(machine);
    machine.gas->refuses = true;
    LogCapture log;
    machine.tick(5001);
    EXPECT_TRUE(machine.in<HoldBeforePowerOff>());
    EXPECT_THAT(log.linesOf("AT FSM: HoldBeforePowerOff"),
                ElementsAre(line(Severity::Info, "Entering HoldBeforePowerOff state"),
                            line(Severity::Warning,
                                 "Entering HoldBeforePowerOff failed to set the gas, ignoring the error")));
}

// ---------------------------------------------------------------------------------------------- the exchange

TEST(ATFSMWords, OfAnExchangeOnItsWayIn) {
    ATMachine machine;
    reachEnter(machine); // index 2 and hold
    LogCapture log;
    machine.tick(500);
    machine.tick(1);
    EXPECT_THAT(log.linesOf("AT FSM: SampleExchangeEnter"),
                ElementsAre(line(Severity::Trace, "SampleExchangeEnter: got timer tick with 500 ms"),
                            line(Severity::Trace, "SampleExchangeEnter: swFlowIndex = 2, gasHold = 1"),
                            line(Severity::Trace, "SampleExchangeEnter: swFlowIndex = 2, gasHold = 1"),
                            line(Severity::Trace, "SampleExchangeEnter: got timer tick with 1 ms"),
                            line(Severity::Trace, "SampleExchangeEnter: swFlowIndex = 2, gasHold = 1"),
                            line(Severity::Trace, "SampleExchangeEnter: swFlowIndex = 2, gasHold = 1"),
                            line(Severity::Info,
                                 "SampleExchangeEnter: reducing gas flow to sw index 1 and hold gas 1")));
    machine.tick(501);
    log.clear();
    machine.tick(501);
    EXPECT_THAT(log.linesOf("AT FSM: SampleExchangeEnter"),
                Contains(line(Severity::Info,
                              "SampleExchangeEnter: reducing gas flow to sw index 0 and hold gas 0")));
    log.clear();
    machine.tick(1);
    EXPECT_THAT(
        log.linesOf("AT FSM: SampleExchangeEnter"),
        ElementsAre(line(Severity::Trace, "SampleExchangeEnter: got timer tick with 1 ms"),
                    line(Severity::Trace, "SampleExchangeEnter: swFlowIndex = 0, gasHold = 0"),
                    line(Severity::Trace, "SampleExchangeEnter: swFlowIndex = 0, gasHold = 0"),
                    line(Severity::Info, "SampleExchangeEnter: gas flow is now 0, turning off regulation"),
                    line(Severity::Debug, "Exiting SampleExchangeEnter")));
}

TEST(ATFSMWords, OfAnExchangeOfASystemThatIsOff) {
    ATMachine machine;
    machine.begin();
    LogCapture log;
    machine.handle<EvPrepareTransfer>();
    EXPECT_THAT(log.linesOf("AT FSM: SampleExchangeEnter"),
                ElementsAre(line(Severity::Info,
                                 "Entering SampleExchangeEnter: current gas flow is 0, last set from sm is "
                                 "(index=0, hold=0), will ramp it down to 0"),
                            line(Severity::Info, "Flow is already off, nothing to do")));
    machine.tick(1);
    EXPECT_TRUE(machine.in<SampleExchange>()) << "however short the tick";
}

TEST(ATFSMWords, OfASampleThatIsAskedForInTheExchange) {
    ATMachine machine;
    reachExchange(machine);
    LogCapture log;
    machine.handle<EvPrepareTransfer>();
    machine.complete(false);
    machine.complete(true);
    EXPECT_THAT(
        log.linesOf("AT FSM: SampleExchange"),
        ElementsAre(line(Severity::Info, "SampleExchange: got EvPrepareTransfer: do nothing"),
                    line(Severity::Info, "SampleExchange: got EvCompleteTransfer and sampleInMagnet is 0"),
                    line(Severity::Info, "SampleExchange: got EvCompleteTransfer and sampleInMagnet is 1"),
                    line(Severity::Debug, "Leaving SampleExchange")));
}

TEST(ATFSMWords, OfAnExchangeOnItsWayOut) {
    ATMachine machine;
    reachExit(machine);
    LogCapture log;
    machine.tick(500);
    machine.tick(1);
    machine.tick(501);
    machine.tick(501);
    machine.tick(1);
    EXPECT_THAT(log.linesOf("AT FSM: SampleExchangeExit"),
                ElementsAre(line(Severity::Trace, "SampleExchangeExit: got timer tick with 500 ms"),
                            line(Severity::Trace, "SampleExchangeExit: got timer tick with 1 ms"),
                            line(Severity::Info, "SampleExchangeExit: set hold gas flow"),
                            line(Severity::Trace, "SampleExchangeExit: got timer tick with 501 ms"),
                            line(Severity::Info, "SampleExchangeExit: increasing gas hw flow index to 1"),
                            line(Severity::Trace, "SampleExchangeExit: got timer tick with 501 ms"),
                            line(Severity::Info, "SampleExchangeExit: increasing gas hw flow index to 2"),
                            line(Severity::Trace, "SampleExchangeExit: got timer tick with 1 ms"),
                            line(Severity::Info,
                                 "SampleExchangeExit: gas flow reached it's target. Restore hold gas = 1, "
                                 "info.RegulationEnabled = 1, info.targetTemperature = 330.000000"),
                            line(Severity::Debug, "Leaving SampleExchangeExit state")));
}

TEST(ATFSMWords, OfAUsersFlowInTheExchange) {
    ATMachine machine;
    reachExchange(machine);
    machine.gas->user = {true, 1};
    LogCapture log;
    machine.complete(true);
    EXPECT_THAT(
        log.linesOf("AT FSM: SampleExchangeExit"),
        ElementsAre(line(Severity::Debug, "SampleExchangeExit: flow is overriden in software"),
                    line(Severity::Info,
                         "Entering SampleExchangeExit: sample in magnet = 1, current gas flow is 0 (hw "
                         "index), will ramp it up to 1 (sw index) and set hold gas to 1")));
}

TEST(ATFSMWords, OfAnExchangeThatCannotBeUndone) {
    ATMachine machine;
    reachExit(machine);
    machine.gas->ignores = true;
    LogCapture log;
    machine.tick(10001);
    EXPECT_THAT(log.linesOf("AT FSM: SampleExchangeExit"),
                Contains(line(Severity::Error, "Failed to restore gas flow, timeout")));
    EXPECT_TRUE(
        log.has(Severity::Critical,
                "The AT state machine failed, it switches heating and gas off and begins anew; events "
                "that it has deferred are lost: Could not restore AT gas flow after sample exchange."));
    EXPECT_TRUE(machine.in<Off>());
    EXPECT_EQ(machine.status(), 7);
}

TEST(ATFSMWords, OfTheMetaStates) {
    ATMachine machine;
    LogCapture log;
    machine.begin();
    machine.handle<EvPrepareTransfer>();
    machine.tick(1);
    machine.complete(true);
    machine.tick(1);
    EXPECT_THAT(log.linesOf("AT FSM: Normal Meta State"),
                ElementsAre(line(Severity::Info, "Entering normal meta state"),
                            line(Severity::Info, "Leaving normal meta state"),
                            line(Severity::Info, "Entering normal meta state")));
    EXPECT_THAT(log.linesOf("AT FSM: SampleExchange Meta State"),
                ElementsAre(line(Severity::Info, "Entering sample exchange meta state"),
                            line(Severity::Info, "Leaving sample exchange meta state")));
}

} // namespace
