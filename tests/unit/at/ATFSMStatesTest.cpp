// SPDX-License-Identifier: Apache-2.0
// The whole transition table of the adjustable temperature, every state times every event, in one thread.
#include "unit/at/ATFSMRig.h"

#include "support/LogCapture.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using libfieldwarden::at::made;
using libfieldwarden::test::ATMachine;
using libfieldwarden::test::begin;
using libfieldwarden::test::Journal;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::reachBegin;
using libfieldwarden::test::reachEnter;
using libfieldwarden::test::reachExchange;
using libfieldwarden::test::reachExit;
using libfieldwarden::test::reachFlush;
using libfieldwarden::test::reachHardPowerOff;
using libfieldwarden::test::reachHold;
using libfieldwarden::test::reachOn;
using libfieldwarden::test::reachRamp;
using libfieldwarden::test::reachRampToOff;
using libfieldwarden::test::reachTooLow;
using libfieldwarden::test::Severity;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Event = boost::intrusive_ptr<boost::statechart::event_base const>;

constexpr std::array kEventNames{"EvEnable",          "EvDisable",         "EvSetTargetTemperature",
                                 "EvAtTarget",        "EvTimerTick",       "EvHardPowerOff",
                                 "EvPrepareTransfer", "EvCompleteTransfer"};

constexpr std::size_t kPrepare = 6;

Event makeEvent(ATMachine& aMachine, std::size_t aColumn) {
    switch (aColumn) {
        case 0:
            return made<EvEnable>();
        case 1:
            return made<EvDisable>();
        case 2:
            return made<EvSetTargetTemperature>();
        case 3:
            return aMachine.arrival();
        case 4:
            return made<EvTimerTick>(std::chrono::milliseconds(10)); // too short to end any state by time
        case 5:
            return made<EvHardPowerOff>();
        case 6:
            return made<EvPrepareTransfer>();
        default:
            return made<EvCompleteTransfer>();
    }
}

/// @return The name of the innermost state.
std::string stateOf(ATMachine& aMachine) {
    std::string name;
    auto const look = [&](char const* aName, bool aIsIn) {
        if (aIsIn) {
            EXPECT_TRUE(name.empty()) << "in two states";
            name = aName;
        }
    };
    look("Off", aMachine.in<Off>());
    look("OnButTargetTooLow", aMachine.in<OnButTargetTooLow>());
    look("BeginRamp_SetHoldFlow", aMachine.in<BeginRamp_SetHoldFlow>());
    look("RampTemperatureAndFlow", aMachine.in<RampTemperatureAndFlow>());
    look("On", aMachine.in<On>());
    look("RampToOffTemperatureAndFlow", aMachine.in<RampToOffTemperatureAndFlow>());
    look("FlushBeforePowerOff", aMachine.in<FlushBeforePowerOff>());
    look("HoldBeforePowerOff", aMachine.in<HoldBeforePowerOff>());
    look("HardPowerOff", aMachine.in<HardPowerOff>());
    look("SampleExchangeEnter", aMachine.in<SampleExchangeEnter>());
    look("SampleExchange", aMachine.in<SampleExchange>());
    look("SampleExchangeExit", aMachine.in<SampleExchangeExit>());
    return name;
}

struct Row {
    char const* state;
    void (*reach)(ATMachine&);
    std::array<char const*, kEventNames.size()> next; ///< Null where the event is discarded or put off.
};

constexpr char const* kRamp = "RampTemperatureAndFlow";
constexpr char const* kDown = "RampToOffTemperatureAndFlow";
constexpr char const* kBegin = "BeginRamp_SetHoldFlow";
constexpr char const* kFlush = "FlushBeforePowerOff";
constexpr char const* kHard = "HardPowerOff";
constexpr char const* kEnter = "SampleExchangeEnter";

// Enable, disable, target, at target, tick of 10 ms, hard power off, prepare, complete. The target is 310 K;
// the hot probe of `On` and later ones makes a ramp from 330 K.
constexpr auto kRows = std::to_array<Row>({
    {"Off", begin, {kBegin, nullptr, nullptr, nullptr, nullptr, kHard, kEnter, nullptr}},
    {"OnButTargetTooLow", reachTooLow, {nullptr, "Off", kBegin, nullptr, nullptr, kHard, kEnter, nullptr}},
    {kBegin, reachBegin, {nullptr, kFlush, nullptr, nullptr, nullptr, kHard, kEnter, nullptr}},
    // The probe is at 300 K, so that the ramp to off is over at once.
    {kRamp, reachRamp, {nullptr, kFlush, nullptr, "On", nullptr, kHard, kEnter, nullptr}},
    {"On", reachOn, {nullptr, kDown, kRamp, nullptr, nullptr, kHard, kEnter, nullptr}},
    {kDown, reachRampToOff, {kRamp, nullptr, kRamp, kFlush, nullptr, kHard, kEnter, nullptr}},
    {kFlush, reachFlush, {kRamp, nullptr, kRamp, nullptr, nullptr, kHard, kEnter, nullptr}},
    {"HoldBeforePowerOff", reachHold, {kRamp, nullptr, kRamp, nullptr, nullptr, kHard, kEnter, nullptr}},
    {kHard, reachHardPowerOff, {kRamp, nullptr, kRamp, nullptr, nullptr, kHard, kEnter, nullptr}},
    {kEnter, reachEnter, {nullptr, nullptr, nullptr, nullptr, nullptr, kHard, nullptr, "SampleExchangeExit"}},
    {"SampleExchange",
     reachExchange,
     {nullptr, nullptr, nullptr, nullptr, nullptr, kHard, nullptr, "SampleExchangeExit"}},
    {"SampleExchangeExit", reachExit, {nullptr, nullptr, nullptr, nullptr, nullptr, kHard, kEnter, nullptr}},
});

