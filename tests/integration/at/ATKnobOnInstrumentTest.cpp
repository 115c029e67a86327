// SPDX-License-Identifier: Apache-2.0
// An operator at the flow box's knob, and a flow box without power, in each state of the regulation.
#include "integration/at/ATInstrument.h"
#include "support/LogCapture.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using namespace libfieldwarden::test;
using namespace std::chrono_literals;
using ::testing::Contains;
using Generation = ATInstrument::Generation;
using Knob = ATInstrument::Knob;
using Valves = libfieldwarden::sim::FlowBox::Valves;

class ATKnobOnInstrument : public ATOnInstrument {
protected:
    Valves valves() { return mInstrument.flowBox->valves(); }

    /// The operator lets 400 l/h flow for three seconds and goes away.
    void turnAndReturn() {
        auto const before = valves();
        auto const state = control();
        mInstrument.flowBox->turnKnob(Knob::Main3);
        mInstrument.seconds(3);
        EXPECT_EQ(valves(), (Valves{true, 3})) << "the knob goes before the library";
        EXPECT_EQ(service().getProbeMeasuredGasFlow(), 400.0);
        EXPECT_EQ(control(), state);
        mInstrument.flowBox->turnKnob(Knob::Remote);
        mInstrument.seconds(3);
        EXPECT_EQ(valves(), before);
        EXPECT_EQ(control(), state);
    }
};

TEST_P(ATKnobOnInstrument, ChangesNothingForGoodWhileOff) {
    turnAndReturn();
    EXPECT_TRUE(isOff());
    EXPECT_EQ(valves(), Valves{});
    EXPECT_EQ(mInstrument.flowBox->flow(), 0.0);
}

TEST_P(ATKnobOnInstrument, ChangesNothingForGoodDuringTheRamp) {
    service().setTargetProbeTemperature(306.0);
    setOn(true);
    mInstrument.seconds(200);
    EXPECT_EQ(control(), Control::Ramping);
    turnAndReturn();
    ASSERT_GT(mInstrument.secondsUntil([&] { return holds(); }, 20 * 60), 0);
    EXPECT_EQ(valves(), (Valves{true, 1}));
}

TEST_P(ATKnobOnInstrument, ChangesNothingForGoodAtTheTarget) {
    ramp(303.0);
    turnAndReturn();
    EXPECT_TRUE(holds());
    EXPECT_EQ(valves(), (Valves{true, 1}));
    EXPECT_EQ(service().getProbeMeasuredGasFlow(), 200.0);
}

TEST_P(ATKnobOnInstrument, ChangesNothingForGoodOnTheWayDown) {
    ramp(313.0);
    mInstrument.seconds(1800);
    setOn(false);
    mInstrument.seconds(5);
    EXPECT_EQ(control(), Control::Ramping);
    turnAndReturn();
    ASSERT_GT(mInstrument.secondsUntil([&] { return isOff(); }, 20 * 60), 0);
}

TEST_P(ATKnobOnInstrument, IsLeftAloneByARampThatNeedsMoreGas) {
    service().setTargetProbeTemperature(310.0);
    setOn(true);
    mInstrument.seconds(60);
    mInstrument.flowBox->turnKnob(Knob::Main1);
    ASSERT_GT(mInstrument.secondsUntil([&] { return holds(); }, 40 * 60), 0) << "no failure";
    EXPECT_EQ(valves(), (Valves{true, 1}));
    mInstrument.flowBox->turnKnob(Knob::Remote);
    mInstrument.seconds(3);
    EXPECT_EQ(valves(), (Valves{true, 2})) << "300 l/h from 308 K on";
    EXPECT_EQ(mInstrument.board->heatingWatch().count(), 0U);
}

TEST_P(ATKnobOnInstrument, RestoresTheUsersFlow) {
    ramp(303.0);
    service().setProbeGasFlowForOperation(300.0);
    mInstrument.seconds(2);
    EXPECT_EQ(valves(), (Valves{true, 2}));
    turnAndReturn();
    EXPECT_EQ(valves(), (Valves{true, 2}));
}

/// That the valves close is seen within a second; from then on nothing is heated, whatever the box does.
TEST_P(ATKnobOnInstrument, GivesUpWithAFlowBoxWithoutPowerAndHeatsAgainWhenAsked) {
    ramp(303.0);
    mInstrument.daemon.takeCalls();
    LogCapture log;
    mInstrument.flowBox->fail(true);
    mInstrument.seconds(2);
    EXPECT_TRUE(log.has(Severity::Error, "~pollATFlowBox: read hardware flow index reports error"));
    EXPECT_TRUE(
        log.has(Severity::Error, "No gas flows any more: by the user, or by an error of the flow box"));
    EXPECT_THAT(mInstrument.daemon.takeCalls(), Contains("probeTemperatureGasStatusChanged(7)"));
    EXPECT_EQ(service().getProbeTemperatureStatus(), ProbeTemperatureGlobalStatus::Error);
    EXPECT_TRUE(isOff());
    EXPECT_LE(mInstrument.board->heatingWatch().longest(), 2s);
    mInstrument.board->resetHeatingWatch();
    mInstrument.seconds(60);
    mInstrument.flowBox->fail(false);
    mInstrument.seconds(60);
    EXPECT_EQ(mInstrument.board->drive().spiralWatt, 0.0);
    ramp(303.0);
    EXPECT_EQ(valves(), (Valves{true, 1}));
    EXPECT_EQ(mInstrument.board->heatingWatch().count(), 0U);
}

TEST_P(ATKnobOnInstrument, GivesUpWithAUserWhoWantsNoGas) {
    ramp(303.0);
    service().setProbeGasFlowForOperation(0.0);
    mInstrument.seconds(2);
    EXPECT_EQ(valves(), Valves{});
    EXPECT_EQ(service().getProbeTemperatureStatus(), ProbeTemperatureGlobalStatus::Error);
    EXPECT_TRUE(isOff());
    ramp(303.0);
    EXPECT_EQ(valves(), (Valves{true, 1}));
    EXPECT_EQ(mInstrument.board->heatingWatch().count(), 0U);
}

INSTANTIATE_TEST_SUITE_P(EachFlowBox,
                         ATKnobOnInstrument,
                         ::testing::Values(Generation::V1, Generation::V2),
                         nameOf);

} // namespace
