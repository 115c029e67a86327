// SPDX-License-Identifier: Apache-2.0
// The probe's way up to its target and down to off, on the simulated board with each generation of the flow
// box.
#include "integration/at/ATInstrument.h"
#include "support/ExpectThrow.h"
#include "support/LogCapture.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <optional>
#include <stdexcept>

#include <gmock/gmock.h>

namespace {

using namespace libfieldwarden::test;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Generation = ATInstrument::Generation;
using What = WatchedBoard::What;
using Write = WatchedBoard::Write;

constexpr int kMinute = 60;

class ATRampOnInstrument : public ATOnInstrument {};

TEST_P(ATRampOnInstrument, GoesUpAKelvinAMinuteWithTheFlowBeforeTheTemperature) {
    double const start = mInstrument.probeKelvin();
    auto const begin = mInstrument.clock->now();
    ramp(310.0);
    auto const writes = mInstrument.watched->takeWrites();

    // Hold gas for a second, then regulation and gas together; 300 l/h from 308 K on.
    ASSERT_GT(writes.size(), 6U);
    EXPECT_EQ(writes[0].what, What::Flow);
    EXPECT_EQ(writes[0].value, 1);
    EXPECT_EQ(writes[1].what, What::Regulation);
    EXPECT_EQ(writes[1].value, 1);
    EXPECT_GE(writes[1].time - writes[0].time, 1s);
    EXPECT_EQ(writes[2].what, What::Flow);
    EXPECT_EQ(writes[2].value, 2);
    EXPECT_EQ(writes[3].what, What::Target);
    EXPECT_THAT(valuesOf(writes, What::Flow), ElementsAre(1, 2, 3));
    EXPECT_THAT(valuesOf(writes, What::Regulation), ElementsAre(1));
    for (std::size_t index = 4; index < writes.size(); ++index) {
        if (writes[index].what == What::Flow) { // 308 K are 34850 in milli degrees.
            EXPECT_LT(writes[index - 1].value, 34850);
            EXPECT_GE(writes[index + 1].value, 34850);
        }
    }

    // From where the probe was, in steps of at least 1 K, the last one to the target itself: 36850.
    auto const targets = valuesOf(writes, What::Target);
    EXPECT_NEAR(targets.front() / 1000.0 + 273.15, start, 0.2);
    EXPECT_EQ(targets.back(), 36850);
    for (std::size_t step = 1; step + 1 < targets.size(); ++step) {
        EXPECT_GE(targets[step] - targets[step - 1], 999);
        EXPECT_LE(targets[step] - targets[step - 1], 1050);
    }
    // It has arrived when it is within 1 K of the target: a minute for each K before.
    double const expected = 60.0 * (310.0 - 1.0 - start);
    double const took = std::chrono::duration<double>(mInstrument.clock->now() - begin).count();
    EXPECT_NEAR(took, expected, 15.0);
    EXPECT_EQ(mInstrument.board->heatingWatch().count(), 0U) << "heated without gas";
}

TEST_P(ATRampOnInstrument, TellsTheDaemonEachStage) {
    ramp(310.0);
    auto calls = mInstrument.daemon.takeCalls();
    std::erase_if(calls, [](std::string const& aCall) {
        return !aCall.starts_with("probeTemperatureStatusChanged") &&
               !aCall.starts_with("probeTemperatureControlStatusChanged") &&
               !aCall.starts_with("probeTargetTemperatureChanged");
    });
    EXPECT_THAT(calls, ElementsAre("probeTargetTemperatureChanged(310)", "probeTemperatureStatusChanged(1)",
                                   "probeTemperatureControlStatusChanged(1)",
                                   "probeTemperatureControlStatusChanged(2)"));
    EXPECT_EQ(service().getProbeTemperatureStatus(), ProbeTemperatureGlobalStatus::On);
    EXPECT_EQ(service().getProbeMeasuredGasFlow(), 300.0);
    EXPECT_TRUE(service().atEnabled());
}

TEST_P(ATRampOnInstrument, IsStableWhenFiveReadingsAreNearTheTarget) {
    ramp(310.0);
    std::deque<double> readings;
    bool expected = false;
    int seconds = 0;
    while (!expected && ++seconds < 30 * kMinute) {
        EXPECT_EQ(service().getProbeTemperatureRegulatorStability(), TemperatureStability::NotYetStable);
        mInstrument.second();
        readings.push_front(mInstrument.probeKelvin()); // The time stands still: what the poll has read, too.
        readings.resize(std::min<std::size_t>(readings.size(), 5));
        expected = readings.size() == 5 && std::all_of(readings.begin(), readings.end(), [](double aKelvin) {
                       return std::abs(aKelvin - 310.0) < 0.5;
                   });
    }
    EXPECT_TRUE(expected) << "never near the target";
    EXPECT_EQ(service().getProbeTemperatureRegulatorStability(), TemperatureStability::Stable);
}

TEST_P(ATRampOnInstrument, HoldsTheTargetForAnHour) {
    ramp(310.0);
    ASSERT_GT(
        mInstrument.secondsUntil(
            [&] { return service().getProbeTemperatureRegulatorStability() == TemperatureStability::Stable; },
            30 * kMinute),
        0);
    for (int minute = 0; minute < 60; ++minute) {
        mInstrument.seconds(kMinute);
        EXPECT_EQ(service().getProbeTemperatureRegulatorStability(), TemperatureStability::Stable);
        EXPECT_NEAR(mInstrument.probeKelvin(), 310.0, 0.5);
    }
    EXPECT_TRUE(holds());
    EXPECT_EQ(mInstrument.board->heatingWatch().count(), 0U);
}

TEST_P(ATRampOnInstrument, GoesDownFlushesHoldsAndIsOff) {
    ramp(313.0);
    mInstrument.seconds(30 * kMinute); // Until the probe is there, too.
    mInstrument.watched->takeWrites();
    setOn(false);
    auto const begin = mInstrument.clock->now();
    EXPECT_EQ(control(), Control::Ramping);
    ASSERT_GT(mInstrument.secondsUntil([&] { return isOff(); }, 20 * kMinute), 0);
    auto const writes = mInstrument.watched->takeWrites();

    // 313 K are 39850; down to 308.15 K, which are 35000, the last step from within 1 K. The probe may be
    // there before.
    auto const targets = valuesOf(writes, What::Target);
    ASSERT_GE(targets.size(), 3U);
    EXPECT_TRUE(std::is_sorted(targets.rbegin(), targets.rend()));
    EXPECT_NEAR(targets.front(), 38850, 250);
    EXPECT_GE(targets.back(), 35000);
    double const took = std::chrono::duration<double>(mInstrument.clock->now() - begin).count();
    EXPECT_GE(took, 60.0 * 3.0);

    // The heating ends, and then the gas: hold gas alone before that.
    EXPECT_THAT(valuesOf(writes, What::Regulation), ElementsAre(0));
    auto const flows = valuesOf(writes, What::Flow);
    EXPECT_THAT(std::vector(flows.end() - 2, flows.end()), ElementsAre(1, 0));
    auto const regulation = std::find_if(writes.begin(), writes.end(),
                                         [](Write const& aWrite) { return aWrite.what == What::Regulation; });
    EXPECT_EQ(regulation[-1].value, 1);
    EXPECT_EQ(regulation[1].value, 0);
    EXPECT_GE(regulation->time - regulation[-1].time, 300ms);
    EXPECT_GE(regulation[-1].time - regulation[-2].time, 5s) << "flushed for so long";
    EXPECT_EQ(mInstrument.board->heatingWatch().count(), 0U);
    EXPECT_EQ(service().getProbeTemperatureStatus(), ProbeTemperatureGlobalStatus::Off);
    EXPECT_FALSE(service().atEnabled());
}

TEST_P(ATRampOnInstrument, StaysOff) {
    ramp(303.0);
    setOn(false);
    ASSERT_GT(mInstrument.secondsUntil([&] { return isOff(); }, 20 * kMinute), 0);
    mInstrument.seconds(kMinute);
    EXPECT_TRUE(isOff());
    EXPECT_EQ(mInstrument.board->drive().spiralWatt, 0.0);
    // Intended: the machine closes the valves without a word to the flow controller. To it, a box of the
    // first generation then looks as one whose knob was away, and it restores the hold gas of the last stage.
    bool const hold = GetParam() == Generation::V1;
    EXPECT_EQ(mInstrument.flowBox->valves(), (libfieldwarden::sim::FlowBox::Valves{hold, 0}));
}

TEST_P(ATRampOnInstrument, IsRefusedUntilTheLockIsArmed) {
    LogCapture log;
    mInstrument.lock->armed = false;
    service().setTargetProbeTemperature(310.0);
    expectThrow<std::runtime_error>(
        [&] { service().setProbeTemperatureStatus(ProbeTemperatureGlobalStatus::On); },
        "The lock must be enabled and locked before AT operation can be started.");
    EXPECT_TRUE(log.has(Severity::Error,
                        "User requests to enable AT but the shim coil target temperature regulator is not "
                        "armed: denied"));
    mInstrument.seconds(5);
    EXPECT_TRUE(isOff());
    EXPECT_FALSE(service().atEnabled());
    EXPECT_THAT(valuesOf(mInstrument.watched->takeWrites(), What::Regulation), IsEmpty());
}

TEST_P(ATRampOnInstrument, AimsAnewFromWhereTheProbeIs) {
    ramp(306.0);
    mInstrument.watched->takeWrites();
    service().setTargetProbeTemperature(302.0);
    mInstrument.settle();
    double const from = mInstrument.probeKelvin();
    ASSERT_GE(mInstrument.secondsUntil([&] { return holds(); }, 20 * kMinute), 0);
    auto const targets = valuesOf(mInstrument.watched->takeWrites(), What::Target);
    EXPECT_NEAR(targets.front() / 1000.0 + 273.15, from, 0.3);
    EXPECT_EQ(targets.back(), 28850); // 302 K
}

TEST_P(ATRampOnInstrument, WaitsForATargetThatCanBeRegulated) {
    // The board regulates from 298.15 K on, and nobody has set a target yet.
    setOn(true);
    mInstrument.seconds(5);
    EXPECT_THAT(valuesOf(mInstrument.watched->takeWrites(), What::Flow), IsEmpty());
    EXPECT_TRUE(isOff());
    service().setTargetProbeTemperature(303.0);
    ASSERT_GT(mInstrument.secondsUntil([&] { return holds(); }, 20 * kMinute), 0);
    EXPECT_EQ(mInstrument.board->heatingWatch().count(), 0U);
}

TEST_P(ATRampOnInstrument, LeavesHeatingAndGasOffWhenTheServiceGoes) {
    ramp(305.0);
    mInstrument.close();
    EXPECT_EQ(mInstrument.flowBox->valves(), (libfieldwarden::sim::FlowBox::Valves{}));
    auto const writes = mInstrument.watched->takeWrites();
    EXPECT_EQ(valuesOf(writes, What::Regulation).back(), 0);
    EXPECT_EQ(valuesOf(writes, What::Target).back(), 19000); // 292.15 K
    EXPECT_EQ(mInstrument.board->heatingWatch().count(), 0U);
}

INSTANTIATE_TEST_SUITE_P(EachFlowBox,
                         ATRampOnInstrument,
                         ::testing::Values(Generation::Prototype, Generation::V1, Generation::V2),
                         nameOf);

} // namespace
