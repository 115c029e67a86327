// SPDX-License-Identifier: Apache-2.0
// How the gas is asked for: by the state machine, in an exchange, by a user.
#include "unit/at/FlowControllerRig.h"

#include "support/ExpectThrow.h"

#include <chrono>
#include <limits>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace {

using libfieldwarden::test::expectThrow;
using libfieldwarden::test::FlowControllerRig;
using libfieldwarden::test::line;
using libfieldwarden::test::Severity;
using testing::ElementsAre;
using testing::IsEmpty;
using velmor::kepla::datalogger::DataLoggerStats;
using namespace std::chrono_literals;
using State = FlowController::FlowState;
using Flow = std::pair<unsigned char, bool>;

class FlowControllerTest : public FlowControllerRig {};

// 200 l/h = 0.2 m3 / 3600 s; 400 l/h and 600 l/h likewise.
constexpr double k200 = 200.0 * 0.001 / 3600.0;
constexpr double k400 = 400.0 * 0.001 / 3600.0;
constexpr double k600 = 600.0 * 0.001 / 3600.0;

// ------------------------------------------------------------------------------------------- from the start

TEST_F(FlowControllerTest, BeginsToPollOnceASecondAndReadsWhatTheBoxDoes) {
    mBoard->set("probeGasFlow", 3);
    {
        FlowController const controller(mBoard, mTable, mListener, std::make_unique<AtFlowBoxV2>(), mCallers,
                                        mDataLogger);
        ASSERT_EQ(mCallers->jobs().size(), 1U);
        EXPECT_EQ(mCallers->jobs().front()->periodSeconds, 1.0);
        EXPECT_THAT(mBoard->takeCalls(), ElementsAre("probeGasFlow()"));
        EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug, "Initial mLastActualFlowHardwareIndex is 3")));
        EXPECT_EQ(lines().front().category, "Temperature");
        EXPECT_THAT(mListener->takeCalls(), IsEmpty());
        EXPECT_EQ(controller.state(), State::ControlledByFSM);
        EXPECT_FALSE(controller.isStrictMode());
        EXPECT_EQ(controller.userDefinedFlow(), (std::pair<bool, unsigned char>(false, 0)));
        mLog.clear();
        mCallers->jobs().front()->call();
        EXPECT_EQ(lines().front(), line(Severity::Trace, "+pollATFlowBox"));
        forget();
    }
    EXPECT_THAT(mCallers->jobs(), IsEmpty());
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty()) << "the gas stays as it is";
}

TEST_F(FlowControllerTest, DoesNotPollOnABoardThatNeverAnswered) {
    mBoard->fail("probeGasFlow", "no answer");
    expectThrow<std::runtime_error>(
        [&] {
            FlowController const controller(mBoard, mTable, mListener, std::make_unique<AtFlowBoxV2>(),
                                            mCallers, mDataLogger);
        },
        "no answer");
    EXPECT_THAT(mCallers->jobs(), IsEmpty());
}

TEST_F(FlowControllerTest, DescribesItsChannels) {
    auto const controller = make<AtFlowBoxV2>();
    struct Row {
        char const* name;
        char const* description;
        unsigned unit;
    };
    std::vector<Row> const rows{
        {"gas_flow_state",
         "Gas flow state. 0 = ControlledByFSM, 1 = OverridenInSoftware, 2 = OverridenInHardware, any other "
         "value = error",
         16},
        {"gas_flow_actual", "Actual gas flow, not measured but expected from current configuration", 7},
        {"gas_flow_user",
         "Gas flow that has been requested by the user. Optional, 0 if no value enforced by user.", 7},
        {"gas_flow_fsm", "Gas flow as requested by the internal state machine.", 7},
        {"gas_hold_fsm", "Requested state of the hold gas flow as requested by the internal state machine.",
         35}};
    auto const infos = mDataLogger->infos();
    ASSERT_EQ(infos.size(), rows.size());
    for (std::size_t row = 0; row < rows.size(); ++row) {
        auto const& info = infos.at(row);
        EXPECT_THAT(info.path, ElementsAre("temperatureBoard", "probe", rows.at(row).name));
        EXPECT_EQ(info.description, rows.at(row).description);
        EXPECT_EQ(static_cast<unsigned>(info.unit), rows.at(row).unit);
        EXPECT_EQ(info.stats, DataLoggerStats::none());
        EXPECT_EQ(info.lowerLimit, std::numeric_limits<double>::min()); // which stands for none
        EXPECT_EQ(info.upperLimit, std::numeric_limits<double>::max());
        EXPECT_EQ(info.resolution, 0.001);
    }
}