TEST(ATFSMStates, GoWhereTheTableSays) {
    for (Row const& row : kRows) {
        for (std::size_t column = 0; column < kEventNames.size(); ++column) {
            SCOPED_TRACE(std::string(row.state) + " + " + kEventNames.at(column));
            ATMachine machine;
            row.reach(machine);
            ASSERT_EQ(stateOf(machine), row.state);
            machine.take();
            machine.handle(makeEvent(machine, column));
            char const* const next = row.next.at(column);
            EXPECT_EQ(stateOf(machine), next == nullptr ? row.state : next);
            bool const isAnswered = std::string(row.state) == "SampleExchange" && column == kPrepare;
            if (next == nullptr && !isAnswered) {
                EXPECT_THAT(machine.take(), IsEmpty());
            }
        }
    }
}

/// What a state does on entry, in order, and its lines.
struct EntryRow {
    char const* state;
    void (*reach)(ATMachine&);
    char const* logger;
    char const* entry;
    char const* exit;
};

constexpr auto kEntryRows = std::to_array<EntryRow>({
    {"Off", begin, "AT FSM: Off state", "Entering OFF state", "Exiting OFF state"},
    {"OnButTargetTooLow", reachTooLow, "AT FSM: OnButTargetTooLow", "Entering OnButTargetTooLow state",
     "Exiting OnButTargetTooLow state"},
    {kBegin, reachBegin, "AT FSM: BeginRamp SetHoldFlow", "Entering BeginRamp_SetHoldFlow state",
     "Exiting BeginRamp_SetHoldFlow state"},
    {kRamp, reachRamp, "AT FSM: RampTemperatureAndFlow", "Entering RampTemperatureAndFlow state",
     "Exiting RampTemperatureAndFlow state"},
    {"On", reachOn, "AT FSM: On", "Entering ON state", "Exiting ON state"},
    {kDown, reachRampToOff, "AT FSM: RampToOffTemperatureAndFlow", "Entering RampToOffTemperatureAndFlow",
     "Exiting RampToOffTemperatureAndFlow"},
    {kFlush, reachFlush, "AT FSM: FlushBeforePowerOff", "Entering FlushBeforePowerOff state",
     "Exiting FlushBeforePowerOff state"},
    {"HoldBeforePowerOff", reachHold, "AT FSM: HoldBeforePowerOff", "Entering HoldBeforePowerOff state",
     "Exiting HoldBeforePowerOff state"},
    {kHard, reachHardPowerOff, "AT FSM: HardPowerOff", "Entering HardPowerOff", "Exiting HardPowerOff"},
    {kEnter, reachEnter, "AT FSM: SampleExchangeEnter",
     "Entering SampleExchangeEnter: current gas flow is 3, last set from sm is (index=2, hold=1), will ramp "
     "it down to 0",
     "Exiting SampleExchangeEnter"},
    {"SampleExchange", reachExchange, "AT FSM: SampleExchange",
     "Entering SampleExchange: now ready for sample exchange", "Leaving SampleExchange"},
    {"SampleExchangeExit", reachExit, "AT FSM: SampleExchangeExit",
     "Entering SampleExchangeExit: sample in magnet = 1, current gas flow is 0 (hw index), will ramp it up "
     "to 2 (sw index) and set hold gas to 1",
     "Leaving SampleExchangeExit state"},
});

TEST(ATFSMStates, SayWhenTheyAreEnteredAndLeft) {
    for (EntryRow const& row : kEntryRows) {
        SCOPED_TRACE(row.state);
        LogCapture log;
        ATMachine machine;
        row.reach(machine);
        EXPECT_EQ(log.count(Severity::Info, row.entry), 1U);
        EXPECT_EQ(log.count(Severity::Debug, row.exit), 0U);
        EXPECT_EQ(log.linesOf(row.logger).front().text, row.entry);
        EXPECT_EQ(log.linesOf(row.logger).front().category, "Temperature");
        machine.handle<EvHardPowerOff>();
        EXPECT_EQ(log.count(Severity::Debug, row.exit), 1U);
    }
}

/// What lasts until the state is reached is forgotten but for the last action.
Journal entryOf(void (*aReach)(ATMachine&), void (*aStep)(ATMachine&)) {
    ATMachine machine;
    aReach(machine);
    machine.take();
    aStep(machine);
    return machine.take();
}

TEST(ATFSMStates, ActOnEntryInThisOrder) {
    Journal const off{"regulation 0", "gas 0",       "status 0",  "gas status 0",
                      "measured 0",   "operation 0", "standby 0", "control status 0"};
    EXPECT_EQ(entryOf([](ATMachine&) {}, begin), off);
    EXPECT_EQ(entryOf(reachHold, [](ATMachine& aMachine) { aMachine.tick(301); }), off);
    EXPECT_THAT(entryOf(begin, [](ATMachine& aMachine) { aMachine.handle<EvEnable>(); }),
                ElementsAre("reset user flow", "flow 0 1"));
    // The probe is at 300 K, the target 310 K: the ramp begins at 300 K at the least, index 1.
    EXPECT_THAT(entryOf(reachBegin, [](ATMachine& aMachine) { aMachine.tick(300); }),
                ElementsAre("regulation 1", "status 1", "control status 1", "gas status 1", "flow 1 1",
                            "target 300.00"));
    EXPECT_THAT(entryOf(reachRamp, [](ATMachine& aMachine) { aMachine.handle(aMachine.arrival()); }),
                ElementsAre("control status 2", "gas status 2"));
    // 330 K down to 308.15 K: the first step would be 0 K, and is left out.
    EXPECT_THAT(entryOf(reachOn, [](ATMachine& aMachine) { aMachine.handle<EvDisable>(); }),
                ElementsAre("gas status 1", "control status 1", "stability 0"));
    EXPECT_THAT(entryOf(reachBegin, [](ATMachine& aMachine) { aMachine.handle<EvDisable>(); }), IsEmpty());
    EXPECT_THAT(entryOf(reachFlush, [](ATMachine& aMachine) { aMachine.tick(5001); }),
                ElementsAre("flow 0 1"));
    EXPECT_THAT(entryOf(begin, [](ATMachine& aMachine) { aMachine.handle<EvHardPowerOff>(); }),
                ElementsAre("target 292.15", "regulation 0", "spiral regulation 0", "spiral power 0", "gas 0",
                            "gas status 0", "status 7", "control status 0"));
    EXPECT_THAT(entryOf(reachOn, [](ATMachine& aMachine) { aMachine.handle<EvPrepareTransfer>(); }),
                ElementsAre("reset transfer", "strict 1"));
    EXPECT_THAT(entryOf(reachExchange, [](ATMachine& aMachine) { aMachine.handle<EvCompleteTransfer>(); }),
                IsEmpty());
}

