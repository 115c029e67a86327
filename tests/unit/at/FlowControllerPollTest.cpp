// SPDX-License-Identifier: Apache-2.0
// What the poll of the flow box sees, tells and restores.
#include "unit/at/FlowControllerRig.h"

#include "support/ExpectThrow.h"

#include <chrono>
#include <stdexcept>

namespace {

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::expectThrow;
using libfieldwarden::test::FlowControllerRig;
using libfieldwarden::test::line;
using libfieldwarden::test::Severity;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;
using State = FlowController::FlowState;

class FlowControllerPollTest : public FlowControllerRig {
protected:
    static CapturedLine restored(std::string const& aWhat) {
        return line(Severity::Warning,
                    "Knob went back from NOT REMOTE to REMOTE, restoring gas flow to " + aWhat);
    }

    /// What a poll does beyond asking the board.
    std::vector<CapturedLine> poll(FlowController& aController, Severity aUpTo = Severity::Info) {
        mLog.clear();
        aController.pollATFlowBox();
        return lines(aUpTo);
    }
};

TEST_F(FlowControllerPollTest, AsksNothingOfABoxThatCannotTell) {
    auto const controller = make<AtFlowBoxPrototype>();
    EXPECT_THAT(poll(*controller, Severity::Trace),
                ElementsAre(line(Severity::Trace, "+pollATFlowBox"),
                            line(Severity::Trace, "-pollATFlowBox: cannot read-back valves")));
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
    EXPECT_EQ(controller->state(), State::ControlledByFSM);
}

TEST_F(FlowControllerPollTest, TakesTheFirstLookForAKnobThatCameBack) {
    auto const controller = make<AtFlowBoxV2>();
    EXPECT_THAT(poll(*controller, Severity::Trace),
                ElementsAre(line(Severity::Trace, "+pollATFlowBox"),
                            line(Severity::Trace, "~pollATFlowBox: read hardware flow index is 0"),
                            restored("0 and hold gas 0")));
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("probeGasFlow()"));
    EXPECT_THAT(poll(*controller, Severity::Debug), IsEmpty());
    EXPECT_THAT(mListener->takeCalls(), IsEmpty());
}