// ---------------------------------------------------------------------------------------- the state machine

TEST_F(FlowControllerTest, WritesVerifiesAndTells) {
    auto const controller = make<AtFlowBoxV2>();
    EXPECT_TRUE(controller->setFlowFromSM(3, false));
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("probeGasFlow()", "setProbeGasFlow(14)", "probeGasFlow()"));
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Debug, "+setFlowFromSM(swFlowIndex = 3, holdFlow = 0)"),
                            line(Severity::Trace, "+setFlow(flowIndex = 3, holdFlow=0, allowHold=0)"),
                            line(Severity::Debug, "+setFlowAndVerify(swFlowIndex = 3, holdFlow = 0)"),
                            line(Severity::Debug, "Flow hardware index set to 14 and read-back 14"),
                            line(Severity::Trace, "actual.isKnobSetToRemote=1, actual.softwareFlowIndex=3"),
                            line(Severity::Debug, "-setFlowAndVerify: 1")));
    EXPECT_THAT(mListener->takeCalls(),
                ElementsAre("probeMeasuredGasFlowChanged(600)", "probeTargetGasFlowForOperationChanged(600)",
                            "probeTemperatureGasStatusChanged(2)"));
    EXPECT_THAT(pushed("gas_flow_fsm"), ElementsAre(k600));
    EXPECT_THAT(pushed("gas_hold_fsm"), ElementsAre(0.0));
    EXPECT_THAT(pushed("gas_flow_actual"), ElementsAre(k600));
    EXPECT_THAT(pushed("gas_flow_user"), IsEmpty());
    EXPECT_THAT(pushed("gas_flow_state"), IsEmpty());
    EXPECT_EQ(mDataLogger->pushes("temperatureBoard/probe/gas_flow_fsm").front().time, mClock->systemNow());
    EXPECT_EQ(waited(), 0s);
}

TEST_F(FlowControllerTest, TellsHoldFlowAloneAsNoGas) {
    auto const controller = make<AtFlowBoxV2>();
    EXPECT_TRUE(controller->setFlowFromSM(0, true));
    EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(1)"));
    EXPECT_THAT(mListener->takeCalls(),
                ElementsAre("probeMeasuredGasFlowChanged(0)", "probeTargetGasFlowForOperationChanged(0)",
                            "probeTemperatureGasStatusChanged(0)"));
    EXPECT_THAT(pushed("gas_hold_fsm"), ElementsAre(1.0));
}

TEST_F(FlowControllerTest, WritesTheByteOfEachRequest) {
    auto const controller = make<AtFlowBoxV2>();
    for (auto const& [index, hold, hw] :
         std::vector<std::tuple<unsigned char, bool, std::string>>{{0, true, "1"},
                                                                   {1, true, "2"},
                                                                   {2, true, "3"},
                                                                   {3, true, "4"},
                                                                   {1, false, "12"},
                                                                   {2, false, "13"},
                                                                   {3, false, "14"},
                                                                   {0, false, "0"}}) {
        EXPECT_TRUE(controller->setFlowFromSM(index, hold));
        EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(" + hw + ")"));
        EXPECT_EQ(controller->actualFlowIndex(), Flow(index, hold));
    }
}

TEST_F(FlowControllerTest, WritesNothingWhereItIsAlready) {
    mBoard->set("probeGasFlow", 3);
    auto const controller = make<AtFlowBoxV1>();
    EXPECT_TRUE(controller->setFlowFromSM(2, true));
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("probeGasFlow()"));
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Debug, "+setFlowFromSM(swFlowIndex = 2, holdFlow = 1)"),
                            line(Severity::Trace, "+setFlow(flowIndex = 2, holdFlow=1, allowHold=0)"),
                            line(Severity::Debug, "setFlow: already there, doing nothing")));
    EXPECT_THAT(mListener->takeCalls(), IsEmpty());
}

