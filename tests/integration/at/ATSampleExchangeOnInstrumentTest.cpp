// SPDX-License-Identifier: Apache-2.0
// The exchange of a sample on the simulated board: gas down to nothing and back, from whatever the regulation
// was doing.
#include "integration/at/ATInstrument.h"

#include <algorithm>

#include <gmock/gmock.h>

namespace {

using namespace libfieldwarden::test;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Generation = ATInstrument::Generation;
using Knob = ATInstrument::Knob;
using Valves = libfieldwarden::sim::FlowBox::Valves;
using What = WatchedBoard::What;

class ATSampleExchangeOnInstrument : public ATOnInstrument {
protected:
    std::string prepare() {
        return mInstrument.transfer([this] { service().setAirFlowForSampleExchange(true); });
    }
    std::string complete(bool aInMagnet) {
        service().setSampleInMagnetForAirFlow(aInMagnet);
        return mInstrument.transfer([this] { service().setAirFlowForSampleExchange(false); });
    }
    Valves valves() { return mInstrument.flowBox->valves(); }
};

TEST_P(ATSampleExchangeOnInstrument, TakesTheGasDownAndBringsItBackToWhereItWas) {
    ramp(310.0); // 300 l/h: index 2
    mInstrument.seconds(600);
    mInstrument.watched->takeWrites();
    EXPECT_EQ(prepare(), "");
    auto writes = mInstrument.watched->takeWrites();
    EXPECT_THAT(valuesOf(writes, What::Flow), ElementsAre(2, 1, 0));
    ASSERT_EQ(writes.size(), 4U);
    EXPECT_EQ(writes.back().what, What::Regulation);
    EXPECT_EQ(writes.back().value, 0);
    EXPECT_EQ(valves(), Valves{});
    EXPECT_EQ(control(), Control::SampleExchange);
    EXPECT_EQ(service().getProbeGasFlowStatus(), ProbeTemperatureControlGasFlowStatus::SampleExchange);
    EXPECT_TRUE(service().getAirFlowForSampleExchange());
    // The regulation ends a second after the gas, when the valves have been seen closed.
    EXPECT_LE(mInstrument.board->heatingWatch().longest(), 2s);
    mInstrument.second(); // The board drives what it was told from its next sample on.
    EXPECT_EQ(mInstrument.board->drive().spiralWatt, 0.0);

    EXPECT_EQ(complete(true), "");
    writes = mInstrument.watched->takeWrites();
    EXPECT_THAT(valuesOf(writes, What::Flow), ElementsAre(1, 2, 3));
    EXPECT_EQ(valuesOf(writes, What::Target).front(), 36850); // 310 K
    EXPECT_EQ(valuesOf(writes, What::Regulation).front(), 1);
    EXPECT_EQ(valves(), (Valves{true, 2}));
    EXPECT_FALSE(service().getAirFlowForSampleExchange());
    EXPECT_TRUE(holds());
    EXPECT_EQ(service().getProbeGasFlowStatus(), ProbeTemperatureControlGasFlowStatus::On);
}

TEST_P(ATSampleExchangeOnInstrument, LeavesTheGasOffUntilASampleIsThere) {
    ramp(303.0);
    EXPECT_EQ(prepare(), "");
    EXPECT_EQ(complete(false), "");
    EXPECT_FALSE(service().getAirFlowForSampleExchange());
    mInstrument.watched->takeWrites();
    mInstrument.seconds(30);
    EXPECT_THAT(mInstrument.watched->takeWrites(), IsEmpty());
    EXPECT_EQ(control(), Control::SampleExchange);
    EXPECT_EQ(prepare(), ""); // the next sample
    EXPECT_EQ(complete(true), "");
    EXPECT_TRUE(holds());
    EXPECT_EQ(valves(), (Valves{true, 1}));
}

TEST_P(ATSampleExchangeOnInstrument, GoesOnWithTheRampFromWhereTheProbeIs) {
    service().setTargetProbeTemperature(320.0);
    setOn(true);
    mInstrument.seconds(400);
    EXPECT_EQ(control(), Control::Ramping);
    EXPECT_EQ(prepare(), "");
    mInstrument.seconds(20);
    mInstrument.watched->takeWrites();
    EXPECT_EQ(complete(true), "");
    EXPECT_EQ(control(), Control::Ramping);
    auto const targets = valuesOf(mInstrument.watched->takeWrites(), What::Target);
    // First what it was, then the probe's temperature, as every ramp begins.
    ASSERT_EQ(targets.size(), 2U);
    EXPECT_NEAR(targets[1] / 1000.0 + 273.15, mInstrument.probeKelvin(), 0.5);
    ASSERT_GT(mInstrument.secondsUntil([&] { return holds(); }, 40 * 60), 0);
    EXPECT_EQ(valves(), (Valves{true, 2}));
}

TEST_P(ATSampleExchangeOnInstrument, ExchangesWhileNothingIsRegulated) {
    for (int sample = 0; sample < 10; ++sample) {
        EXPECT_EQ(prepare(), "");
        EXPECT_EQ(complete(true), "");
        EXPECT_TRUE(isOff());
    }
    EXPECT_EQ(valves(), Valves{});
    EXPECT_EQ(mInstrument.board->heatingWatch().count(), 0U);
}

TEST_P(ATSampleExchangeOnInstrument, IsSwitchedOffAfterTheExchange) {
    ramp(310.0);
    EXPECT_EQ(prepare(), "");
    setOn(false);
    mInstrument.seconds(5);
    EXPECT_EQ(control(), Control::SampleExchange);
    EXPECT_EQ(complete(true), "");
    mInstrument.settle();
    EXPECT_EQ(control(), Control::Ramping); // down to off
    ASSERT_GT(mInstrument.secondsUntil([&] { return isOff(); }, 20 * 60), 0);
}

TEST_P(ATSampleExchangeOnInstrument, IsRefusedWhileTheKnobIsAway) {
    ramp(310.0);
    mInstrument.flowBox->turnKnob(Knob::Main1);
    mInstrument.seconds(2);
    EXPECT_EQ(prepare(), "Could not prepare for a sample transfer");
    EXPECT_FALSE(service().getAirFlowForSampleExchange());
    EXPECT_TRUE(holds());
    mInstrument.flowBox->turnKnob(Knob::Remote);
    mInstrument.seconds(3);
    EXPECT_EQ(prepare(), "");
    EXPECT_EQ(complete(true), "");
    EXPECT_TRUE(holds());
}

TEST_P(ATSampleExchangeOnInstrument, AppliesTheUsersFlowAfterTheExchange) {
    ramp(310.0);
    EXPECT_EQ(prepare(), "");
    service().setProbeGasFlowForOperation(400.0);
    EXPECT_EQ(valves(), Valves{});
    EXPECT_EQ(complete(true), "");
    mInstrument.seconds(2);
    EXPECT_EQ(valves(), (Valves{true, 3}));
    EXPECT_TRUE(holds());
}

INSTANTIATE_TEST_SUITE_P(EachFlowBox,
                         ATSampleExchangeOnInstrument,
                         ::testing::Values(Generation::V1, Generation::V2),
                         nameOf);

class ATPrototypeOnInstrument : public ATOnInstrument {};

TEST_P(ATPrototypeOnInstrument, ExchangesNoSample) {
    ramp(303.0);
    mInstrument.watched->takeWrites();
    for (bool const begins : {true, false}) {
        EXPECT_EQ(mInstrument.transfer([&] { service().setAirFlowForSampleExchange(begins); }),
                  "Combination of adjustable temperature and automation is not supported on this system.");
    }
    mInstrument.seconds(5);
    EXPECT_THAT(mInstrument.watched->takeWrites(), IsEmpty());
    EXPECT_TRUE(holds());
}

INSTANTIATE_TEST_SUITE_P(EachFlowBox,
                         ATPrototypeOnInstrument,
                         ::testing::Values(Generation::Prototype),
                         nameOf);

} // namespace