TEST(ATFSMStates, TakeTheGasDownAndUpStepByStep) {
    ATMachine machine;
    reachEnter(machine);
    machine.take();
    machine.tick(500); // not longer than the step period
    EXPECT_THAT(machine.take(), IsEmpty());
    machine.tick(1);
    EXPECT_THAT(machine.take(), ElementsAre("exchange flow 1 1"));
    machine.tick(501);
    EXPECT_THAT(machine.take(), ElementsAre("exchange flow 0 1"));
    machine.tick(501);
    EXPECT_THAT(machine.take(), ElementsAre("exchange flow 0 0"));
    machine.tick(1);
    EXPECT_THAT(machine.take(),
                ElementsAre("regulation 0", "transfer 1", "gas status 8", "control status 6"));
    machine.complete(true);
    machine.tick(501);
    EXPECT_THAT(machine.take(), ElementsAre("exchange flow 0 1"));
    machine.tick(501);
    machine.tick(501);
    EXPECT_THAT(machine.take(), ElementsAre("exchange flow 1 1", "exchange flow 2 1"));
    machine.tick(1);
    EXPECT_THAT(machine.take(), ElementsAre("target 330.00", "regulation 1", "strict 0", "transfer 1",
                                            "control status 2", "gas status 2"));
    EXPECT_TRUE(machine.in<On>());
}

TEST(ATFSMStates, StayInTheExchangeWithoutASample) {
    ATMachine machine;
    reachExchange(machine);
    machine.take();
    machine.complete(false);
    EXPECT_TRUE(machine.in<SampleExchange>());
    machine.handle<EvPrepareTransfer>();
    EXPECT_TRUE(machine.in<SampleExchange>());
    EXPECT_THAT(machine.take(), ElementsAre("transfer 1", "transfer 1"));
}

TEST(ATFSMStates, PutOffADisableUntilTheExchangeIsOver) {
    ATMachine machine;
    reachExchange(machine);
    machine.handle<EvDisable>();
    machine.complete(true);
    for (int step = 0; step < 4; ++step) {
        EXPECT_TRUE(machine.in<SampleExchangeExit>());
        machine.tick(501);
    }
    EXPECT_TRUE(machine.in<RampToOffTemperatureAndFlow>());
}

/// The exchange's states with what brings each of them back to where the exchange began, which is `On`.
struct DeferralRow {
    char const* state;
    void (*reach)(ATMachine&);
    bool isComplete; ///< Whether the completion has come already.
};

constexpr auto kDeferrals = std::to_array<DeferralRow>({{kEnter, reachEnter, false},
                                                        {"SampleExchange", reachExchange, false},
                                                        {"SampleExchangeExit", reachExit, true}});

void finishExchange(ATMachine& aMachine, bool aIsComplete) {
    if (!aIsComplete) {
        aMachine.complete(true);
    }
    for (int step = 0; step < 4 && aMachine.in<SampleExchangeExit>(); ++step) {
        aMachine.tick(501);
    }
}

TEST(ATFSMStates, PutOffWhatIsAskedForInAnyStateOfAnExchange) {
    for (DeferralRow const& row : kDeferrals) {
        SCOPED_TRACE(row.state);
        ATMachine disabled;
        row.reach(disabled);
        disabled.handle<EvDisable>();
        EXPECT_EQ(stateOf(disabled), row.state);
        finishExchange(disabled, row.isComplete);
        EXPECT_EQ(stateOf(disabled), kDown);

        ATMachine target;
        row.reach(target);
        target.handle<EvSetTargetTemperature>();
        EXPECT_EQ(stateOf(target), row.state);
        finishExchange(target, row.isComplete);
        EXPECT_EQ(stateOf(target), kRamp);

        ATMachine enabled; // which `On` does not know
        row.reach(enabled);
        enabled.handle<EvEnable>();
        EXPECT_EQ(stateOf(enabled), row.state);
        finishExchange(enabled, row.isComplete);
        EXPECT_EQ(stateOf(enabled), "On");
    }
}

TEST(ATFSMStates, KeepTheOrderOfWhatTheyPutOff) {
    ATMachine machine;
    reachEnter(machine);
    machine.handle<EvDisable>();
    machine.tick(501);
    machine.handle<EvEnable>();
    machine.handle<EvDisable>();
    finishExchange(machine, false);
    EXPECT_EQ(stateOf(machine), kDown) << "down, up and down again";
    ATMachine other;
    reachExchange(other);
    other.handle<EvDisable>();
    other.complete(true);
    other.handle<EvEnable>();
    finishExchange(other, true);
    EXPECT_EQ(stateOf(other), kRamp) << "down and up again";
}

/// The way down is over at once, and says so behind what was put off: by then the next ramp is under way.
TEST(ATFSMStates, DoNotTakeTheArrivalOfAFormerRampForTheirOwn) {
    ATMachine machine;
    reachExchange(machine);
    machine.board->probe = 300.0;
    machine.handle<EvDisable>();
    machine.setTarget(340.0);
    machine.handle<EvEnable>();
    finishExchange(machine, false);
    EXPECT_EQ(stateOf(machine), kRamp) << "from 300 K to 340 K";
}