TEST_F(FlowControllerTest, RefusesTheMachineAMainFlowBeforeTheHoldFlowWhereTheBoxNeedsIt) {
    for (bool const isV1 : {false, true}) {
        auto const controller = isV1 ? make<AtFlowBoxV1>() : make<AtFlowBoxPrototype>();
        expectThrow<std::runtime_error>([&] { controller->setFlowFromSM(2, true); },
                                        "Invalid internal state: cannot set gas flow");
        EXPECT_THAT(writes(), IsEmpty());
        EXPECT_THAT(
            lines(),
            ElementsAre(line(Severity::Debug, "+setFlowFromSM(swFlowIndex = 2, holdFlow = 1)"),
                        line(Severity::Trace, "+setFlow(flowIndex = 2, holdFlow=1, allowHold=0)"),
                        line(Severity::Debug, "Need to enable the hold flow before setting the gas flow"),
                        line(Severity::Error,
                             "Not allowed to set the flow to index 2 because hold gas was not enabled "
                             "beforehand")));
        EXPECT_TRUE(controller->setFlowFromSM(0, true));
        EXPECT_TRUE(controller->setFlowFromSM(2, true)) << "now the hold flow is on";
        EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(1)", "setProbeGasFlow(3)"));
        mBoard->set("probeGasFlow", 0);
    }
}

TEST_F(FlowControllerTest, LetsTheMachineGoStraightToAMainFlowOnABoxWithIndependentHoldFlow) {
    auto const controller = make<AtFlowBoxV2>();
    EXPECT_TRUE(controller->setFlowFromSM(2, true));
    EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(3)"));
    EXPECT_EQ(waited(), 0s);
}

TEST_F(FlowControllerTest, PassesOnWhatTheBoxCannotDo) {
    mBoard->set("probeGasFlow", 1);
    auto const controller = make<AtFlowBoxV1>();
    expectThrow<std::invalid_argument>([&] { controller->setFlowFromSM(2, false); },
                                       "Cannot set AT gas flow without setting hold flow");
    EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(FlowControllerTest, LeavesTheBoardAloneForAFlowThatIsNotInTheTable) {
    auto const controller = make<AtFlowBoxV2>();
    EXPECT_THROW(controller->setFlowFromSM(4, true), std::out_of_range);
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
}

TEST_F(FlowControllerTest, OnlyRemembersTheMachinesFlowBesideAUsers) {
    auto const controller = makePolled<AtFlowBoxV2>();
    controller->setFlowByUser(200.0);
    forget();
    EXPECT_TRUE(controller->setFlowFromSM(3, true));
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug, "+setFlowFromSM(swFlowIndex = 3, holdFlow = 1)")));
    EXPECT_THAT(pushed("gas_flow_fsm"), ElementsAre(k600));
    EXPECT_THAT(pushed("gas_hold_fsm"), ElementsAre(1.0));
    controller->resetFlowFromUser();
    EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(4)"));
}

// ------------------------------------------------------------------------------------------ what comes back

TEST_F(FlowControllerTest, TakesATurnedKnobForNoFailure) {
    auto const controller = make<AtFlowBoxV2>();
    mBoard->readBack = [](unsigned char /*aWritten*/) { return 102; }; // index 1 by the knob
    EXPECT_TRUE(controller->setFlowFromSM(3, true));
    EXPECT_EQ(controller->state(), State::OverridenInHardware);
    EXPECT_THAT(lines(Severity::Info), ElementsAre(line(Severity::Info, "Flow state changed from 0 to 2")));
    EXPECT_THAT(pushed("gas_flow_state"), ElementsAre(2.0));
    EXPECT_THAT(pushed("gas_flow_actual"), ElementsAre(k200));
    EXPECT_THAT(mListener->takeCalls(),
                ElementsAre("probeMeasuredGasFlowChanged(200)", "probeTargetGasFlowForOperationChanged(200)",
                            "probeTemperatureGasStatusChanged(2)"));
    controller->setFlowFromSM(2, true);
    EXPECT_THAT(pushed("gas_flow_state"), ElementsAre(2.0)) << "no change, no line";
}

