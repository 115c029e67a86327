// SPDX-License-Identifier: Apache-2.0
// The steps that make the probe gas safe, in their order, and what a failing step leaves undone.
#include "temperature/ATHardPowerOff.h"

#include "support/FakeTempBoard.h"
#include "support/LogCapture.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using libfieldwarden::temperature::ATHardPowerOff;
using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::FakeTempBoard;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using testing::ElementsAre;
using testing::ElementsAreArray;

std::vector<std::string> const kSteps{
    "setTargetProbeTemperature(292.15)", "setProbeTemperatureRegulation(false)",
    "setProbeGasHeatingSpiralRegulation(false)", "setProbeGasHeatingSpiralPower(0)", "setProbeGasFlow(0)"};

TEST(ATHardPowerOff, EndsHeatingBeforeGasInItsOrder) {
    LogCapture const log;
    auto const board = std::make_shared<FakeTempBoard>();
    ATHardPowerOff(board);
    EXPECT_THAT(board->takeCalls(), ElementsAreArray(kSteps));
    EXPECT_THAT(log.lines(), ElementsAre(CapturedLine{Severity::Error, "+ATHardPowerOff", {}, {}}));
}

TEST(ATHardPowerOff, PassesAFailureOnAndLeavesTheStepsBehindItUndone) {
    for (std::size_t step = 0; step < kSteps.size(); ++step) {
        auto const board = std::make_shared<FakeTempBoard>();
        board->fail(kSteps[step], "node 7 does not answer");
        EXPECT_THROW(ATHardPowerOff(board), std::runtime_error);
        EXPECT_THAT(board->takeCalls(),
                    ElementsAreArray(kSteps.begin(), kSteps.begin() + std::ptrdiff_t(step) + 1));
    }
}

} // namespace