TEST_F(FlowControllerPollTest, TellsOfAChangeThatTheLibraryDidNotMake) {
    auto const controller = makePolled<AtFlowBoxV2>();
    mBoard->set("probeGasFlow", 13);
    EXPECT_THAT(poll(*controller),
                ElementsAre(line(Severity::Warning,
                                 "~pollATFlowBox: probe gas flow changed from 0 (0x00) to 13 (0x0D). Decodes "
                                 "to:hardwareError = 0, isKnobSetToRemote = 1, isHoldFlowEnabled = 0, "
                                 "softwareFlowIndex = 2")));
    EXPECT_THAT(mListener->takeCalls(),
                ElementsAre("probeMeasuredGasFlowChanged(400)", "probeTargetGasFlowForOperationChanged(400)",
                            "probeTemperatureGasStatusChanged(2)"));
    EXPECT_EQ(controller->getActualFlow(), 400.0);
    EXPECT_THAT(poll(*controller), IsEmpty()) << "told once";
    EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(FlowControllerPollTest, TellsHoldFlowAloneAsGas) {
    auto const controller = makePolled<AtFlowBoxV2>();
    mBoard->set("probeGasFlow", 1);
    controller->pollATFlowBox();
    EXPECT_THAT(mListener->takeCalls(),
                ElementsAre("probeMeasuredGasFlowChanged(0)", "probeTargetGasFlowForOperationChanged(0)",
                            "probeTemperatureGasStatusChanged(2)"));
    mBoard->set("probeGasFlow", 0);
    controller->pollATFlowBox();
    EXPECT_EQ(mListener->takeCalls().back(), "probeTemperatureGasStatusChanged(0)");
}

TEST_F(FlowControllerPollTest, RestoresTheMachinesGasWhenTheKnobIsBack) {
    auto const controller = makePolled<AtFlowBoxV2>();
    controller->setFlowFromSM(2, true);
    mBoard->set("probeGasFlow", 101); // hold flow only, by the knob
    EXPECT_THAT(
        poll(*controller),
        ElementsAre(line(Severity::Warning,
                         "~pollATFlowBox: probe gas flow changed from 3 (0x03) to 101 (0x65). Decodes "
                         "to:hardwareError = 0, isKnobSetToRemote = 0, isHoldFlowEnabled = 1, "
                         "softwareFlowIndex = 0"),
                    line(Severity::Info, "Flow state changed from 0 to 2")));
    mBoard->set("probeGasFlow", 0);
    forget();
    EXPECT_THAT(
        poll(*controller),
        ElementsAre(line(Severity::Warning,
                         "~pollATFlowBox: probe gas flow changed from 101 (0x65) to 0 (0x00). Decodes "
                         "to:hardwareError = 0, isKnobSetToRemote = 1, isHoldFlowEnabled = 0, "
                         "softwareFlowIndex = 0"),
                    restored("2 and hold gas 1"), line(Severity::Info, "Flow state changed from 2 to 0")));
    EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(1)", "setProbeGasFlow(3)"));
    EXPECT_EQ(waited(), 300ms);
    EXPECT_THAT(pushed("gas_flow_state"), ElementsAre(2.0, 0.0));
}

TEST_F(FlowControllerPollTest, RestoresAtOnceWhereTheHoldFlowIsOn) {
    auto const controller = makePolled<AtFlowBoxV2>();
    controller->setFlowFromSM(2, true);
    mBoard->set("probeGasFlow", 100);
    controller->pollATFlowBox();
    mBoard->set("probeGasFlow", 1);
    forget();
    controller->pollATFlowBox();
    EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(3)"));
    EXPECT_EQ(waited(), 0s);
}

TEST_F(FlowControllerPollTest, RestoresHoldFlowAlone) {
    auto const controller = makePolled<AtFlowBoxV2>();
    controller->setFlowFromSM(0, true);
    mBoard->set("probeGasFlow", 100);
    controller->pollATFlowBox();
    mBoard->set("probeGasFlow", 0);
    forget();
    controller->pollATFlowBox();
    EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(1)"));
}

TEST_F(FlowControllerPollTest, RestoresAUsersGasBeforeTheMachines) {
    auto const controller = makePolled<AtFlowBoxV2>();
    controller->setFlowFromSM(2, true);
    controller->setFlowByUser(600.0);
    mBoard->set("probeGasFlow", 100);
    controller->pollATFlowBox();
    EXPECT_EQ(controller->state(), State::OverridenInHardware);
    mBoard->set("probeGasFlow", 0);
    forget();
    EXPECT_EQ(poll(*controller).at(1), restored("3 and hold gas 1"));
    EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(1)", "setProbeGasFlow(4)"));
    EXPECT_EQ(controller->state(), State::OverridenInSoftware);
}

TEST_F(FlowControllerPollTest, SeesTheKnobOfVersion1OnlyInTheMomentOfItsTurn) {
    auto const controller = makePolled<AtFlowBoxV1>();
    controller->setFlowFromSM(0, true);
    controller->setFlowFromSM(2, true);
    mBoard->set("probeGasFlow", 1);
    forget();
    controller->pollATFlowBox();
    EXPECT_EQ(controller->state(), State::OverridenInHardware);
    EXPECT_THAT(writes(), IsEmpty());
    // The byte is no longer an unexpected one, so the knob counts as back, and the gas is set again.
    EXPECT_THAT(poll(*controller), ElementsAre(restored("2 and hold gas 1"),
                                               line(Severity::Info, "Flow state changed from 2 to 0")));
    EXPECT_THAT(writes(), ElementsAre("setProbeGasFlow(3)"));
}

TEST_F(FlowControllerPollTest, TellsOfAnErrorThatPersistsAtEverySecondPoll) {
    auto const controller = makePolled<AtFlowBoxV2>();
    mBoard->set("probeGasFlow", 255);
    auto const report = line(Severity::Error, "~pollATFlowBox: read hardware flow index reports error");
    // An error byte reads as a knob that is away, too, so the state goes on from 3 to 2.
    EXPECT_THAT(poll(*controller), ElementsAre(report, line(Severity::Info, "Flow state changed from 0 to 3"),
                                               line(Severity::Info, "Flow state changed from 3 to 2")));
    EXPECT_THAT(mListener->takeCalls(), ElementsAre("probeTemperatureGasStatusChanged(7)"));
    EXPECT_THAT(
        poll(*controller),
        ElementsAre(line(Severity::Warning,
                         "~pollATFlowBox: probe gas flow changed from 0 (0x00) to 255 (0xFF). Decodes "
                         "to:hardwareError = 1, isKnobSetToRemote = 0, isHoldFlowEnabled = 1, "
                         "softwareFlowIndex = 0")));
    EXPECT_THAT(mListener->takeCalls(),
                ElementsAre("probeMeasuredGasFlowChanged(0)", "probeTargetGasFlowForOperationChanged(0)",
                            "probeTemperatureGasStatusChanged(2)"));
    EXPECT_THAT(poll(*controller), ElementsAre(report, line(Severity::Info, "Flow state changed from 2 to 3"),
                                               line(Severity::Info, "Flow state changed from 3 to 2")));
    EXPECT_THAT(poll(*controller), IsEmpty());
}

TEST_F(FlowControllerPollTest, KeepsTheErrorOfAByteThatNobodyKnows) {
    auto const controller = makePolled<AtFlowBoxV2>();
    mBoard->set("probeGasFlow", 20);
    controller->pollATFlowBox();
    EXPECT_EQ(controller->state(), State::Error);
    controller->pollATFlowBox();
    EXPECT_EQ(controller->state(), State::Error);
    mBoard->set("probeGasFlow", 0);
    controller->pollATFlowBox();
    EXPECT_EQ(controller->state(), State::ControlledByFSM);
}

TEST_F(FlowControllerPollTest, LeavesThePollWhereTheErrorDecodesToAFlowThatDoesNotExist) {
    auto const controller = makePolled<AtFlowBoxV1>();
    mBoard->set("probeGasFlow", 255);
    controller->pollATFlowBox(); // the report
    EXPECT_THROW(controller->pollATFlowBox(), std::out_of_range);
    mBoard->set("probeGasFlow", 0);
    controller->pollATFlowBox();
    EXPECT_EQ(controller->state(), State::OverridenInHardware) << "unexpected, after 255";
    controller->pollATFlowBox();
    EXPECT_EQ(controller->state(), State::ControlledByFSM);
}

TEST_F(FlowControllerPollTest, TellsAnewOfAnErrorAfterARequest) {
    auto const controller = makePolled<AtFlowBoxV2>();
    mBoard->set("probeGasFlow", 255);
    controller->pollATFlowBox();
    controller->setFlowFromSM(1, true); // the box takes it
    mBoard->set("probeGasFlow", 255);
    EXPECT_EQ(poll(*controller).front(),
              line(Severity::Error, "~pollATFlowBox: read hardware flow index reports error"));
}

/// What is told of an error that lasts alternates, and version 1 even leaves the poll; what was seen does
/// not.
TEST_F(FlowControllerPollTest, SeesNoGasAsLongAsAnErrorLasts) {
    for (bool const isV1 : {false, true}) {
        mBoard->set("probeGasFlow", 1);
        auto const controller = isV1 ? makePolled<AtFlowBoxV1>() : makePolled<AtFlowBoxV2>();
        EXPECT_TRUE(controller->sawGas());
        mBoard->readBack = [](unsigned char /*aWritten*/) { return 255; };
        mBoard->set("probeGasFlow", 255);
        for (int poll = 0; poll < 6; ++poll) {
            try {
                controller->pollATFlowBox();
            } catch (std::out_of_range const&) { // NOLINT(bugprone-empty-catch): a flow that does not exist
            }
            EXPECT_FALSE(controller->sawGas());
        }
        mBoard->readBack = [](unsigned char aWritten) { return aWritten; };
    }
}

TEST_F(FlowControllerPollTest, SeesTheGasThatItRestored) {
    auto const controller = makePolled<AtFlowBoxV2>();
    controller->setFlowFromSM(2, true);
    mBoard->set("probeGasFlow", 100);
    controller->pollATFlowBox();
    EXPECT_TRUE(controller->sawGas()) << "what the operator wants";
    mBoard->set("probeGasFlow", 0);
    controller->pollATFlowBox();
    EXPECT_TRUE(controller->sawGas());
}

TEST_F(FlowControllerPollTest, TakesAnUnexpectedByteOfVersion1ForNoKnobWhereNoGasFlows) {
    auto const controller = makePolled<AtFlowBoxV1>();
    controller->setFlowFromSM(0, true);
    controller->setFlowFromSM(2, true);
    mBoard->set("probeGasFlow", 0); // a knob that is off, or a board that has restarted
    controller->pollATFlowBox();
    EXPECT_FALSE(controller->sawGas());
}

TEST_F(FlowControllerPollTest, GoesOnAfterABoardThatFailed) {
    auto const controller = makePolled<AtFlowBoxV2>();
    mBoard->fail("probeGasFlow", "no answer", 1);
    expectThrow<std::runtime_error>([&] { controller->pollATFlowBox(); }, "no answer");
    EXPECT_THAT(poll(*controller), IsEmpty());
    EXPECT_TRUE(controller->setFlowFromSM(1, true)) << "nothing is left locked";
}

} // namespace