TEST_F(FlowControllerTest, TakesATurnedKnobForAFailureInStrictMode) {
    auto const controller = makePolled<AtFlowBoxV2>();
    controller->setStrictMode(true);
    forget();
    mBoard->readBack = [](unsigned char aWritten) { return static_cast<unsigned char>(aWritten + 100); };
    EXPECT_FALSE(controller->setFlowFromSM(3, true));
    EXPECT_THAT(lines(Severity::Info),
                ElementsAre(line(Severity::Info, "Flow state changed from 0 to 2"),
                            line(Severity::Error,
                                 "Flow box knob is set to NOT REMOTE but strict mode is enabled "
                                 "(automation?)")));
    EXPECT_EQ(lines().back(), line(Severity::Debug, "-setFlowAndVerify: 0"));
    // Not remembered: what is restored is the flow from before, none.
    mBoard->readBack = [](unsigned char aWritten) { return aWritten; };
    controller->resetFlowFromUser();
    EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(4)", "setProbeGasFlow(0)"));
}

TEST_F(FlowControllerTest, TellsOfAnErrorOfTheBox) {
    auto const controller = make<AtFlowBoxV2>();
    mBoard->readBack = [](unsigned char /*aWritten*/) { return 255; };
    EXPECT_FALSE(controller->setFlowFromSM(2, true));
    EXPECT_EQ(controller->state(), State::Error);
    EXPECT_THAT(
        lines(Severity::Info),
        ElementsAre(line(Severity::Error,
                         "Flow box hardware error. Read hw flow index 0xFF (255) when requested was 3"),
                    line(Severity::Info, "Flow state changed from 0 to 3")));
    EXPECT_THAT(
        mListener->takeCalls(),
        ElementsAre("probeTemperatureGasStatusChanged(7)", "probeMeasuredGasFlowChanged(0)",
                    "probeTargetGasFlowForOperationChanged(0)", "probeTemperatureGasStatusChanged(0)"));
    EXPECT_THAT(pushed("gas_flow_state"), ElementsAre(3.0));
}

TEST_F(FlowControllerTest, ThrowsBehindTheReportWhereTheErrorDecodesToAFlowThatDoesNotExist) {
    mBoard->set("probeGasFlow", 1);
    auto const controller = make<AtFlowBoxV1>();
    mBoard->readBack = [](unsigned char /*aWritten*/) { return 255; }; // index 254
    EXPECT_THROW(controller->setFlowFromSM(2, true), std::out_of_range);
    EXPECT_EQ(controller->state(), State::Error);
    EXPECT_THAT(mListener->takeCalls(), ElementsAre("probeTemperatureGasStatusChanged(7)"));
    EXPECT_THROW(controller->getActualFlow(), std::out_of_range);
}

TEST_F(FlowControllerTest, GoesOnWithTheNextRequestAfterABoardThatFailed) {
    auto const controller = make<AtFlowBoxV2>();
    struct Row {
        char const* call;
        unsigned successes; ///< Before the one that fails.
    };
    for (Row const& row :
         std::vector<Row>{{"probeGasFlow", 0}, {"setProbeGasFlow", 0}, {"probeGasFlow", 1}}) {
        mBoard->set("probeGasFlow", 0);
        mBoard->onCall(row.call, [left = row.successes]() mutable {
            if (left == 0) {
                throw std::runtime_error("no answer");
            }
            --left;
        });
        expectThrow<std::runtime_error>([&] { controller->setFlowFromSM(2, true); }, "no answer");
        mBoard->mend(row.call);
        mBoard->set("probeGasFlow", 0);
        EXPECT_TRUE(controller->setFlowFromSM(2, true)) << "nothing is left locked";
        EXPECT_EQ(controller->actualFlowIndex(), Flow(2, true));
    }
}

// --------------------------------------------------------------------------------------------- the exchange

TEST_F(FlowControllerTest, RefusesAnExchangesFlowOutsideOfStrictMode) {
    auto const controller = make<AtFlowBoxV2>();
    EXPECT_FALSE(controller->setFlowFromSMSampleExchange(1, true));
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Error,
                                          "setFromFromSMSampleExchange called but not in strict mode")));
}