/// The ramp is over at once; taken for the end of the way down, that would cut the gas of a hot probe.
TEST(ATFSMStates, KeepTheGasOfAHotProbeWhoseRampWasOverAtOnce) {
    ATMachine machine;
    reachExchange(machine);
    machine.board->probe = 340.0;
    machine.setTarget(340.0);
    machine.handle<EvDisable>();
    LogCapture log;
    finishExchange(machine, false);
    EXPECT_EQ(stateOf(machine), kDown);
    EXPECT_TRUE(log.has(Severity::Debug, "It was a former ramp that has arrived"));
    machine.tick(6000);
    machine.tick(1000);
    EXPECT_EQ(stateOf(machine), kDown);
    EXPECT_EQ(machine.board->index, 2);
}

TEST(ATFSMStates, ListenOnlyToTheirOwnRamp) {
    for (auto const reach : {reachRamp, reachRampToOff}) {
        ATMachine machine;
        reach(machine);
        auto const state = stateOf(machine);
        machine.handle(machine.arrival(1));
        EXPECT_EQ(stateOf(machine), state);
        machine.handle(machine.arrival());
        EXPECT_NE(stateOf(machine), state);
    }
}

TEST(ATFSMStates, ForgetNothingOfWhatWasPutOffInAnExchangeOfASystemThatIsOff) {
    ATMachine machine;
    machine.begin();
    machine.handle<EvPrepareTransfer>();
    machine.handle<EvEnable>();
    machine.tick(1);
    EXPECT_TRUE(machine.in<SampleExchange>());
    machine.complete(true);
    machine.tick(1);
    EXPECT_EQ(stateOf(machine), kBegin);
}

/// What is told to the daemon and the board when an exchange leads back: the entry of the state, anew.
TEST(ATFSMStates, EnterAnewWhereTheyComeBack) {
    auto const backTo = [](void (*aReach)(ATMachine&)) {
        ATMachine machine;
        aReach(machine);
        machine.handle<EvPrepareTransfer>();
        for (int step = 0; step < 5 && !machine.in<SampleExchange>(); ++step) {
            machine.tick(501);
        }
        machine.complete(true);
        Journal last;
        for (int step = 0; step < 5 && machine.in<SampleExchangeExit>(); ++step) {
            machine.take();
            machine.tick(501);
            last = machine.take();
        }
        EXPECT_GE(last.size(), 2U);
        auto const strict = std::find(last.begin(), last.end(), "strict 0");
        EXPECT_NE(strict, last.end());
        last.erase(last.begin(), strict);
        return last;
    };
    EXPECT_THAT(backTo(begin),
                ElementsAre("strict 0", "transfer 1", "regulation 0", "gas 0", "status 0", "gas status 0",
                            "measured 0", "operation 0", "standby 0", "control status 0"));
    EXPECT_THAT(backTo(reachTooLow), ElementsAre("strict 0", "transfer 1"));
    EXPECT_THAT(backTo(reachBegin), ElementsAre("strict 0", "transfer 1", "reset user flow", "flow 0 1"));
    EXPECT_THAT(backTo(reachRamp),
                ElementsAre("strict 0", "transfer 1", "regulation 1", "status 1", "control status 1",
                            "gas status 1", "flow 1 1", "target 300.00"));
    EXPECT_THAT(backTo(reachOn), ElementsAre("strict 0", "transfer 1", "control status 2", "gas status 2"));
    EXPECT_THAT(backTo(reachRampToOff),
                ElementsAre("strict 0", "transfer 1", "gas status 1", "control status 1", "stability 0"));
    EXPECT_THAT(backTo(reachFlush), ElementsAre("strict 0", "transfer 1"));
    EXPECT_THAT(backTo(reachHold), ElementsAre("strict 0", "transfer 1", "flow 0 1"));
    EXPECT_THAT(backTo(reachHardPowerOff),
                ElementsAre("strict 0", "transfer 1", "target 292.15", "regulation 0", "spiral regulation 0",
                            "spiral power 0", "gas 0", "gas status 0", "status 7", "control status 0"));
}

TEST(ATFSMStates, LeaveAPrepareWithoutAVerdictThatIsCompletedOnItsWay) {
    ATMachine machine;
    reachEnter(machine);
    machine.tick(501);
    machine.take();
    machine.handle<EvPrepareTransfer>(); // discarded
    machine.complete(true);
    EXPECT_THAT(machine.take(), IsEmpty());
    machine.tick(501);
    EXPECT_THAT(machine.take(), ElementsAre("exchange flow 2 1"));
    machine.tick(1);
    EXPECT_THAT(machine.take(), ElementsAre("target 330.00", "regulation 1", "strict 0", "transfer 1",
                                            "control status 2", "gas status 2"));
}

TEST(ATFSMStates, KeepTheHeatingOffWhereTheSampleIsNotBack) {
    ATMachine machine;
    reachEnter(machine);
    machine.tick(501);
    machine.tick(501); // index 0 with hold flow
    machine.complete(false);
    machine.take();
    machine.tick(501);
    EXPECT_THAT(machine.take(), ElementsAre("exchange flow 0 0"));
    machine.tick(501);
    EXPECT_THAT(machine.take(), ElementsAre("regulation 0", "exchange flow 1 0")) << "no gas, no heating";
    machine.tick(501);
    machine.take();
    machine.tick(1);
    EXPECT_THAT(machine.take(), ElementsAre("strict 0", "transfer 1", "control status 2", "gas status 2"));
    EXPECT_FALSE(machine.board->regulates);
}

TEST(ATFSMStates, ComeBackToEveryStateThroughTheHistory) {
    for (std::size_t row = 0; row < 9; ++row) { // the normal states
        SCOPED_TRACE(kRows.at(row).state);
        ATMachine machine;
        kRows.at(row).reach(machine);
        machine.handle<EvPrepareTransfer>();
        for (int step = 0; step < 5 && !machine.in<SampleExchange>(); ++step) {
            machine.tick(501);
        }
        ASSERT_TRUE(machine.in<SampleExchange>());
        machine.complete(true);
        for (int step = 0; step < 5 && machine.in<SampleExchangeExit>(); ++step) {
            machine.tick(501);
        }
        EXPECT_EQ(stateOf(machine), kRows.at(row).state);
        EXPECT_FALSE(machine.gas->strict);
    }
}

