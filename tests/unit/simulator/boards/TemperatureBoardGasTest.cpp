// SPDX-License-Identifier: Apache-2.0
// The probe's gas and its heating: regulation, the time-out that cuts it, and what happens without gas.
#include "unit/simulator/boards/TemperatureBoardRig.h"

#include <array>
#include <chrono>
#include <cmath>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::Emergency;
using libfieldwarden::sim::FlowBox;
using libfieldwarden::sim::HeatingWatch;
using libfieldwarden::sim::TemperatureBoard;
using libfieldwarden::test::TemperatureBoardRig;
using testing::ElementsAre;
using testing::IsEmpty;
using Knob = FlowBox::Knob;
using namespace std::chrono_literals;

constexpr Emergency kSilenceCut{0x8130, 0x11, {}};
constexpr Emergency kTooHot{0x4310, 0x09, {}};
constexpr Emergency kOver{0x0000, 0x00, {}};

/// A box of the third generation on a board that heats gas; nobody's time-out is in the way of a test that
/// is not about it.
class TemperatureBoardGasTest : public TemperatureBoardRig {
protected:
    TemperatureBoardGasTest() {
        set(kVtMode, 2);
        set(kTimeout, 0);
    }

    double probe() { return mBoard->temperatures().probe; }
    double spiral() { return mBoard->temperatures().spiral; }
    /// Sets gas and lets it flow, then regulates the probe.
    void regulateProbe(std::int64_t aMilliCelsius, std::int64_t aGas) {
        set(kGas, aGas);
        set(kProbeTarget, aMilliCelsius);
        set(kProbeRegulation, 1);
    }
};

// ---------------------------------------------------------------------------------------------- the gas