TEST_F(FlowControllerTest, SetsAnExchangesFlowAtOnceWhateverAUserWants) {
    auto const controller = makePolled<AtFlowBoxV2>();
    controller->setFlowByUser(600.0);
    controller->setStrictMode(true);
    forget();
    EXPECT_TRUE(controller->setFlowFromSMSampleExchange(2, false));
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("setProbeGasFlow(13)", "probeGasFlow()"))
        << "neither a look beforehand nor the hold flow first";
    EXPECT_THAT(pushed("gas_flow_fsm"), ElementsAre(k400));
    EXPECT_THAT(pushed("gas_hold_fsm"), IsEmpty());
}

TEST_F(FlowControllerTest, RemembersTheFlowOfAnExchangeButNotItsHoldFlow) {
    auto const controller = makePolled<AtFlowBoxV2>();
    controller->setFlowFromSM(3, true);
    controller->setStrictMode(true);
    EXPECT_TRUE(controller->setFlowFromSMSampleExchange(1, false));
    controller->setStrictMode(false);
    mBoard->set("probeGasFlow", 100); // the knob is turned away
    controller->pollATFlowBox();
    mBoard->set("probeGasFlow", 0); // and back
    forget();
    controller->pollATFlowBox();
    EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(1)", "setProbeGasFlow(2)"))
        << "index 1, hold as of old";
}

TEST_F(FlowControllerTest, ForgetsTheFlowOfAnExchangeThatTheBoxDidNotTake) {
    auto const controller = makePolled<AtFlowBoxV2>();
    controller->setFlowFromSM(3, true);
    controller->setStrictMode(true);
    mBoard->readBack = [](unsigned char /*aWritten*/) { return 255; };
    EXPECT_FALSE(controller->setFlowFromSMSampleExchange(1, true));
    EXPECT_THAT(pushed("gas_flow_fsm"), ElementsAre(k600));
    mBoard->readBack = [](unsigned char aWritten) { return aWritten; };
    forget();
    controller->resetFlowFromUser();
    EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(4)")) << "an error reads as hold flow on";
}

// -------------------------------------------------------------------------------------------------- the user

TEST_F(FlowControllerTest, OpensTheHoldFlowForAUsersFlow) {
    for (bool const isV1 : {false, true}) {
        mBoard->set("probeGasFlow", 0);
        auto const controller = isV1 ? makePolled<AtFlowBoxV1>() : makePolled<AtFlowBoxV2>();
        auto const before = waited();
        controller->setFlowByUser(400.0);
        EXPECT_EQ(waited() - before, 300ms);
        EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(1)", "setProbeGasFlow(3)"));
        EXPECT_THAT(
            lines(),
            ElementsAre(line(Severity::Info, "setFlowByUser(flowLiterPerHour = 400.000000)"),
                        line(Severity::Debug,
                             "~setFlowByUser(flowLiterPerHour = 400.000000): translates to software index 2"),
                        line(Severity::Trace, "+setFlow(flowIndex = 2, holdFlow=1, allowHold=1)"),
                        line(Severity::Debug, "Need to enable the hold flow before setting the gas flow"),
                        line(Severity::Debug, "+setFlowAndVerify(swFlowIndex = 0, holdFlow = 1)"),
                        line(Severity::Debug, "Flow hardware index set to 1 and read-back 1"),
                        line(Severity::Trace, "actual.isKnobSetToRemote=1, actual.softwareFlowIndex=0"),
                        line(Severity::Debug, "-setFlowAndVerify: 1"),
                        line(Severity::Info, "...HOLD gas set long enough, continuing..."),
                        line(Severity::Debug, "+setFlowAndVerify(swFlowIndex = 2, holdFlow = 1)"),
                        line(Severity::Debug, "Flow hardware index set to 3 and read-back 3"),
                        line(Severity::Trace, "actual.isKnobSetToRemote=1, actual.softwareFlowIndex=2"),
                        line(Severity::Debug, "-setFlowAndVerify: 1")));
        EXPECT_EQ(controller->userDefinedFlow(), (std::pair<bool, unsigned char>(true, 2)));
        EXPECT_THAT(pushed("gas_flow_user"), ElementsAre(k400));
        EXPECT_EQ(controller->getActualFlow(), 400.0);
        EXPECT_EQ(controller->state(), State::ControlledByFSM) << "until a poll sees it";
        controller->pollATFlowBox();
        EXPECT_EQ(controller->state(), State::OverridenInSoftware);
    }
}