TEST(ATFSMStates, GiveUpAnExchangeWhoseGasIsRefused) {
    ATMachine machine;
    reachEnter(machine);
    machine.take();
    machine.gas->refuses = true;
    LogCapture log;
    machine.tick(501);
    EXPECT_THAT(machine.take(), ElementsAre("exchange flow 1 1", "strict 0", "transfer 0", "control status 2",
                                            "gas status 2"));
    EXPECT_TRUE(machine.in<On>());
    EXPECT_TRUE(
        log.has(Severity::Error,
                "SampleExchangeEnter: failed to set the gas flow, will retry, no sample exchange possible"));
}

TEST(ATFSMStates, RefuseAnExchangeWhoseGasCannotBeRestored) {
    ATMachine machine;
    reachExit(machine);
    machine.tick(501); // hold
    machine.take();
    machine.gas->refuses = true;
    machine.tick(501);
    EXPECT_THAT(machine.take(),
                ElementsAre("exchange flow 1 1", "transfer 0", "control status 2", "gas status 2"));
    EXPECT_TRUE(machine.in<On>());
}

TEST(ATFSMStates, CutAllWhenTheExchangeTakesTooLong) {
    ATMachine machine;
    reachEnter(machine);
    machine.gas->ignores = true;
    LogCapture log;
    machine.tick(10000); // a step is accepted, and the time begins anew
    EXPECT_TRUE(machine.in<SampleExchangeEnter>());
    machine.take();
    machine.tick(10001);
    EXPECT_TRUE(machine.in<HardPowerOff>());
    EXPECT_EQ(machine.take().front(), "transfer 0");
    EXPECT_TRUE(log.has(Severity::Error,
                        "Failed to reduce gas flow to 0 for sample exchange. Software flow index is 2, "
                        "hardware flow index 3"));
}

/// A box that accepts step upon step and does not follow.
TEST(ATFSMStates, DoNotTakeTheSameStepAgainForProgress) {
    ATMachine enter;
    reachEnter(enter);
    enter.gas->ignores = true;
    ATMachine exit;
    reachExit(exit);
    exit.gas->ignores = true;
    for (int step = 0; step < 17; ++step) { // the first one, and 16 times 0.6 s
        enter.tick(600);
        exit.tick(600);
    }
    EXPECT_TRUE(enter.in<SampleExchangeEnter>());
    EXPECT_TRUE(exit.in<SampleExchangeExit>());
    enter.take();
    exit.take();
    enter.tick(600); // 10.2 s
    exit.tick(600);
    EXPECT_TRUE(enter.in<HardPowerOff>());
    EXPECT_EQ(enter.take().front(), "transfer 0");
    EXPECT_TRUE(exit.in<Off>());
    EXPECT_THAT(exit.take(), Contains("transfer 0"));
}

TEST(ATFSMStates, CutAllWhenTheFlowCannotBeReadInTheExchange) {
    ATMachine machine;
    reachEnter(machine);
    LogCapture log;
    machine.happenings.failing = "actualFlowIndex";
    machine.tick(1);
    EXPECT_TRUE(machine.in<HardPowerOff>());
    EXPECT_TRUE(log.has(Severity::Error, "SampleExchangeEnter: failed to get actualFlowIndex"));
}

TEST(ATFSMStates, RestoreTheUsersFlow) {
    ATMachine machine;
    reachExchange(machine);
    machine.gas->user = {true, 1};
    machine.complete(true);
    machine.tick(501);
    machine.tick(501);
    machine.take();
    machine.tick(501);
    EXPECT_TRUE(machine.in<On>());
    EXPECT_EQ(machine.board->index, 1);
}

// ------------------------------------------------------------------------------------------------- the times

TEST(ATFSMStates, HoldTheGasForTheirTimes) {
    ATMachine machine;
    reachBegin(machine);
    machine.tick(299);
    EXPECT_TRUE(machine.in<BeginRamp_SetHoldFlow>());
    machine.tick(1);
    EXPECT_TRUE(machine.in<RampTemperatureAndFlow>());
    machine.handle<EvDisable>();
    machine.tick(5000);
    EXPECT_TRUE(machine.in<FlushBeforePowerOff>());
    machine.tick(1);
    EXPECT_TRUE(machine.in<HoldBeforePowerOff>());
    machine.tick(300); // not enough here
    EXPECT_TRUE(machine.in<HoldBeforePowerOff>());
    machine.tick(1);
    EXPECT_TRUE(machine.in<Off>());
}

TEST(ATFSMStates, RampInStepsOfOneKelvin) {
    ATMachine machine;
    machine.parameters->setTargetTemperature(303.0);
    reachRamp(machine);
    machine.take();
    machine.tick(59000);
    EXPECT_THAT(machine.take(), IsEmpty()) << "less than 1 K away from 300 K";
    machine.tick(1001); // 60.001 s: 301.00002 K
    EXPECT_THAT(machine.take(), ElementsAre("flow 1 1", "target 301.00"));
    machine.tick(60001); // 302.00003 K is less than 1 K from the end, which is taken at once
    EXPECT_THAT(machine.take(), ElementsAre("flow 1 1", "target 303.00", "control status 2", "gas status 2"));
    EXPECT_TRUE(machine.in<On>());
}

TEST(ATFSMStates, TakeATargetAtTheLowerBound) {
    ATMachine machine;
    machine.parameters->setTargetTemperature(300.0);
    machine.begin();
    machine.handle<EvEnable>();
    EXPECT_TRUE(machine.in<BeginRamp_SetHoldFlow>());
}

