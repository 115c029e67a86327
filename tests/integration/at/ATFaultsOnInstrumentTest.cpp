// SPDX-License-Identifier: Apache-2.0
// What goes wrong between library, temperature board and probe while the regulation is on.
#include "integration/at/ATInstrument.h"
#include "support/ExpectThrow.h"
#include "support/LogCapture.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace {

using namespace libfieldwarden::test;
using namespace std::chrono_literals;
using Generation = ATInstrument::Generation;
using What = WatchedBoard::What;
using libfieldwarden::sim::SensorFault;
using libfieldwarden::sim::TemperatureSensor;

class ATFaultsOnInstrument : public ATOnInstrument {
protected:
    bool hasLine(LogCapture const& aLog, std::string const& aStart) {
        auto const all = aLog.lines();
        return std::any_of(all.begin(), all.end(),
                           [&](auto const& aLine) { return aLine.text.starts_with(aStart); });
    }
};

TEST_P(ATFaultsOnInstrument, RampsDownWhenATargetIsRefused) {
    service().setTargetProbeTemperature(310.0);
    setOn(true);
    mInstrument.seconds(30);
    LogCapture log;
    mInstrument.watched->refuse(What::Target);
    ASSERT_GT(
        mInstrument.secondsUntil(
            [&] { return service().getProbeTemperatureStatus() == ProbeTemperatureGlobalStatus::Error; },
            5 * 60),
        0);
    EXPECT_TRUE(hasLine(log, "Error while doing ramp step, setting error flag and shutdown AT. Error was "));
    mInstrument.watched->refuse(std::nullopt);
    ASSERT_GE(mInstrument.secondsUntil([&] { return isOff(); }, 20 * 60), 0);
    EXPECT_FALSE(mInstrument.flowBox->valves().main > 0);
    EXPECT_EQ(mInstrument.board->heatingWatch().count(), 0U);
}

TEST_P(ATFaultsOnInstrument, IsSafeWhenAStageFailsAsAWhole) {
    ramp(303.0);
    LogCapture log;
    mInstrument.watched->refuse(What::Regulation);
    service().setTargetProbeTemperature(305.0); // The next stage begins with the regulation.
    mInstrument.seconds(2);
    EXPECT_EQ(service().getProbeTemperatureStatus(), ProbeTemperatureGlobalStatus::Error);
    EXPECT_TRUE(hasLine(log, "The AT state machine failed, it switches heating and gas off"));
    mInstrument.watched->refuse(std::nullopt);
    mInstrument.seconds(2);
    EXPECT_EQ(mInstrument.board->drive().spiralWatt, 0.0);

    ramp(303.0); // The operator tries again.
    EXPECT_EQ(service().getProbeTemperatureStatus(), ProbeTemperatureGlobalStatus::On);
}

TEST_P(ATFaultsOnInstrument, IsCutByTheBoardWhenTheLibraryFallsSilent) {
    ramp(303.0);
    EXPECT_GT(mInstrument.board->drive().spiralWatt, 0.0);
    mInstrument.cutBus(true);
    mInstrument.pass(250s); // The board's patience is 240 s.
    EXPECT_TRUE(eventually([&] { return mInstrument.board->drive().spiralWatt == 0.0; }));
    EXPECT_EQ(mInstrument.board->heatingWatch().count(), 0U);
    mInstrument.cutBus(false);
    mInstrument.seconds(2); // Whoever still waits for an answer gives up.
}

TEST_P(ATFaultsOnInstrument, IsNotStableWithoutItsProbe) {
    ramp(303.0);
    ASSERT_GT(
        mInstrument.secondsUntil(
            [&] { return service().getProbeTemperatureRegulatorStability() == TemperatureStability::Stable; },
            30 * 60),
        0);
    mInstrument.board->failSensor(TemperatureSensor::Probe, SensorFault::Open);
    mInstrument.seconds(2);
    EXPECT_EQ(service().getProbeTemperatureRegulatorStability(), TemperatureStability::LeftBand);
    EXPECT_EQ(mInstrument.board->drive().spiralWatt, 0.0) << "what it serves is not driven";
}

INSTANTIATE_TEST_SUITE_P(EachFlowBox,
                         ATFaultsOnInstrument,
                         ::testing::Values(Generation::Prototype, Generation::V1, Generation::V2),
                         nameOf);

} // namespace