TEST_F(FlowControllerTest, RefusesAUsersFlowThatIsNotInTheTable) {
    auto const controller = make<AtFlowBoxV2>();
    expectThrow<std::out_of_range>([&] { controller->setFlowByUser(123.0); },
                                   "A probe gas flow of 123.000000 l/h is not possible.");
    EXPECT_FALSE(controller->userDefinedFlow().first);
    EXPECT_THAT(pushed("gas_flow_user"), IsEmpty());
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
}

TEST_F(FlowControllerTest, TurnsAllGasOffForAUserWhoWantsNone) {
    mBoard->set("probeGasFlow", 3);
    auto const controller = makePolled<AtFlowBoxV2>();
    controller->setFlowByUser(0.0);
    EXPECT_THAT(writes(), ElementsAre("probeTemperatureRegulation()", "setProbeGasFlow(0)"));
    EXPECT_EQ(controller->userDefinedFlow(), (std::pair<bool, unsigned char>(true, 0)));
    EXPECT_THAT(lines(Severity::Warning), IsEmpty());
}

TEST_F(FlowControllerTest, EndsTheHeatingBeforeTheGasOfAUserWhoWantsNone) {
    mBoard->set("probeGasFlow", 3);
    mBoard->set("probeTemperatureRegulation", true);
    auto const controller = makePolled<AtFlowBoxV2>();
    controller->setFlowByUser(0.0);
    EXPECT_THAT(writes(), ElementsAre("probeTemperatureRegulation()", "setProbeTemperatureRegulation(false)",
                                      "setProbeGasFlow(0)"));
    EXPECT_THAT(
        lines(Severity::Warning),
        ElementsAre(line(Severity::Warning, "The user wants no gas: turning off regulation before it ends")));
}

TEST_F(FlowControllerTest, EndsTheHeatingOnlyAtTheEndOfStrictModeForAUserWhoWantsNone) {
    mBoard->set("probeGasFlow", 3);
    mBoard->set("probeTemperatureRegulation", true);
    auto const controller = makePolled<AtFlowBoxV2>();
    controller->setStrictMode(true);
    controller->setFlowByUser(0.0);
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
    controller->setStrictMode(false);
    EXPECT_THAT(writes(), ElementsAre("probeTemperatureRegulation()", "setProbeTemperatureRegulation(false)",
                                      "setProbeGasFlow(0)"));
}

TEST_F(FlowControllerTest, KeepsTheGasOfAUserWhoWantsNoneWhileTheHeatingCannotBeEnded) {
    mBoard->set("probeGasFlow", 3);
    mBoard->set("probeTemperatureRegulation", true);
    auto const controller = makePolled<AtFlowBoxV2>();
    mBoard->fail("setProbeTemperatureRegulation", "no answer");
    expectThrow<std::runtime_error>([&] { controller->setFlowByUser(0.0); }, "no answer");
    EXPECT_THAT(writes(), testing::Not(testing::Contains("setProbeGasFlow(0)")));
}

TEST_F(FlowControllerTest, KeepsAUsersFlowForTheEndOfStrictMode) {
    auto const controller = make<AtFlowBoxV2>();
    controller->setStrictMode(true);
    EXPECT_TRUE(controller->isStrictMode());
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "+setStrictMode(strict = 1)")));
    controller->setFlowByUser(200.0);
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
    EXPECT_EQ(lines().back(),
              line(Severity::Warning,
                   "User overrides the gas flow while in strict mode: will be applied once we "
                   "leave strict mode"));
    mLog.clear();
    controller->setStrictMode(false);
    EXPECT_THAT(lines(Severity::Info),
                ElementsAre(line(Severity::Info, "+setStrictMode(strict = 0)"),
                            line(Severity::Info, "restoring user overriden flow"),
                            line(Severity::Info, "...HOLD gas set long enough, continuing...")));
    EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(1)", "setProbeGasFlow(2)"));
}