TEST(ATFSMStates, RampDownOnATargetThatIsTooLow) {
    ATMachine machine;
    reachOn(machine);
    machine.handle<EvSetTargetTemperature>();
    ASSERT_TRUE(machine.in<RampTemperatureAndFlow>());
    LogCapture log;
    machine.setTarget(290.0);
    EXPECT_TRUE(machine.in<RampToOffTemperatureAndFlow>());
    EXPECT_TRUE(log.has(Severity::Info, "New target is too low, disabling AT"));
    EXPECT_EQ(machine.parameters->targetTemperature(), 290.0);
}

// ---------------------------------------------------------------------------------------- failures in states

TEST(ATFSMStates, RampDownWhenAStepFails) {
    ATMachine machine;
    machine.parameters->setTargetTemperature(310.0);
    reachRamp(machine);
    machine.gas->refuses = true;
    machine.board->probe = 330.0;
    LogCapture log;
    machine.take();
    machine.tick(60001);
    EXPECT_TRUE(log.has(Severity::Error,
                        "Error while doing ramp step, setting error flag and shutdown AT. "
                        "Error was Failed to set the gas flow"));
    EXPECT_THAT(machine.take(), Contains("status 7"));
}

TEST(ATFSMStates, CutAllWhenTheWayDownFails) {
    ATMachine machine;
    reachRampToOff(machine);
    machine.happenings.failing = "probeTemperature";
    LogCapture log;
    machine.tick(1000);
    EXPECT_TRUE(machine.in<HardPowerOff>());
    EXPECT_TRUE(log.has(Severity::Error, "Reaction to timer tick failed with no answer"));
}

TEST(ATFSMStates, RampDownWhenATargetCannotBeTaken) {
    ATMachine machine;
    reachRamp(machine);
    machine.happenings.failing = "targetProbeTemperature"; // not asked for by a new target
    machine.setTarget(312.0);
    EXPECT_TRUE(machine.in<RampTemperatureAndFlow>());
    LogCapture log;
    machine.happenings.failing = "probeTemperature"; // and the way down needs it, too
    machine.setTarget(312.0);
    EXPECT_TRUE(log.has(Severity::Error, "Reaction to set target temperature failed with no answer"));
    EXPECT_TRUE(machine.in<Off>());
    EXPECT_EQ(machine.status(), 7);
}

/// What escapes from which state: everything that an entry or a reaction asks of board and gas.
struct EscapeRow {
    char const* what;
    void (*reach)(ATMachine&);
    char const* failing;
    void (*provoke)(ATMachine&);
};

void enable(ATMachine& aMachine) {
    aMachine.handle<EvEnable>();
}
void disable(ATMachine& aMachine) {
    aMachine.handle<EvDisable>();
}
void prepare(ATMachine& aMachine) {
    aMachine.handle<EvPrepareTransfer>();
}
void complete(ATMachine& aMachine) {
    aMachine.handle<EvCompleteTransfer>();
}
void target(ATMachine& aMachine) {
    aMachine.handle<EvSetTargetTemperature>();
}
void hardPowerOff(ATMachine& aMachine) {
    aMachine.handle<EvHardPowerOff>();
}
void tick(ATMachine& aMachine) {
    aMachine.tick(501);
}
/// The last step of the way back.
void reachEndOfExit(ATMachine& aMachine) {
    reachExit(aMachine);
    aMachine.tick(501);
    aMachine.tick(501);
    aMachine.tick(501);
}
void reachEndOfEnter(ATMachine& aMachine) {
    reachEnter(aMachine);
    aMachine.tick(501);
    aMachine.tick(501);
    aMachine.tick(501);
}

constexpr auto kEscapes = std::to_array<EscapeRow>({
    {"guard of the enable", begin, "range", enable},
    {"guard of a target", reachTooLow, "range", target},
    {"entry of Off: regulation", reachTooLow, "regulation ", disable},
    {"entry of Off: gas", reachTooLow, "gas ", disable},
    {"entry of BeginRamp: user flow", begin, "reset user flow", enable},
    {"entry of BeginRamp: flow", begin, "flow ", enable},
    {"entry of the ramp: guard", reachBegin, "range", tick},
    {"entry of the ramp: regulation", reachBegin, "regulation ", tick},
    {"entry of the ramp: probe", reachBegin, "probeTemperature", tick},
    {"entry of the ramp: set point", reachBegin, "targetProbeTemperature", tick},
    {"entry of the ramp: flow", reachBegin, "flow ", tick},
    {"entry of the ramp: target", reachBegin, "target ", tick},
    {"entry of the ramp: listener", reachBegin, "status ", tick},
    {"entry of the way down: range", reachOn, "range", disable},
    {"entry of the way down: probe", reachOn, "probeTemperature", disable},
    {"entry of the way down: set point", reachOn, "targetProbeTemperature", disable},
    {"entry of the hold", reachFlush, "flow ", [](ATMachine& aMachine) { aMachine.tick(5001); }},
    {"entry of Off after the hold", reachHold, "regulation ", tick},
    {"entry of the hard power off: target", reachOn, "target ", hardPowerOff},
    {"entry of the hard power off: regulation", reachOn, "regulation ", hardPowerOff},
    {"entry of the hard power off: spiral", reachOn, "spiral regulation ", hardPowerOff},
    {"entry of the hard power off: power", reachOn, "spiral power ", hardPowerOff},
    {"entry of the hard power off: gas", reachOn, "gas ", hardPowerOff},
    {"entry of the exchange: gas", reachOn, "probeGasFlow", prepare},
    {"entry of the exchange: index", reachOn, "actualFlowIndex", prepare},
    {"entry of the exchange: regulation", reachOn, "probeTemperatureRegulation", prepare},
    {"entry of the exchange: target", reachOn, "targetProbeTemperature", prepare},
    {"entry of the exchange: strict", reachOn, "strict ", prepare},
    {"step down", reachEnter, "exchange flow ", tick},
    {"end of the way down", reachEndOfEnter, "regulation ", tick},
    {"entry of the exchange itself", reachEndOfEnter, "gas status ", tick},
    {"time-out of the exchange", reachEnter, "probeGasFlow",
     [](ATMachine& aMachine) { aMachine.tick(10001); }},
    {"entry of the way back", reachExchange, "probeGasFlow", complete},
    {"way back: index", reachExit, "actualFlowIndex", tick},
    {"way back: step", reachExit, "exchange flow ", tick},
    {"way back: target", reachEndOfExit, "target ", tick},
    {"way back: regulation", reachEndOfExit, "regulation ", tick},
    {"way back: strict", reachEndOfExit, "strict ", tick},
    {"way back: time-out", reachExit, "", [](ATMachine& aMachine) { aMachine.tick(10001); }},
});