TEST_F(TemperatureBoardGasTest, WritesTheFlowBoxAndReadsItBack) {
    set(kGas, 3);
    EXPECT_EQ(mBox->valves(), (FlowBox::Valves{true, 2}));
    EXPECT_EQ(number(kGas), 3);
    mClock.advance(10s);
    EXPECT_EQ(number({0x3305, 2}), 350'000); // ml/h
    set(kGas, 14);
    EXPECT_EQ(number(kGas), 14);
    mBox->turnKnob(Knob::Hold);
    EXPECT_EQ(number(kGas), 101);
    mBox->fail(true);
    EXPECT_EQ(number(kGas), 255);
}

TEST_F(TemperatureBoardGasTest, HeatsTheProbeByPowerAndFlowAsTheBalanceSays) {
    set(kGas, 2);
    set(kSpiralPower, 2000);
    mClock.advance(2h);
    EXPECT_EQ(number(kSpiralPower), 2000);
    // W = 1.145 * 1040 * 250e-3 / 3600 = 0.0826944 W/K; the spiral at rest is
    // 2 / (0.03 + W (1 - e^-(0.3 / W))) = 2 / 0.110497 = 18.10 K above the room.
    EXPECT_NEAR(spiral() - 23.0, 18.10, 0.05);
    // The gas comes to 0.97343 of it, 17.62 K; the probe gives 0.025 W/K away to coil and room and takes
    // W (1 - e^-(0.2 / W)) = 0.0753 W/K: (0.0753 * 17.62 + 0.02 * 2) / 0.1003 = 13.63 K.
    EXPECT_NEAR(probe() - 23.0, 13.63, 0.1);
}

TEST_F(TemperatureBoardGasTest, NeedsMorePowerForMoreGasAtTheSameSpiral) {
    std::array<double, 3> watt{};
    for (std::size_t flow = 0; flow < watt.size(); ++flow) {
        set(kGas, static_cast<std::int64_t>(2 + flow));
        set(kSpiralTarget, 80'000);
        set(kSpiralRegulation, 1);
        mClock.advance(1h);
        EXPECT_NEAR(spiral(), 80.0, 0.1);
        watt.at(flow) = thousandths(kSpiralPower);
    }
    EXPECT_GT(watt[1], watt[0] + 0.5);
    EXPECT_GT(watt[2], watt[1] + 0.5);
}

// ---------------------------------------------------------------------------------------------- regulation

TEST_F(TemperatureBoardGasTest, BringsTheProbeToItsTargetWithEveryFlow) {
    for (std::int64_t const gas : {2, 3, 4}) {
        for (std::int64_t const target : {36'850, 80'000}) {
            regulateProbe(target, gas);
            mClock.advance(30min);
            EXPECT_NEAR(probe(), static_cast<double>(target) / 1000.0, 0.05) << gas;
            EXPECT_EQ(number(kHeating), 1);
        }
    }
    EXPECT_EQ(mBoard->heatingWatch().count(), 0U);
    EXPECT_THAT(mBoard->takeEmergencies(), IsEmpty());
}

TEST_F(TemperatureBoardGasTest, FollowsARampOfAKelvinAMinute) {
    regulateProbe(30'000, 3);
    mClock.advance(30min);
    for (std::int64_t target = 31'000; target <= 40'000; target += 1000) {
        set(kProbeTarget, target);
        mClock.advance(1min);
        // Within a step and a half of it all the way.
        EXPECT_NEAR(probe(), static_cast<double>(target) / 1000.0, 1.5);
    }
    mClock.advance(10min);
    EXPECT_NEAR(probe(), 40.0, 0.1);
}

TEST_F(TemperatureBoardGasTest, ShowsTheSpiralsTargetThatTheProbesRegulatorWants) {
    set(kSpiralTarget, 30'000);
    mClock.advance(250ms);
    EXPECT_EQ(number(kSpiralTarget), 30'000);
    regulateProbe(60'000, 3);
    mClock.advance(30min);
    EXPECT_GT(number(kSpiralTarget), 60'000);
    EXPECT_NEAR(spiral(), thousandths(kSpiralTarget), 1.0);
    set(kProbeRegulation, 0);
    mClock.advance(250ms);
    EXPECT_EQ(number(kSpiralTarget), 30'000);
}

TEST_F(TemperatureBoardGasTest, IsColdAfterTheEndOfARegulationWhateverThePowerWas) {
    set(kGas, 3);
    set(kSpiralPower, 5000);
    set(kProbeRegulation, 1);
    mClock.advance(1min);
    set(kProbeRegulation, 0);
    mClock.advance(250ms);
    EXPECT_EQ(number(kSpiralPower), 0);
    EXPECT_EQ(number(kHeating), 0);
}

TEST_F(TemperatureBoardGasTest, KeepsTheSpiralWithinItsPower) {
    EXPECT_EQ(write(kSpiralPower, 43'001), kOutOfRange);
    set(kGas, 4);
    set(kSpiralTarget, 250'000);
    set(kSpiralRegulation, 1);
    mClock.advance(2s);
    EXPECT_EQ(number(kSpiralPower), 43'000);
}

TEST_F(TemperatureBoardGasTest, DoesNotHeatByABrokenSensor) {
    regulateProbe(60'000, 3);
    mClock.advance(1min);
    EXPECT_GT(number(kSpiralPower), 1000);
    mBoard->failSensor(Sensor::Spiral, Fault::Short);
    mClock.advance(250ms);
    EXPECT_EQ(number(kSpiralPower), 0);
    mBoard->failSensor(Sensor::Spiral, Fault::None);
    mClock.advance(30min);
    EXPECT_NEAR(probe(), 60.0, 0.1);
    EXPECT_GT(number(kSpiralPower), 1000);
    mBoard->failSensor(Sensor::Probe, Fault::Open);
    mClock.advance(250ms);
    EXPECT_EQ(number(kSpiralPower), 0);
}

// ---------------------------------------------------------------------------------------------- time-out

TEST_F(TemperatureBoardGasTest, CutsTheHeatingWhenNobodyTalksToIt) {
    set(kTimeout, 240);
    regulateProbe(60'000, 3);
    mClock.advance(100s);
    EXPECT_EQ(number(kUntilCut), 240'000); // Whoever asks begins it anew.
    passSilent(239750ms);
    EXPECT_GT(mBoard->drive().spiralWatt, 1.0);
    passSilent(250ms);
    EXPECT_EQ(mBoard->drive().spiralWatt, 0.0);
    EXPECT_THAT(mBoard->takeEmergencies(), ElementsAre(kSilenceCut));
    EXPECT_EQ(number(kHeating), 2);
    EXPECT_EQ(number(kErrors), 0x11); // any, communication
    EXPECT_EQ(number(kProbeRegulation), 0);
    EXPECT_EQ(number(kSpiralPower), 0);
    EXPECT_EQ(number(kUntilCut), -1);
    EXPECT_EQ(number(kGas), 3); // The gas goes on.
    EXPECT_THAT(text({0x2201, 1}),
                testing::HasSubstr("Heating cut: nobody has talked to the board for 240 s"));
}

TEST_F(TemperatureBoardGasTest, CutsWhatIsHeatedByHandAndWhatRegulatesTheSpiral) {
    set(kTimeout, 10);
    set(kGas, 3);
    set(kSpiralPower, 3000);
    passSilent(10s);
    EXPECT_EQ(number(kHeating), 2);
    set(kSpiralRegulation, 1);
    EXPECT_EQ(number(kHeating), 1);
    passSilent(10s);
    EXPECT_EQ(number(kHeating), 2);
    EXPECT_EQ(number(kSpiralRegulation), 0);
}

TEST_F(TemperatureBoardGasTest, CutsEvenWhenItIsOnlyLookedAtMuchLater) {
    set(kTimeout, 10);
    regulateProbe(60'000, 3);
    mClock.advance(1h);
    EXPECT_EQ(number(kHeating), 2);
    EXPECT_LT(probe(), 24.0); // Cold for long.
}

TEST_F(TemperatureBoardGasTest, GoesOnHeatingWhileSomebodyTalks) {
    set(kTimeout, 10);
    regulateProbe(40'000, 3);
    for (int times = 0; times < 100; ++times) {
        mClock.advance(9s);
        EXPECT_EQ(number(kHeating), 1);
    }
    EXPECT_NEAR(probe(), 40.0, 0.2);
}

TEST_F(TemperatureBoardGasTest, HeatsForEverWithoutATimeout) {
    regulateProbe(40'000, 3);
    passSilent(24h);
    EXPECT_EQ(number(kHeating), 1);
}

TEST_F(TemperatureBoardGasTest, HeatsAgainOnlyWhenItIsTold) {
    set(kTimeout, 10);
    regulateProbe(40'000, 3);
    passSilent(10s);
    passTalking(60s);
    EXPECT_EQ(number(kHeating), 2);
    EXPECT_EQ(mBoard->drive().spiralWatt, 0.0);
    set(kProbeRegulation, 1);
    passTalking(5s);
    EXPECT_EQ(number(kHeating), 1);
    EXPECT_EQ(number(kErrors), 0);
    EXPECT_GT(mBoard->drive().spiralWatt, 1.0);
}

// ---------------------------------------------------------------------------------------------- no gas

TEST_F(TemperatureBoardGasTest, OverheatsTheSpiralThatIsDrivenWithoutGas) {
    set(kSpiralPower, 10'000);
    // 10 / 0.03 = 333 K above the room at rest, after 500 s a time constant:
    // 260 degrees after 500 s ln(333.3 / (333.3 - 237)) = 621 s.
    mClock.advance(600s);
    EXPECT_LT(thousandths(kSpiral), 260.0);
    EXPECT_THAT(mBoard->takeEmergencies(), IsEmpty());
    mClock.advance(40s);
    EXPECT_GT(thousandths(kSpiral), 260.0);
    EXPECT_THAT(mBoard->takeEmergencies(), ElementsAre(kTooHot));
    EXPECT_EQ(number(kErrors), 0x09); // any, temperature
    mClock.advance(1h);
    EXPECT_NEAR(spiral(), 356.3, 1.0);
    // The probe feels nothing of it: without gas no heat comes there.
    EXPECT_LT(probe(), 26.0);
    HeatingWatch const watch = mBoard->heatingWatch();
    EXPECT_EQ(watch.count(), 1U);
    EXPECT_EQ(watch.longest(), 1h + 640s);
    EXPECT_NEAR(watch.hottestCelsius(), 356.3, 1.0);
}

TEST_F(TemperatureBoardGasTest, ReportsThatTheSpiralIsCoolAgainBelowALowerTemperature) {
    set(kSpiralPower, 10'000);
    mClock.advance(700s);
    number(kSpiral);
    mBoard->takeEmergencies();
    set(kSpiralPower, 0);
    double celsius = thousandths(kSpiral);
    ASSERT_GT(celsius, 262.0);
    while (celsius > 241.0) {
        EXPECT_THAT(mBoard->takeEmergencies(), IsEmpty());
        mClock.advance(1s);
        celsius = thousandths(kSpiral);
    }
    mClock.advance(10s);
    EXPECT_LT(thousandths(kSpiral), 240.0);
    EXPECT_THAT(mBoard->takeEmergencies(), ElementsAre(kOver));
}

TEST_F(TemperatureBoardGasTest, DrivesTheSpiralToItsLimitToHoldAProbeWithoutGas) {
    set(kProbeTarget, 80'000);
    set(kProbeRegulation, 1);
    mClock.advance(1h);
    EXPECT_GT(spiral(), 200.0);
    EXPECT_LT(probe(), 30.0);
    EXPECT_EQ(mBoard->heatingWatch().count(), 1U);
}

TEST_F(TemperatureBoardGasTest, ShowsTheGasThatIsLostWhileItHeats) {
    regulateProbe(80'000, 4);
    mClock.advance(30min);
    double const before = spiral();
    mBox->setGas(false);
    mClock.advance(2min);
    EXPECT_GT(spiral(), before + 20.0);
    EXPECT_LT(probe(), 79.0);
    EXPECT_EQ(mBoard->heatingWatch().count(), 1U);
    EXPECT_EQ(longestWithoutGas(), 2min);
    mBox->setGas(true);
    mClock.advance(1h);
    EXPECT_NEAR(probe(), 80.0, 0.1);
    EXPECT_EQ(mBoard->heatingWatch().count(), 1U);
}

TEST_F(TemperatureBoardGasTest, CountsGasThatStillComesFromClosedValvesAsNone) {
    set(kGas, 4);
    mClock.advance(10s);
    set(kSpiralPower, 1000);
    mClock.advance(10s);
    set(kGas, 0);
    mClock.advance(250ms);
    EXPECT_GT(mBox->flow(), 50.0);
    EXPECT_EQ(mBoard->heatingWatch().longest(), 250ms);
}

TEST_F(TemperatureBoardGasTest, FindsNothingWrongInGasThatIsOpenedAtTheMomentOfTheHeating) {
    set(kGas, 2);
    set(kSpiralPower, 1000);
    mClock.advance(1min);
    set(kSpiralPower, 0);
    set(kGas, 0);
    mClock.advance(1min);
    EXPECT_EQ(mBoard->heatingWatch().count(), 0U);
}

TEST_F(TemperatureBoardGasTest, ForgetsTheWorstWhenItIsTold) {
    set(kSpiralPower, 1000);
    mClock.advance(10s);
    set(kSpiralPower, 0);
    EXPECT_EQ(mBoard->heatingWatch().count(), 1U);
    mBoard->resetHeatingWatch();
    EXPECT_EQ(mBoard->heatingWatch().count(), 0U);
}

TEST_F(TemperatureBoardGasTest, CoolsTheProbeTowardsTheRoomByColdGas) {
    regulateProbe(80'000, 4);
    mClock.advance(30min);
    set(kProbeRegulation, 0);
    mClock.advance(20min);
    EXPECT_LT(probe(), 25.0);
    EXPECT_LT(spiral(), 25.0);
}

TEST_F(TemperatureBoardGasTest, ClosesTheValvesAndStopsHeatingWithARestart) {
    regulateProbe(60'000, 3);
    mClock.advance(1min);
    mBoard->restart(TemperatureBoard::Start::Fault);
    mClock.advance(1s);
    EXPECT_EQ(mBoard->drive().spiralWatt, 0.0);
    EXPECT_EQ(mBox->valves(), FlowBox::Valves{});
    EXPECT_EQ(number(kHeating), 0);
}

// ---------------------------------------------------------------------------------------------- the knob

TEST_F(TemperatureBoardGasTest, LosesTheProbesTemperatureWhileTheKnobIsOffAndFindsItAgain) {
    regulateProbe(60'000, 3);
    mClock.advance(30min);
    mBox->turnKnob(Knob::Off);
    EXPECT_EQ(number(kGas), 100);
    mClock.advance(1min);
    EXPECT_LT(probe(), 59.0);
    EXPECT_EQ(longestWithoutGas(), 1min);
    mBox->turnKnob(Knob::Remote);
    EXPECT_EQ(number(kGas), 3);
    mClock.advance(30min);
    EXPECT_NEAR(probe(), 60.0, 0.1);
}

/// The first two generations, as far as the board's byte goes.
class TemperatureBoardOldBoxTest : public TemperatureBoardRig {
protected:
    TemperatureBoardOldBoxTest()
        : TemperatureBoardRig({.generation = FlowBox::Generation::Prototype}) {}
};

TEST_F(TemperatureBoardOldBoxTest, RegulatesWithAPrototypeThatShowsNothing) {
    set(kVtMode, 1);
    set(kGas, 3);
    set(kProbeTarget, 37'000);
    set(kProbeRegulation, 1);
    passTalking(1800s);
    EXPECT_NEAR(mBoard->temperatures().probe, 37.0, 0.1);
    mBox->turnKnob(Knob::Off);
    EXPECT_EQ(number(kGas), 3);
    passTalking(60s);
    EXPECT_EQ(longestWithoutGas(), 1min);
}

TEST_F(TemperatureBoardOldBoxTest, FindsNoPortExpanderOnAPrototype) {
    set(kVtMode, 2);
    EXPECT_EQ(number(kEcl), 99);
}

} // namespace