TEST_F(FlowControllerTest, LeavesStrictModeQuietlyWithoutAUsersFlow) {
    auto const controller = make<AtFlowBoxV2>();
    controller->setStrictMode(true);
    mLog.clear();
    controller->setStrictMode(false);
    EXPECT_FALSE(controller->isStrictMode());
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "+setStrictMode(strict = 0)")));
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
}

TEST_F(FlowControllerTest, GoesBackToTheMachinesFlowWithTheHoldFlowThatBelongsToIt) {
    auto const controller = makePolled<AtFlowBoxV2>();
    controller->setFlowFromSM(2, false); // index without hold
    controller->setFlowByUser(600.0);
    forget();
    controller->resetFlowFromUser();
    EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(3)")) << "the hold flow comes from the index";
    EXPECT_EQ(lines().front(), line(Severity::Info, "resetFlowFromUser"));
    EXPECT_FALSE(controller->userDefinedFlow().first);
    controller->setFlowFromSM(0, true);
    forget();
    controller->resetFlowFromUser();
    EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(0)")) << "and so it ends with index 0";
}

TEST_F(FlowControllerTest, KnowsTheFlowThatItSawLast) {
    mBoard->set("probeGasFlow", 13);
    auto const controller = make<AtFlowBoxV2>();
    EXPECT_EQ(controller->getActualFlow(), 400.0);
    EXPECT_EQ(controller->actualFlowIndex(), Flow(2, false));
    mBoard->set("probeGasFlow", 2);
    EXPECT_EQ(controller->getActualFlow(), 400.0) << "until a poll sees it";
    EXPECT_EQ(controller->actualFlowIndex(), Flow(1, true)) << "asks the board";
}

TEST_F(FlowControllerTest, TellsNoFlowOfABoxThatReportsAnError) {
    auto const v1 = make<AtFlowBoxV1>();
    auto const v2 = make<AtFlowBoxV2>();
    mBoard->set("probeGasFlow", 255);
    expectThrow<std::runtime_error>([&] { v1->actualFlowIndex(); }, "Flow box hardware error");
    expectThrow<std::runtime_error>([&] { v2->actualFlowIndex(); }, "Flow box hardware error");
}

/// Whether a probe may be heated on what the boxes report.
TEST_F(FlowControllerTest, SeesGasInMainFlowHoldFlowAndWhatTheKnobGives) {
    auto const prototype = make<AtFlowBoxPrototype>();
    auto const v1 = make<AtFlowBoxV1>();
    auto const v2 = make<AtFlowBoxV2>();
    struct Row {
        int hw;
        bool onPrototype;
        bool onV1;
        bool onV2;
    };
    for (Row const& row : std::vector<Row>{{0, false, false, false},
                                           {1, true, true, true},
                                           {2, true, true, true},
                                           {10, true, true, false}, // V2: none, hold flow closed
                                           {14, true, true, true},  // V2: main flow without hold flow
                                           {20, true, true, false}, // V2: nobody knows this byte
                                           {100, true, true, true}, // V2: the operator wants none
                                           {104, true, true, true}, // V2: by the knob
                                           {255, true, false, false}}) {
        SCOPED_TRACE(row.hw);
        mBoard->set("probeGasFlow", row.hw);
        EXPECT_EQ(prototype->lookForGas(), row.onPrototype);
        EXPECT_EQ(v1->lookForGas(), row.onV1);
        EXPECT_EQ(v2->lookForGas(), row.onV2);
        mBoard->takeCalls();
        EXPECT_EQ(v2->sawGas(), row.onV2);
        EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
    }
}

TEST_F(FlowControllerTest, RemembersWhetherItSawGasInWhatItSet) {
    for (bool const isV1 : {false, true}) {
        mBoard->set("probeGasFlow", 0);
        auto const controller = isV1 ? make<AtFlowBoxV1>() : make<AtFlowBoxPrototype>();
        EXPECT_FALSE(controller->sawGas());
        controller->setFlowFromSM(0, true);
        EXPECT_TRUE(controller->sawGas());
        controller->setFlowByUser(0.0);
        EXPECT_FALSE(controller->sawGas());
        mBoard->set("probeGasFlow", 2);
        controller->setFlowByUser(200.0); // already there
        EXPECT_TRUE(controller->sawGas());
    }
}

} // namespace