TEST(ATFSMStates, BeginAnewWhateverEscapes) {
    for (EscapeRow const& row : kEscapes) {
        SCOPED_TRACE(row.what);
        ATMachine machine;
        row.reach(machine);
        LogCapture log;
        machine.happenings.failing = row.failing;
        row.provoke(machine);
        EXPECT_FALSE(log.linesUpTo(Severity::Critical).empty());
        // A board that refuses one call for ever may keep the machine still; it comes back with the board.
        machine.happenings.failing.clear();
        machine.tick(1);
        EXPECT_TRUE(machine.in<Off>());
        EXPECT_FALSE(machine.board->regulates);
        EXPECT_EQ(machine.board->index, 0);
        EXPECT_FALSE(machine.board->hold);
        machine.parameters->setTargetTemperature(310.0);
        machine.handle<EvEnable>();
        machine.tick(300);
        EXPECT_TRUE(machine.in<RampTemperatureAndFlow>() || machine.in<On>());
    }
}

/// Every event in every state, with every tick that ends one.
std::vector<std::pair<Row, std::function<Event(ATMachine&)>>> everythingThatHappens() {
    std::vector<std::pair<Row, std::function<Event(ATMachine&)>>> all;
    auto const tickOf = [](int aMilliseconds) {
        return [aMilliseconds](ATMachine& /*aMachine*/) {
            return made<EvTimerTick>(std::chrono::milliseconds(aMilliseconds));
        };
    };
    for (Row const& row : kRows) {
        for (std::size_t column = 0; column < kEventNames.size(); ++column) {
            all.emplace_back(row, [column](ATMachine& aMachine) { return makeEvent(aMachine, column); });
        }
        for (int const milliseconds : {501, 5001, 10001, 60001, 3600000}) {
            bool const throwsByItself = row.reach == reachExit && milliseconds > 10000;
            if (!throwsByItself) {
                all.emplace_back(row, tickOf(milliseconds));
            }
        }
    }
    for (auto const reach : {reachEndOfEnter, reachEndOfExit}) {
        all.emplace_back(Row{reach == reachEndOfEnter ? kEnter : "SampleExchangeExit", reach, {}},
                         tickOf(501));
    }
    return all;
}

bool isOfTransfer(ATMachine& aMachine, boost::statechart::event_base const& aEvent) {
    auto const type = aEvent.dynamic_type();
    return aMachine.in<SampleExchangeMetaState>() || type == EvPrepareTransfer::static_type() ||
           type == EvCompleteTransfer::static_type();
}

/// Heating and gas are off, the daemon and who waits are told, and the next enable works.
void expectContained(ATMachine& aMachine, bool aMaySomebodyWait) {
    EXPECT_EQ(stateOf(aMachine), "Off");
    EXPECT_FALSE(aMachine.board->regulates);
    EXPECT_EQ(aMachine.board->index, 0);
    EXPECT_FALSE(aMachine.board->hold);
    EXPECT_EQ(aMachine.status(), 7);
    auto const journal = aMachine.take();
    EXPECT_EQ(std::find(journal.begin(), journal.end(), "transfer 0") != journal.end(), aMaySomebodyWait);
    aMachine.parameters->setTargetTemperature(340.0);
    aMachine.handle<EvEnable>();
    aMachine.tick(300);
    EXPECT_EQ(stateOf(aMachine), kRamp);
}

/// Each single call to board, gas and daemon fails once, whichever reaction or entry it belongs to.
void expectAnySingleCallMayFail(bool aThrowsSomethingElse) {
    unsigned contained = 0;
    unsigned handled = 0;
    for (auto const& [row, makeIt] : everythingThatHappens()) {
        SCOPED_TRACE(row.state);
        unsigned calls = 1;
        for (unsigned failing = 1; failing <= calls; ++failing) {
            ATMachine machine;
            row.reach(machine);
            machine.take();
            LogCapture log;
            Event const event = makeIt(machine);
            bool const maySomebodyWait = isOfTransfer(machine, *event);
            machine.happenings.calls = 0;
            machine.happenings.failingCall = failing;
            machine.happenings.throwsSomethingElse = aThrowsSomethingElse;
            machine.handle(event);
            calls = machine.happenings.calls;
            if (failing > calls) {
                break; // The event makes none.
            }
            EXPECT_TRUE(machine.in<SampleExchangeEnter>() || !machine.board->regulates ||
                        machine.board->index != 0 || machine.board->hold)
                << "call " << failing;
            if (log.linesUpTo(Severity::Critical).empty()) {
                ++handled;
            } else {
                ++contained;
                expectContained(machine, maySomebodyWait);
            }
        }
    }
    EXPECT_GT(contained, 100U);
    EXPECT_EQ(handled > 0, !aThrowsSomethingElse) << "by a reaction that knows only the usual exceptions";
}

TEST(ATFSMStates, ContainWhicheverSingleCallFails) {
    expectAnySingleCallMayFail(false);
}

TEST(ATFSMStates, ContainAlsoWhatIsNoException) {
    expectAnySingleCallMayFail(true);
}

TEST(ATFSMStates, TellWhatEscaped) {
    ATMachine machine;
    machine.begin();
    machine.gas->refuses = true;
    machine.take();
    LogCapture log;
    machine.handle<EvEnable>();
    EXPECT_TRUE(
        log.has(Severity::Critical,
                "The AT state machine failed, it switches heating and gas off and begins anew; events that "
                "it has deferred are lost: Could not set the gas flow"));
    EXPECT_THAT(machine.take(), ElementsAre("reset user flow", "flow 0 1", "target 292.15", "regulation 0",
                                            "spiral regulation 0", "spiral power 0", "gas 0", "regulation 0",
                                            "gas 0", "status 0", "gas status 0", "measured 0", "operation 0",
                                            "standby 0", "control status 0", "status 7"));
    EXPECT_EQ(machine.status(), 7);
}

TEST(ATFSMStates, CountEventsThatABoardLeftUnanswered) {
    ATMachine machine;
    LogCapture log;
    machine.happenings.failing = "regulation ";
    machine.begin();
    machine.handle<EvEnable>();
    machine.handle<EvEnable>();
    EXPECT_TRUE(log.has(Severity::Critical, "The AT state machine stands still, 1 events are lost so far"));
    EXPECT_TRUE(log.has(Severity::Critical, "The AT state machine stands still, 2 events are lost so far"));
    machine.happenings.failing.clear();
    machine.handle<EvEnable>();
    EXPECT_TRUE(machine.in<BeginRamp_SetHoldFlow>());
}

TEST(ATFSMStates, KeepTheGasWhileTheHeatingCannotBeSwitchedOff) {
    ATMachine machine;
    reachRamp(machine);
    machine.happenings.failing = "regulation ";
    machine.handle<EvHardPowerOff>();
    EXPECT_EQ(machine.board->index, 1);
    EXPECT_TRUE(machine.board->hold);
    EXPECT_EQ(machine.status(), 7);
}

/// `Off` itself asks for nothing that the board refuses here, but it would end the gas.
TEST(ATFSMStates, DoNotBeginAnewWhileTheHeatingCannotBeSwitchedOff) {
    ATMachine machine;
    reachRamp(machine);
    machine.happenings.failing = "spiral power ";
    machine.handle<EvHardPowerOff>();
    machine.tick();
    EXPECT_EQ(stateOf(machine), "");
    EXPECT_EQ(machine.board->index, 1);
    EXPECT_TRUE(machine.board->hold);
    machine.happenings.failing.clear();
    machine.tick();
    EXPECT_EQ(stateOf(machine), "Off");
    EXPECT_EQ(machine.board->index, 0);
    EXPECT_FALSE(machine.board->hold);
}

/// It would be taken for the answer to the next transfer.
TEST(ATFSMStates, GiveNoVerdictThatNobodyAskedFor) {
    ATMachine machine;
    reachOn(machine);
    machine.take();
    machine.happenings.failing = "range";
    machine.handle<EvDisable>();
    EXPECT_EQ(stateOf(machine), "Off");
    EXPECT_THAT(machine.take(), testing::Not(Contains("transfer 0")));
    ATMachine asked;
    reachOn(asked);
    asked.take();
    asked.happenings.failing = "probeTemperatureRegulation";
    asked.handle<EvPrepareTransfer>();
    EXPECT_EQ(stateOf(asked), "Off");
    EXPECT_THAT(asked.take(), Contains("transfer 0"));
}

TEST(ATFSMStates, LeaveOnWhenNoGasIsSeenAnyMore) {
    ATMachine machine;
    reachOn(machine);
    machine.take();
    machine.tick();
    EXPECT_THAT(machine.take(), IsEmpty());
    EXPECT_EQ(stateOf(machine), "On");
    machine.board->index = 0;
    EXPECT_EQ(stateOf(machine), "On") << "on hold flow";
    machine.board->hold = false;
    machine.tick();
    EXPECT_EQ(machine.take().front(), "regulation 0");
    EXPECT_EQ(stateOf(machine), "Off");
    EXPECT_EQ(machine.status(), 7);
}

// ----------------------------------------------------------------------------------------------- properties

/// Ticks that suffice from every state: an exchange of three steps down and up, and a ramp from 350 K to
/// 308.15 K, each a second, at 50 s a tick.
constexpr int kBoundedTicks = 100;

TEST(ATFSMStates, NeverHeatWithoutGasAndAlwaysReachOff) {
    std::mt19937 random(20240611); // NOLINT: the same sequences each time
    auto const below = [&](unsigned aBound) { return static_cast<unsigned>(random() % aBound); };
    unsigned events = 0;
    unsigned long reached = 0;
    while (events < 100'000) {
        ATMachine machine;
        machine.happenings.isQuiet = true;
        machine.begin();
        for (int step = 0; step < 40; ++step, ++events) {
            auto const kind = static_cast<std::size_t>(below(kEventNames.size()));
            machine.board->probe = 290.0 + below(60);
            if (kind == 2) {
                machine.parameters->setTargetTemperature(290.0 + below(60));
            } else if (kind == 7) {
                machine.parameters->setSampleInMagnet(below(2) != 0);
            }
            if (kind == 4) {
                machine.tick(static_cast<int>(1 + below(7000)));
            } else if (kind != 3) { // which nobody but the machine posts
                machine.handle(makeEvent(machine, kind));
            }
            // On its way into an exchange the gas goes first, and the heating with the tick that sees it.
            if (!machine.in<SampleExchangeEnter>() && !machine.in<SampleExchangeExit>()) {
                ASSERT_TRUE(!machine.board->regulates || machine.board->index != 0 || machine.board->hold)
                    << stateOf(machine) << " after event " << events;
            }
        }
        // Whatever happened: sample back, enabled, disabled.
        machine.board->probe = 300.0;
        machine.complete(true);
        machine.handle<EvEnable>();
        machine.handle<EvDisable>();
        for (int step = 0; step < kBoundedTicks && !machine.in<Off>() && !machine.in<HardPowerOff>();
             ++step) {
            machine.tick(1000);
            machine.handle<EvDisable>();
        }
        reached += machine.in<Off>() ? 1 : 0;
        ASSERT_TRUE(machine.in<Off>() || machine.in<HardPowerOff>()) << stateOf(machine);
    }
    EXPECT_GT(reached, 0U);
}

} // namespace
